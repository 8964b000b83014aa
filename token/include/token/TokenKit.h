#pragma once

/// What the token layer shares with the platform's token framework: its errors and operations, the items of
/// the keychain as plain values, and the few ports through which the layer asks the platform for something.
/// The names are the platform's. On macOS thin classes join the ports to CryptoTokenKit; elsewhere the host
/// does.
///
/// A port is only used during the call that it was handed to, and never kept. `outError` may be null; where
/// it is not and the callee reports an error, it is set, and it is left alone otherwise. Nothing throws: a
/// port answers a refusal of the platform with the value that its description names.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Bytes.h"
#include "platform/Certificate.h"
#include "platform/SecKeyAlgorithm.h"
#include "platform/SecretText.h"
#include "platform/Text.h"

namespace mirel {

class Log;

/// The domain of all errors that a token reports.
inline constexpr std::u16string_view kTKErrorDomain = u"CryptoTokenKit";

enum class TKErrorCode : std::int64_t {
  kNotImplemented = -1,
  kCommunicationError = -2,
  kCorruptedData = -3,
  kCanceledByUser = -4,
  kAuthenticationFailed = -5,
  kObjectNotFound = -6,
  kTokenNotFound = -7,
  kBadParameter = -8,
  kAuthenticationNeeded = -9,
};

/// An error object of the platform: domain, code and (optional) text for the user.
struct TKError {
  Text domain;
  std::int64_t code = 0;
  Text localizedDescription;  ///< null: none
  /// The platform's own object, for an error that has come through the platform; null for one of ours.
  std::shared_ptr<const void> platformError{};
  Text description{};  ///< what the platform prints for that object; null without one

  [[nodiscard]] bool operator==(const TKError&) const noexcept = default;
};

/// An error of the token's own domain.
[[nodiscard]] inline TKError tkError(TKErrorCode code, Text localizedDescription = {}) {
  return {Text{kTKErrorDomain}, static_cast<std::int64_t>(code), std::move(localizedDescription)};
}

/// An out-argument for an error: may be null; empty until an error is set.
using TKErrorPointer = std::optional<TKError>*;

/// What a client can ask of a key; the numbers are the platform's.
enum class TKTokenOperation : std::int64_t {
  kNone = 0,
  kReadData = 1,
  kSignData = 2,
  kDecryptData = 3,
  kPerformKeyExchange = 4,
};

/// From operation to the name of what must happen before it.
using TKTokenConstraints = std::map<TKTokenOperation, Text>;

/// A certificate that a token publishes in the keychain.
struct TKTokenKeychainCertificate {
  std::shared_ptr<SecCertificate> certificate;  ///< never null
  Text objectID;
  Text label;
};

/// A private key that a token publishes in the keychain.
struct TKTokenKeychainKey {
  std::shared_ptr<SecCertificate>
      certificate;  ///< that type and size of the key come from; null when looked up
  Text objectID;
  Text label;
  bool canSign = false;
  bool canDecrypt = false;
  bool canPerformKeyExchange = false;
  bool suitableForLogin = false;
  TKTokenConstraints constraints;
};

/// A key item of this system's own class, which knows its certificate item and whether every use needs a
/// fresh PIN.
struct MirelCTKTokenKeychainKey : TKTokenKeychainKey {
  Text certificateID;  ///< the object identifier of its certificate item
  bool alwaysAuthenticate = false;

  /// The initialiser of such an item. `super`: the platform's `initWithCertificate:objectID:`; false when the
  /// platform refuses the item. Returns what `super` returned; the two members are the caller's to keep.
  [[nodiscard]] static bool initWithCertificate(const std::function<bool()>& super, Log& log) noexcept;
};

/// A connection to the card in a reader; one to none answers as each function says.
class TKSmartCard {
 public:
  TKSmartCard() = default;
  TKSmartCard(const TKSmartCard&) = delete;
  TKSmartCard& operator=(const TKSmartCard&) = delete;
  virtual ~TKSmartCard() = default;

  /// The name of its slot: the reader's name. Null without a card.
  [[nodiscard]] virtual Text name() const noexcept = 0;
  /// The class byte of commands to the card (ISO 7816-4, section 5.4.1); 0 without a card.
  [[nodiscard]] virtual std::uint8_t cla() const noexcept = 0;
  /// Marks the card as sensitive: it is reset before another application gets it.
  virtual void setSensitive(bool value) noexcept = 0;
  /// Whether the connection carries a mark, whatever its value. The platform removes it when the card is
  /// reset.
  [[nodiscard]] virtual bool hasContext() const noexcept = 0;
  /// Leaves a mark on the connection.
  virtual void setContext(bool value) noexcept = 0;
};

/// Where the items of one token go.
class TKTokenKeychainContents {
 public:
  TKTokenKeychainContents() = default;
  TKTokenKeychainContents(const TKTokenKeychainContents&) = delete;
  TKTokenKeychainContents& operator=(const TKTokenKeychainContents&) = delete;
  virtual ~TKTokenKeychainContents() = default;

  /// Appends a certificate item; leaves it out when the platform refuses it.
  virtual void append(const TKTokenKeychainCertificate& item) noexcept = 0;
  /// Initialises a new key item with what identifies it. False when the platform refuses it, for instance for
  /// a kind of key that the keychain has no name for.
  [[nodiscard]] virtual bool initKey(const MirelCTKTokenKeychainKey& item) noexcept = 0;
  /// Appends the key item that was initialised last, with its flags, label and constraints.
  virtual void append(const MirelCTKTokenKeychainKey& item) noexcept = 0;
  /// Publishes what was appended, in that order, in place of all items that the token had.
  virtual void fillWithItems() noexcept = 0;
};

/// The platform's side of a client's session.
class TKSmartCardTokenSession {
 public:
  TKSmartCardTokenSession() = default;
  TKSmartCardTokenSession(const TKSmartCardTokenSession&) = delete;
  TKSmartCardTokenSession& operator=(const TKSmartCardTokenSession&) = delete;
  virtual ~TKSmartCardTokenSession() = default;

  /// The session's connection to the card. Valid until it is asked for again.
  [[nodiscard]] virtual TKSmartCard& smartCard() noexcept = 0;
  /// The key with that object identifier among the contents of the session's token; nothing and the
  /// platform's error when there is none, nothing alone when the token has gone.
  [[nodiscard]] virtual std::optional<MirelCTKTokenKeychainKey> keyForObjectID(
      const Text& objectID, TKErrorPointer outError) noexcept = 0;
};

/// The platform's request for a PIN.
class TKTokenSmartCardPINAuthOperation {
 public:
  TKTokenSmartCardPINAuthOperation() = default;
  TKTokenSmartCardPINAuthOperation(const TKTokenSmartCardPINAuthOperation&) = delete;
  TKTokenSmartCardPINAuthOperation& operator=(const TKTokenSmartCardPINAuthOperation&) = delete;
  virtual ~TKTokenSmartCardPINAuthOperation() = default;

  /// The connection of the session that asked. Valid until it is asked for again.
  [[nodiscard]] virtual TKSmartCard& sessionSmartCard() noexcept = 0;
  /// The request's own connection, which the login goes to. Valid until it is asked for again.
  [[nodiscard]] virtual TKSmartCard& smartCard() noexcept = 0;
  /// `card`: what `sessionSmartCard` has given.
  virtual void setSmartCard(const TKSmartCard& card) noexcept = 0;
  /// The command that the platform lays the PIN into.
  virtual void setAPDUTemplate(const Bytes& command) noexcept = 0;
  /// Sets a new PIN format with the platform's defaults (numeric, ASCII, 4 to 8 characters, a block of 8
  /// bytes, left-justified), then its `PINBitOffset`, in bits.
  virtual void setPINFormat(int PINBitOffset) noexcept = 0;
  /// What the user has entered; null until then.
  [[nodiscard]] virtual std::shared_ptr<const SecretText> PIN() noexcept = 0;
  /// Lets go of what the user has entered.
  virtual void clearPIN() noexcept = 0;
};

/// An algorithm as a client asked for it.
class TKTokenKeyAlgorithm {
 public:
  TKTokenKeyAlgorithm() = default;
  TKTokenKeyAlgorithm(const TKTokenKeyAlgorithm&) = delete;
  TKTokenKeyAlgorithm& operator=(const TKTokenKeyAlgorithm&) = delete;
  virtual ~TKTokenKeyAlgorithm() = default;

  /// True when data arrive, and results are expected, in the form of exactly that algorithm.
  [[nodiscard]] virtual bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept = 0;
  /// What the platform prints for it; never null.
  [[nodiscard]] virtual Text description() const noexcept = 0;
};

}  // namespace mirel
