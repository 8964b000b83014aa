#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/CardReport.h"
#include "host/PinState.h"
#include "host/Result.h"
#include "platform/Bytes.h"
#include "platform/Certificate.h"
#include "platform/PlatformServices.h"
#include "platform/Text.h"

namespace mirel {

class CardWatch;
class FailureDiary;
struct CardContents;
struct FailedCall;
class HostToken;
class KeyClient;
class P11Bridge;

/// A reader that holds a token, as the module describes both. Texts are the module's bytes, one
/// character for each, without the padding at their end.
struct Reader {
  Text name;  ///< the slot description
  std::uint64_t slotID = 0;
  std::vector<std::string> slotFlags;  ///< the standard's names without "CKF_", in the order of the bits
  Text tokenLabel;
  bool labelIsShared = false;  ///< the card of another reader is shown with the same label
  Text serialNumber;
  Text manufacturer;
  Text model;
  std::vector<std::string> tokenFlags;
  bool hasToken = false;                     ///< the module says so
  bool notRecognised = false;                ///< and that it does not know what the token is
  std::optional<std::uint64_t> slotFailure;  ///< what C_GetSlotInfo answered, where it failed: all is unknown
  bool tokenInitialised = false;
  std::optional<Failure> unreadable;  ///< why the token could not be read; nothing also where there is none
  bool mayBeReadableLater = false;    ///< and it is no lasting answer, such as that the card is not known
  std::optional<Failure> uncertain;   ///< why another may be meant, where no name or a part of it chose it

  /// The name that leads the card framework to this very slot, where a shorter one would also fit
  /// another: `name`, with as much of the padding as that takes. Null when an earlier slot has the same
  /// description: then no name leads here.
  Text distinctName;
  Text instanceID;  ///< as a token of this card would have it; null where the token could not be read
};

/// A certificate item of the keychain.
struct PublishedCertificate {
  Text objectID;
  Text label;
  Text subject;
  Text notAfter;                      ///< UTC, "YYYY-MM-DDThh:mm:ssZ"; may be null
  std::vector<std::string> keyUsage;  ///< RFC 5280's names, in the order of the bits
  std::size_t size = 0;               ///< bytes
  Bytes data;                         ///< DER
};

/// What a key can be asked to do; the numbers are the platform's.
enum class KeyOperation : std::int64_t { kSign = 2, kDecrypt = 3, kExchangeKeys = 4 };

/// A private-key item of the keychain.
struct PublishedKey {
  Text objectID;
  Text label;
  Text certificateID;  ///< the object identifier of its certificate item
  Text nameInCard;     ///< the card layer's own name of it, which decides how it signs
  CertificateKeyType keyType = CertificateKeyType::kOther;
  int keySizeInBits = 0;
  bool canSign = false;
  bool canDecrypt = false;
  bool canPerformKeyExchange = false;
  bool suitableForLogin = false;
  bool alwaysAuthenticate = false;
  std::map<KeyOperation, Text> constraints;  ///< what the platform has to do before that operation
};

/// The length in bytes of an RSA key's modulus, and so of its signatures and blocks.
[[nodiscard]] inline std::size_t modulusSizeOf(const PublishedKey& key) noexcept {
  return static_cast<std::size_t>(key.keySizeInBits + 7) / 8;
}

using PublishedItem = std::variant<PublishedCertificate, PublishedKey>;

/// A card that was inserted and became a token.
struct InsertedCard {
  Reader reader;
  Text instanceID;
  std::vector<PublishedItem> items;  ///< in published order
  std::shared_ptr<HostToken> token;
  std::optional<Failure> incomplete;  ///< the read that failed, for which an item may be missing
  std::shared_ptr<CardWatch> watch;   ///< shared by all that use the token; null: nobody watches
};

/// Why an operation ends that was begun with the card in that reader: the card service has seen it going, and
/// no more is known.
[[nodiscard]] Failure cardSeenGoing(const Text& reader);

/// Plays the operating system's part: finds the readers, hands the token driver a card and keeps what
/// its token publishes.
///
/// One host for each process: the module is initialised once and stays so. Not thread-safe.
class Host {
 public:
  /// `services`: as for the token system; its loader and observer are wrapped, so that a failure can be
  /// explained. `givenModule`: the path by which the user named the module, for messages; empty: the user did
  /// not.
  explicit Host(PlatformServices services, std::string givenModule = {});
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  ~Host();

  /// The readers that hold a token, in the module's order. May be empty. `readerName`: only that one
  /// (see `insert`); null: all.
  [[nodiscard]] Result<std::vector<Reader>> readers(const Text& readerName = Text{});

  /// What `readers` or `insert` has found last, without asking the module again. May be empty.
  [[nodiscard]] const std::vector<Reader>& lastFound() const noexcept { return lastFound_; }

  /// All readers that the module has, those without a token too.
  [[nodiscard]] Result<std::vector<Reader>> slots();

  /// Why there is no card.
  struct NoCard {
    Failure failure;
    bool onlyMissing = true;  ///< nothing is wrong: a card or a reader is not there
  };

  /// Why the module shows no card: no reader, no card service, a card that it does not know or that another
  /// program holds, or just no card. Asks the module for all its slots, and the card service. `what`: could
  /// not be done for that.
  [[nodiscard]] NoCard whyNoCard(std::string what);

  /// Inserts the card of a reader: driver, token, items. `readerName`: the reader's whole name, or a
  /// beginning that only one reader has, as it is displayed or with a character for each byte; null: the
  /// first reader whose token is initialised.
  [[nodiscard]] Result<InsertedCard> insert(const Text& readerName);
  /// The card of the reader that the card service, or the module where there is none, knows by that name. The
  /// module may have a longer name for it.
  [[nodiscard]] Result<InsertedCard> insertFrom(const Text& wholeName);
  /// The card that was found in that reader, and no other: it is a failure where that one has gone, and
  /// where another one is in its place.
  [[nodiscard]] Result<InsertedCard> insert(const Reader& found);

  /// A new client of the token of an inserted card. None where another card may be meant (`uncertain` of its
  /// reader), because one before it, or the name of another reader, could not be read just now: it would get
  /// a PIN that is not its own.
  [[nodiscard]] Result<std::unique_ptr<KeyClient>> newClient(const InsertedCard& card);

  /// What the flags of the card's token say about the PIN just now. A failure where the reader holds another
  /// card than it did.
  [[nodiscard]] Result<PinState> pinState(const Reader& reader);

  /// Whether an inserted card is still in its reader, and its token with it. Asks the module; the failure
  /// says that it is not, or that it cannot be told.
  [[nodiscard]] Result<void> lookFor(const InsertedCard& card);

  /// Why an inserted card that the card service has seen going cannot be used: it is gone, another one is in
  /// its place, or it was away. Its token has ended then.
  [[nodiscard]] Failure whyGone(const InsertedCard& card);

  /// The number of tries that the module reports in its session information after a wrong PIN (as a device
  /// error), which is 0 where it reports none; nothing where that cannot be read.
  [[nodiscard]] std::optional<std::uint64_t> triesLeft(const Reader& reader);

  /// Looks at an inserted card once more, apart from the token, and tells all that can be told of it without
  /// a trial. `afterLogin`: a client of the host has logged in, so what shows only then can be told as well.
  /// Never says of a published item that it is not.
  [[nodiscard]] CardReport examine(const InsertedCard& card, bool afterLogin = false);

  /// The same for a card that could not be inserted. Only after `readers` or `insert` has found the reader.
  [[nodiscard]] CardReport examine(const Reader& reader);

 private:
  /// Who has given the name of a reader: a user, who may shorten it; the card service; or the module.
  enum class NamedBy { kUser, kService, kModule };

  [[nodiscard]] Result<Reader> chooseReader(const Text& readerName);
  [[nodiscard]] Result<InsertedCard> insertChosen(const Reader& reader);
  [[nodiscard]] std::vector<Finding> tokenFindings(const Reader& reader, const Text& instanceID);
  [[nodiscard]] CardContents contentsOf(const Reader& reader, const std::vector<Finding>& tokenFindings,
                                        bool afterLogin);
  [[nodiscard]] Failure listingFailure(const Reader& reader, const std::optional<FailedCall>& cause);
  [[nodiscard]] Result<Reader> readerNamed(const Text& readerName, NamedBy by,
                                           const std::vector<Reader>& candidates);

  PlatformServices services_;
  std::string givenModule_;
  std::shared_ptr<FailureDiary> diary_;
  std::unique_ptr<P11Bridge> bridge_;                // the host's own, for finding readers
  std::vector<Reader> lastFound_;                    // all readers, as they were listed last
  std::shared_ptr<CertificateParser> certificates_;  // knows those of the card that was inserted last
};

}  // namespace mirel
