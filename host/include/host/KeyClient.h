#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/Host.h"
#include "host/Result.h"
#include "platform/Bytes.h"
#include "platform/SecKeyAlgorithm.h"
#include "platform/Text.h"

namespace mirel {

class CardService;
class CryptokiFunction;
class FailureDiary;
class InputSource;
class HostTokenSession;
enum class TKTokenOperation : std::int64_t;
class PinSource;
class TimeAndChance;

/// What is known to have gone wrong in the card, although its layers handed something out.
struct CardFault {
  std::string reason;                ///< in words for the user
  std::optional<Failure> failure{};  ///< the same, where it is a call that failed
  bool isCardUnasked = false;        ///< it was never asked to do it
};

/// A signature as a client of the key services gets it.
struct Signature {
  Bytes value;                ///< empty when the card made none
  SecKeyAlgorithm performed;  ///< the form in which the token was asked
  Bytes data;                 ///< what was signed: the digest of a message, else the data as they were given
  std::optional<CardFault> fault;  ///< nothing: none is known
  /// Why it is no signature of the key in the certificate; nothing: it verifies.
  std::optional<Failure> whyNotVerified{};
};

/// The token's answer to a key exchange.
struct KeyExchange {
  Bytes secret;  ///< null: the token gave none
  SecKeyAlgorithm performed;
};

/// An application of the key services: one session on the token of an inserted card. Several can be there at
/// once, each with a login of its own.
///
/// A request is adapted as the platform does it: the first form of the algorithm that the token accepts is
/// asked for (a message is hashed, a digest wrapped and padded), and results are brought back to the form
/// that the client wants. The PIN is asked for when the token says that it needs it.
///
/// Before each request, and before a PIN is handed over, it looks whether the card that was inserted is still
/// there. Where it is not, the token has ended as it does on the platform: this request and all later ones
/// fail with kAnotherCard or kCardGone, also when the card is put back. It looks once more where a request
/// came to nothing or the PIN was refused for another reason than that it is wrong, so that no key, module or
/// PIN is blamed for a card that has left; and where a signature does not verify, which another card may have
/// made. Where a module does not say what failed, the card service is asked too, which takes half a second.
class KeyClient {
 public:
  /// The most PINs that are sent to the card in a row; and the most that are asked for in vain because they
  /// cannot be sent.
  static constexpr int kMostPins = 3;

  KeyClient(InsertedCard card, std::shared_ptr<HostTokenSession> session, std::shared_ptr<FailureDiary> diary,
            std::shared_ptr<TimeAndChance> chance = nullptr,
            std::shared_ptr<CardService> cardService = nullptr);
  KeyClient(const KeyClient&) = delete;
  KeyClient& operator=(const KeyClient&) = delete;
  ~KeyClient();

  /// The form in which the token would be asked for that algorithm; nothing when it accepts none. No PIN is
  /// needed.
  [[nodiscard]] std::optional<SecKeyAlgorithm> acceptedForm(const PublishedKey& key,
                                                            SecKeyAlgorithm algorithm);

  /// Signs; a message is read piece by piece. What the card gave is handed out also where it does not verify.
  [[nodiscard]] Result<Signature> sign(const PublishedKey& key, SecKeyAlgorithm algorithm, InputSource& input,
                                       PinSource& pins);

  /// Decrypts; the plain text may be empty. It is wiped when the last copy of the answer ends.
  [[nodiscard]] Result<Bytes> decrypt(const PublishedKey& key, SecKeyAlgorithm algorithm, InputSource& input,
                                      PinSource& pins);

  /// Asks for a key exchange with the other party's public key (an uncompressed point).
  [[nodiscard]] Result<KeyExchange> exchange(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                             InputSource& input, PinSource& pins);

  /// Has the card check the PIN. It is a failure, although keys can be used afterwards, when the module was
  /// logged in already: then it takes any PIN.
  [[nodiscard]] Result<void> logIn(PinSource& pins);

  /// Has that be told of a failure before the card is looked at because of it: a module may not come back.
  void whenItFails(std::function<void(const Failure&)> listener) { whenItFails_ = std::move(listener); }

  /// Where it draws what is random.
  [[nodiscard]] TimeAndChance& chance() const noexcept { return *chance_; }

 private:
  template <typename Request>
  [[nodiscard]] Result<Bytes> perform(const PublishedKey& key, TKTokenOperation operation, PinSource& pins,
                                      const Request& request);
  [[nodiscard]] Result<void> authenticate(const Text& constraint, PinSource& pins);
  [[nodiscard]] Result<void> lookForCard();
  [[nodiscard]] std::optional<Failure> whyCardLeft();
  [[nodiscard]] std::optional<Failure> whyNotVerified(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                                      const Signature& signature) const;
  [[nodiscard]] Failure unlessCardLeft(Failure failure);
  [[nodiscard]] Failure refusal(std::string what, std::string why, Advice advice);
  [[nodiscard]] std::optional<CardFault> faultIn(CryptokiFunction function) const;
  [[nodiscard]] Failure loginFailure(const std::string& wrongPin);
  [[nodiscard]] Result<SecKeyAlgorithm> formFor(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                                TKTokenOperation operation);

  InsertedCard card_;
  std::shared_ptr<HostTokenSession> session_;
  std::shared_ptr<FailureDiary> diary_;
  std::shared_ptr<TimeAndChance> chance_;
  std::shared_ptr<CardService> cardService_;  // may be null
  std::function<void(const Failure&)> whenItFails_;
};

}  // namespace mirel
