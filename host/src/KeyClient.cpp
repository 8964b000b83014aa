#include "host/KeyClient.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "Adaptation.h"
#include "CardLeaving.h"
#include "CardWatch.h"
#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "HostToken.h"
#include "NameList.h"
#include "RequestData.h"
#include "RsaEncoding.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "host/KeyAbility.h"
#include "host/KeyChoice.h"
#include "host/PinSource.h"
#include "host/Verification.h"
#include "platform/TimeAndChance.h"

namespace mirel {
namespace {

constexpr const char* kAskFittingAlgorithm = "name an algorithm for this type of key";

bool isError(const std::optional<TKError>& error, TKErrorCode code) noexcept {
  return error && error->code == static_cast<std::int64_t>(code);
}

std::string named(SecKeyAlgorithm algorithm) { return std::string{nameOf(algorithm)}; }

const char* verbOf(TKTokenOperation operation) noexcept {
  switch (operation) {
    case TKTokenOperation::kSignData: return "sign";
    case TKTokenOperation::kDecryptData: return "decrypt";
    default: return "exchange keys";
  }
}

bool isEmptyOrZero(const Bytes& bytes) noexcept {
  const auto view = bytes.view();
  return std::all_of(view.begin(), view.end(), [](std::uint8_t byte) { return byte == 0; });
}

/// Whether the card publishes another key, with another certificate, by the same object identifier.
bool sharesItsID(const InsertedCard& card, const PublishedKey& key) {
  return std::any_of(card.items.begin(), card.items.end(), [&](const PublishedItem& item) {
    const auto* other = std::get_if<PublishedKey>(&item);
    return other && other->objectID == key.objectID && !(other->certificateID == key.certificateID);
  });
}

Failure becauseOfSharedID(const PublishedKey& key, const std::string& what) {
  const FindingEntry& entry = entryOf(FindingID::kIDShared);
  return {FailureKind::kNotSupported, what,
          std::string{entry.title} + " (" + shortened(idText(key.objectID), kMostHexDigits) +
              "): " + std::string{entry.why},
          entry.remedy.data()};  // a literal
}

/// What the token made of the certificate's key usage; empty where it does none of it.
const char* onlyUseOf(const PublishedKey& key) noexcept {
  if (key.canSign) return "only signs";
  if (key.canDecrypt) return "only decrypts";
  return key.canPerformKeyExchange ? "only exchanges keys" : "";
}

bool isPublishedFor(TKTokenOperation operation, const PublishedKey& key) noexcept {
  switch (operation) {
    case TKTokenOperation::kSignData: return key.canSign;
    case TKTokenOperation::kDecryptData: return key.canDecrypt;
    default: return key.canPerformKeyExchange;
  }
}

Failure becauseOfKeyUsage(const InsertedCard& card, const PublishedKey& key, const std::string& what) {
  const std::string use = onlyUseOf(key);
  if (use.empty()) {
    const FindingEntry& entry = entryOf(FindingID::kKeyUsageMissing);
    return {FailureKind::kNotSupported, what,
            std::string{entry.title} + " (" + std::string{entry.code} + "): " + std::string{entry.why},
            entry.remedy.data()};  // a literal
  }
  std::string usage;
  if (const auto* certificate = certificateOf(card, key)) {
    for (const std::string& name : certificate->keyUsage) usage += (usage.empty() ? "" : ", ") + name;
  }
  return {FailureKind::kNotSupported, what,
          "by the key usage of its certificate (" + usage + ") the key " + use, UserStep::kSeeKeys};
}

/// Whether modules answer so, among other reasons, when the card was taken out.
bool saysNotWhatFailed(const Failure& failure) {
  return hasAnswer(failure, {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED, CKR_DEVICE_ERROR});
}

}  // namespace

KeyClient::KeyClient(InsertedCard card, std::shared_ptr<HostTokenSession> session,
                     std::shared_ptr<FailureDiary> diary, std::shared_ptr<TimeAndChance> chance,
                     std::shared_ptr<CardService> cardService)
    : card_{std::move(card)},
      session_{std::move(session)},
      diary_{std::move(diary)},
      chance_{givenOrSystem(std::move(chance))},
      cardService_{std::move(cardService)} {}

KeyClient::~KeyClient() = default;

std::optional<SecKeyAlgorithm> KeyClient::acceptedForm(const PublishedKey& key, SecKeyAlgorithm algorithm) {
  for (std::optional<SecKeyAlgorithm> form = algorithm; form && session_;) {
    if (session_->supportsOperation(operationOf(*form), key.objectID, HostKeyAlgorithm{*form})) return form;
    const auto step = nextStep(*form);
    form = step ? std::optional{step->to} : std::nullopt;
  }
  return std::nullopt;
}

Result<SecKeyAlgorithm> KeyClient::formFor(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                           TKTokenOperation operation) {
  if (const auto going = card_.watch ? card_.watch->goesOn() : Result<void>{}; !going) return going.failure();
  const std::string what = "the key " + shortened(idText(key.objectID), kMostHexDigits) + " does not " +
                           verbOf(operation) + " with " + named(algorithm);
  if (operationOf(algorithm) != operation) {
    return Failure{FailureKind::kNotSupported, what,
                   std::string{"that algorithm is there to "} + verbOf(operationOf(algorithm)),
                   UserStep::kSeeAlgorithms};
  }
  const auto form = acceptedForm(key, algorithm);
  if (!form) {
    if (sharesItsID(card_, key)) return becauseOfSharedID(key, what);
    if (!isPublishedFor(operation, key)) return becauseOfKeyUsage(card_, key, what);
    return Failure{FailureKind::kNotSupported, what, "the token accepts no form of it",
                   UserStep::kSeeAlgorithms};
  }
  if (isComposite(stepsBetween(algorithm, *form))) {
    return Failure{FailureKind::kNotSupported, what,
                   "the token would be asked for " + named(*form) +
                       ", but the rest is the platform's work and is not done here",
                   UserStep::kSeeAlgorithms};
  }
  const bool isRsaKey = key.keyType == CertificateKeyType::kRSA;
  if (isRsaAlgorithm(algorithm) != isRsaKey) {
    return Failure{
        FailureKind::kNotSupported, what,
        std::string{"the token accepts it, but the key is "} + (isRsaKey ? "an RSA key" : "no RSA key"),
        kAskFittingAlgorithm};
  }
  if (const int least = leastKeySizeFor(algorithm); key.keySizeInBits < least) {
    return Failure{FailureKind::kNotSupported, what,
                   "the key is too short for this hash: it has " + std::to_string(key.keySizeInBits) +
                       " bits, and " + std::to_string(least) + " are needed",
                   UserStep::kSeeAlgorithms};
  }
  return *form;
}

Result<Signature> KeyClient::sign(const PublishedKey& key, SecKeyAlgorithm algorithm, InputSource& input,
                                  PinSource& pins) {
  const auto form = formFor(key, algorithm, TKTokenOperation::kSignData);
  if (!form) return form.failure();
  std::vector<AdaptationStep> steps = stepsBetween(algorithm, *form);

  const bool isMessage = !steps.empty() && steps.front().kind == AdaptationKind::kHash;
  const auto data = isMessage ? readDigest(steps.front().hash, input) : readAll(input);
  if (!data) return data.failure();
  if (isMessage) {
    steps.erase(steps.begin());
  } else if (const auto fits = checkSize(algorithm, key, data->size()); !fits) {
    return fits.failure();
  }
  ByteVector prepared = *data;
  for (const AdaptationStep& step : steps) {
    auto next = adapted(step, key, prepared, *chance_);
    if (!next) return badInput("the key has too few bits for them");
    prepared = std::move(*next);
  }
  if (*form == SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw &&
      !paddedForSigning(prepared, modulusSizeOf(key))) {
    return badInput("with PKCS #1 v1.5 padding the key has too few bits for them");
  }

  if (const auto never = reasonNeverTo(KeyOperation::kSign, key))
    return refusalBecauseOf(*never, KeyOperation::kSign);
  const auto value = perform(key, TKTokenOperation::kSignData, pins, [&](TKErrorPointer outError) {
    return session_->signData(Bytes{prepared}, key.objectID, HostKeyAlgorithm{*form}, outError);
  });
  if (!value) return value.failure();
  Signature made{*value, *form, Bytes{*data}, faultIn("C_Sign")};
  const auto cause = made.fault ? diary_->cause() : std::nullopt;
  if (cause) {
    made.fault->failure =
        failureBecauseOf(*cause, "there is no good signature", FailureKind::kVerificationFailed);
    if (isEmptyOrZero(made.value)) made.fault->failure = unlessCardLeft(*made.fault->failure);
  }
  made.whyNotVerified = whyNotVerified(key, algorithm, made);
  if (!made.whyNotVerified || made.whyNotVerified->isCauseKnown || made.fault) return made;
  if (whenItFails_) whenItFails_(*made.whyNotVerified);
  // One of this card is handed out also where the card has been taken out since.
  const auto left = whyCardLeft();
  return left && left->kind == FailureKind::kAnotherCard ? Result<Signature>{*left} : made;
}

Result<Bytes> KeyClient::decrypt(const PublishedKey& key, SecKeyAlgorithm algorithm, InputSource& input,
                                 PinSource& pins) {
  const auto form = formFor(key, algorithm, TKTokenOperation::kDecryptData);
  if (!form) return form.failure();
  const auto cipher = readAll(input);
  if (!cipher) return cipher.failure();
  if (const auto fits = checkSize(algorithm, key, cipher->size()); !fits) return fits.failure();

  if (const auto never = reasonNeverTo(KeyOperation::kDecrypt, key))
    return refusalBecauseOf(*never, KeyOperation::kDecrypt);
  const auto answer = perform(key, TKTokenOperation::kDecryptData, pins, [&](TKErrorPointer outError) {
    return session_->decryptData(Bytes{*cipher}, key.objectID, HostKeyAlgorithm{*form}, outError);
  });
  if (!answer) return answer.failure();
  Bytes plain = Bytes::secret(*answer);
  if (const auto fault = faultIn("C_Decrypt")) {
    Failure failure =
        refusal("the card gave no plain text", fault->reason,
                "check that the data were encrypted for this key, with PKCS #1 v1.5 padding: the card layer "
                "knows no other");
    failure.isCardUnasked = failure.isCardUnasked || fault->isCardUnasked;
    return unlessCardLeft(failure);
  }
  if (const auto possible = checkPlainText(*form, key, *cipher, plain); !possible) return possible.failure();
  for (const AdaptationStep& step : stepsBetween(algorithm, *form)) {
    auto next = step.kind == AdaptationKind::kUnpadPKCS1 ? unpaddedAfterDecrypting(plain.view())
                                                         : decodedFromOaep(step.hash, plain.view());
    if (!next) {
      return Failure{FailureKind::kCardRefuses, "the card gave no plain text for " + named(algorithm),
                     "what it gave for " + named(*form) +
                         " is not a whole block: the card layer removes PKCS #1 v1.5 padding itself",
                     "encrypt with PKCS #1 v1.5 padding (kSecKeyAlgorithmRSAEncryptionPKCS1)"};
    }
    plain = Bytes::secret(Bytes{std::move(*next)});
  }
  return plain.isNull() ? Bytes{ByteVector{}} : plain;
}

Result<KeyExchange> KeyClient::exchange(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                        InputSource& input, PinSource& pins) {
  const auto form = formFor(key, algorithm, TKTokenOperation::kPerformKeyExchange);
  if (!form) return form.failure();
  const auto point = readAll(input);
  if (!point) return point.failure();
  if (point->empty()) return badInput("there are none");
  const auto secret = perform(key, TKTokenOperation::kPerformKeyExchange, pins, [&](TKErrorPointer outError) {
    return session_->performKeyExchangeWithPublicKey(key.objectID, HostKeyAlgorithm{*form}, outError);
  });
  if (!secret) return secret.failure();
  return KeyExchange{*secret, *form};
}

/// Asks the token; where it wants the PIN first, once more after that. The answer may be null.
template <typename Request>
Result<Bytes> KeyClient::perform(const PublishedKey& key, TKTokenOperation operation, PinSource& pins,
                                 const Request& request) {
  for (bool mayAuthenticate = true;; mayAuthenticate = false) {
    if (const auto card = lookForCard(); !card) return card.failure();
    std::optional<TKError> error;
    diary_->clear();
    Bytes answer = request(&error);
    if (!answer.isNull() || !error) return answer;
    if (mayAuthenticate && isError(error, TKErrorCode::kAuthenticationNeeded)) {
      const auto constraint = key.constraints.find(keyOperationOf(operation));
      const Text asked = constraint == key.constraints.end() ? Text{} : constraint->second;
      if (const auto done = authenticate(asked, pins); !done) return done.failure();
      continue;
    }
    const std::string text = wordsOf(error);
    Failure failure =
        refusal(std::string{"the token does not "} + verbOf(operation),
                "it answered with error " + std::to_string(error->code) + (text.empty() ? "" : ": " + text),
                UserStep::kSeeLog);
    return unlessCardLeft(failure);
  }
}

/// Whether the card can be asked anything. Drops the session of a token that has ended.
Result<void> KeyClient::lookForCard() {
  if (!card_.watch) return {};
  auto there = card_.watch->look(*diary_);
  // Another client may have found out since.
  auto going = card_.watch->goesOn();
  if (going) return there;
  session_.reset();
  card_.token.reset();
  return going;
}

/// After something has failed: that the card is the reason, where that shows. The diary is written over.
std::optional<Failure> KeyClient::whyCardLeft() {
  const auto card = lookForCard();
  if (card) return std::nullopt;
  const Failure& failure = card.failure();
  const bool left = failure.kind == FailureKind::kCardGone || failure.kind == FailureKind::kAnotherCard;
  return left ? std::optional{failure} : std::nullopt;
}

/// Why it is no signature of that key of the card that was inserted; nothing where it is one.
std::optional<Failure> KeyClient::whyNotVerified(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                                 const Signature& signature) const {
  const auto* certificate = certificateOf(card_, key);
  if (!certificate) {
    return Failure{FailureKind::kVerificationFailed, "the signature was not verified",
                   "the key has no certificate", UserStep::kSeeKeys};
  }
  const auto verified = verifySignature(*certificate, key, algorithm, signature);
  return verified ? std::nullopt : std::optional{verified.failure()};
}

/// The failure of a request that came to nothing, or that the card is the reason for it.
Failure KeyClient::unlessCardLeft(Failure failure) {
  if (whenItFails_) whenItFails_(failure);
  const auto left = whyCardLeft();
  // A call of the request that said so tells more.
  if (left && (left->kind == FailureKind::kAnotherCard || failure.kind != FailureKind::kCardGone))
    return *left;
  if (saysNotWhatFailed(failure) && seesCardGo(cardService_.get(), card_.reader.name))
    failure = cardSeenGoing(card_.reader.name, "the module answered " + cryptokiResultText(*failure.result));
  if (card_.watch) card_.watch->learnFrom(failure);
  return failure;
}

/// Because of the call that failed; where none did, with these words.
Failure KeyClient::refusal(std::string what, std::string why, Advice advice) {
  const auto cause = diary_->cause();
  if (!cause) return {FailureKind::kCardRefuses, std::move(what), std::move(why), advice};
  return failureBecauseOf(*cause, std::move(what), FailureKind::kCardRefuses);
}

/// Why the card did not do what that Cryptoki function does; nothing when no such reason is known. A card
/// that was not asked may leave no other trace.
std::optional<CardFault> KeyClient::faultIn(CryptokiFunction function) const {
  if (auto reason = diary_->reason()) return CardFault{*std::move(reason)};
  if (diary_->lastResultOf(function) == CKR_OK) return std::nullopt;
  return CardFault{"the card was not asked", {}, true};
}

}  // namespace mirel
