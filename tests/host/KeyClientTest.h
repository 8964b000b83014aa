#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/HostTest.h"
#include "host/InputSource.h"
#include "host/KeyClient.h"
#include "host/PinSource.h"
#include "host/SoftwareKey.h"

namespace mirel::test {

/// How most tests sign and decrypt.
inline constexpr SecKeyAlgorithm kSignByPss = SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256;
inline constexpr SecKeyAlgorithm kDecryptPkcs1 = SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1;

/// Gives the PINs of a test in turn, and then none. Remembers what it was asked and told.
class GivenPins final : public PinSource {
 public:
  GivenPins() = default;
  explicit GivenPins(std::deque<std::u16string> pins) : pins_{std::move(pins)} {}

  [[nodiscard]] Result<std::shared_ptr<const SecretText>> askForPin(const std::string& card) override {
    cards.push_back(card);
    if (whenAsked) whenAsked();
    if (failure) return *failure;
    if (pins_.empty()) return std::shared_ptr<const SecretText>{};
    const auto pin = std::make_shared<const SecretText>(pins_.front());
    pins_.pop_front();
    return pin;
  }
  void showRefusal(const std::string& text) override { refusals.push_back(text); }
  [[nodiscard]] bool canAskAgain() const override { return again; }

  [[nodiscard]] std::size_t timesAsked() const { return cards.size(); }

  std::vector<std::string> cards;     ///< that a PIN was asked for
  std::vector<std::string> refusals;  ///< that were shown
  std::function<void()> whenAsked;
  std::optional<Failure> failure;  ///< what it answers instead of PINs
  bool again = true;               ///< whether it says that it can be asked again

 private:
  std::deque<std::u16string> pins_;
};

/// Another source of the same PINs, for who takes one over.
[[nodiscard]] std::unique_ptr<PinSource> handedOn(GivenPins& pins);

/// Gives pieces of data in turn, each cut to the room that there is. Then comes the failure, or the end.
class GivenInput final : public InputSource {
 public:
  explicit GivenInput(std::vector<Value> pieces) : pieces_{std::move(pieces)} {}

  [[nodiscard]] Result<std::size_t> read(std::span<std::uint8_t> room) override;

  std::size_t timesRead = 0;
  std::optional<Failure> failure;

 private:
  std::vector<Value> pieces_;
  std::size_t piece_ = 0;
  std::size_t position_ = 0;  // in the piece
};

/// A client of a card with these keys, all with certificates:
///   "01" RSA, signs, label "Signer"       "02" RSA, decrypts, label "Vault"
///   "03" P-256, signs, label "Curve"      "04" P-256, exchanges keys, label "Agree"
/// The two RSA keys are the same one, `key`, and the module does with it what the mechanism says. Calls up to
/// then are forgotten.
class KeyClientTest : public InsertedCardTest {
 protected:
  /// The size of the RSA key.
  static constexpr unsigned kBits = 1024;
  static constexpr const char* kCurve = "P-256";

  KeyClientTest();
  void TearDown() override;

  /// Another card of that kind and a client of it, for tests that go in rounds.
  void startAnew();

  [[nodiscard]] std::unique_ptr<KeyClient> newClient();

  /// Takes the card as inserted anew, with a client of it.
  void insertAnew(const Text& readerName = Text{});

  /// The published key with that object identifier.
  [[nodiscard]] const PublishedKey& published(const char16_t* objectID) const;

  /// Has the module add the padding of PKCS #1 v1.5 to what it signs, unless that is a whole block.
  void padInTheModule() { padInTheModule(key); }
  void padInTheModule(const SoftwareKey& own);
  /// Has it decrypt, and take the padding away.
  void decryptInTheModule(const SoftwareKey& own);
  /// Has the module hand out whole blocks instead of the messages in them.
  void decryptRawInTheModule();

  /// What the client gave, for one request with all its data at hand; a failure fails the test.
  [[nodiscard]] Signature signature(SecKeyAlgorithm algorithm, const Value& data,
                                    const char16_t* objectID = u"01");
  [[nodiscard]] Value plainText(SecKeyAlgorithm algorithm, const Value& cipher);

  /// Whether that is a signature by the key "01"; that the client says something else fails the test.
  [[nodiscard]] Result<void> verified(SecKeyAlgorithm algorithm, const Signature& made) const;

  /// Why the client gave none; a result fails the test.
  [[nodiscard]] Failure signFailure(SecKeyAlgorithm algorithm, const Value& data,
                                    const char16_t* objectID = u"01");
  [[nodiscard]] Failure decryptFailure(SecKeyAlgorithm algorithm, const Value& cipher,
                                       const char16_t* objectID = u"02");
  [[nodiscard]] Failure exchangeFailure(SecKeyAlgorithm algorithm, const Value& point,
                                        const char16_t* objectID = u"04");

  /// The names of the calls that need or make a login, in their order.
  [[nodiscard]] std::vector<std::string> secretCalls() const;

  const SoftwareKey& key = SoftwareKey::rsa(kBits);
  InsertedCard card;
  std::unique_ptr<KeyClient> client;
  GivenPins pins{{u"123456"}};
};

[[nodiscard]] Value valueOf(const Bytes& bytes);

}  // namespace mirel::test
