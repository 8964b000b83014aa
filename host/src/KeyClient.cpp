#include "host/KeyClient.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "Adaptation.h"
#include "CardWatch.h"
#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "HostToken.h"
#include "NameList.h"
#include "RsaEncoding.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "host/InputSource.h"
#include "host/KeyAbility.h"
#include "host/PinSource.h"
#include "platform/SecretBytes.h"
#include "platform/TimeAndChance.h"

namespace mirel {
namespace {

/// The text without the full stop at its end, to stand within a line.
std::string withoutFullStop(std::string text) {
  for (const std::string_view stop : {".", "\u3002"}) {
    if (text.ends_with(stop)) text.resize(text.size() - stop.size());
  }
  return text;
}

/// What the token says, in the language of the user, to stand within a line that is English.
std::string wordsOf(const std::optional<TKError>& error) {
  const Text text = error ? error->localizedDescription : Text{};
  if (text.isEmpty()) return {};
  return "\"" + withoutFullStop(displayedName(text)) + "\"";
}

/// More than any digest, block or cryptogram of one key.
constexpr std::size_t kLargestInput = 65536;  // bytes
constexpr std::size_t kPieceSize = 65536;     // bytes
constexpr std::u16string_view kPinConstraint = u"PIN";

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

Failure badInput(const std::string& why) {
  return {FailureKind::kBadInput, "the data do not fit the algorithm", why,
          "give it what the algorithm works on"};
}

/// All data, kLargestInput at most.
Result<ByteVector> readAll(InputSource& input) {
  ByteVector data;
  std::vector<std::uint8_t> piece(kPieceSize);
  while (true) {
    const auto count = input.read(piece);
    if (!count) return count.failure();
    if (*count == 0) return data;
    data.insert(data.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(*count));
    if (data.size() > kLargestInput)
      return badInput("there are more than " + std::to_string(kLargestInput) + " bytes of them");
  }
}

Result<ByteVector> readDigest(Hash hash, InputSource& input) {
  Digest digest{hash};
  std::vector<std::uint8_t> piece(kPieceSize);
  while (true) {
    const auto count = input.read(piece);
    if (!count) return count.failure();
    if (*count == 0) return digest.finish();
    digest.update(std::span{piece}.first(*count));
  }
}

/// Whether data of that size can be the input of the algorithm.
Result<void> checkSize(SecKeyAlgorithm algorithm, const PublishedKey& key, std::size_t size) {
  std::size_t wanted = 0;
  std::string what;
  const auto step = nextStep(algorithm);
  const bool digestWanted =
      step && (step->kind == AdaptationKind::kDigestInfo || step->kind == AdaptationKind::kEncodePSS ||
               step->kind == AdaptationKind::kAsItIs);
  if (digestWanted) {
    wanted = factsOf(step->hash).size;
    what = "a digest of " + std::string{factsOf(step->hash).name};
  } else if (algorithm == SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw ||
             operationOf(algorithm) == TKTokenOperation::kDecryptData) {
    wanted = modulusSizeOf(key);
    what = "a block for this key";
  }
  if (wanted != 0 && wanted != size) {
    return badInput("they have " + std::to_string(size) + " bytes, " + what + " has " +
                    std::to_string(wanted));
  }
  if (size == 0) return badInput("there are none");
  return {};
}

/// The data in the next form; nothing when they do not fit into the key.
std::optional<ByteVector> adapted(const AdaptationStep& step, const PublishedKey& key, const ByteVector& data,
                                  TimeAndChance& chance) {
  switch (step.kind) {
    case AdaptationKind::kHash: return digestOf(step.hash, data);
    case AdaptationKind::kDigestInfo: return digestInfo(step.hash, data);
    case AdaptationKind::kPadPKCS1: return paddedForSigning(data, modulusSizeOf(key));
    case AdaptationKind::kEncodePSS:
      return encodedForPss(step.hash, data, static_cast<std::size_t>(std::max(key.keySizeInBits, 0)), chance);
    case AdaptationKind::kAsItIs: return data;
    default: return std::nullopt;
  }
}

/// The way from one form to another that follows it.
std::vector<AdaptationStep> stepsBetween(SecKeyAlgorithm from, SecKeyAlgorithm to) {
  std::vector<AdaptationStep> steps;
  while (from != to) {
    const auto step = nextStep(from);
    if (!step) break;
    steps.push_back(*step);
    from = step->to;
  }
  return steps;
}

bool isComposite(const std::vector<AdaptationStep>& steps) noexcept {
  return std::any_of(steps.begin(), steps.end(),
                     [](const AdaptationStep& step) { return step.kind == AdaptationKind::kComposite; });
}

/// Whether `plain` can be what the card made of `cipher` (not empty) when asked in that form. A module that
/// answers CKR_OK and writes nothing leaves the length of the whole block, and zeros.
/// Where a module claims a shorter length and writes nothing, the zeros are taken for the plain text: it may
/// have been zeros, and a module that lies about the length could write any other bytes as well.
Result<void> checkPlainText(SecKeyAlgorithm form, const PublishedKey& key, const ByteVector& cipher,
                            const Bytes& plain) {
  const auto refused = [](const std::string& why) {
    return Failure{FailureKind::kCardRefuses, "the card gave no plain text", why,
                   "ask the maker of the module"};
  };
  constexpr std::size_t kPaddingSize = 11;  // bytes at least (RFC 8017, section 7.2.1)
  const std::size_t blockSize = modulusSizeOf(key);
  if (plain.size() + kPaddingSize <= blockSize) return {};
  const bool mayBeBlock = form == SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionRaw;
  if (!mayBeBlock || plain.size() != blockSize) {
    return refused("C_Decrypt answered CKR_OK with " + std::to_string(plain.size()) +
                   " bytes, a plain text in a block for this key has " +
                   std::to_string(blockSize - std::min(blockSize, kPaddingSize)) + " at most");
  }
  // Raw RSA makes zero of nothing but zero.
  const auto isZero = [](std::uint8_t byte) { return byte == 0; };
  const bool nothingWritten = std::all_of(plain.view().begin(), plain.view().end(), isZero) &&
                              !std::all_of(cipher.begin(), cipher.end(), isZero);
  if (nothingWritten) return refused("C_Decrypt answered CKR_OK, but wrote no plain text");
  return {};
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

bool isRsaAlgorithm(SecKeyAlgorithm algorithm) noexcept {
  return nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size()).starts_with("RSA");
}

/// Whether that PIN can be sent to a card as it was entered. The token would count its characters, but send
/// as many bytes of its UTF-8, and so cut one that is not ASCII.
Result<void> checkSending(const SecretText& pin) {
  const auto notSent = [](const char* why) {
    return Failure{
        FailureKind::kPinCannotBeEntered, "the PIN was not sent to the card", why,
        "give a PIN of 1 to 8 ASCII characters; where this card's PIN is another one, it cannot be "
        "entered here: change it to at most 8 ASCII characters with the card maker's tool"};
  };
  static_assert(kMaxPinLen == 8, "the texts name the number");
  SecretBytes<kMaxPinLen + 1> bytes;
  const std::size_t size = pin.copyUtf8(bytes.span());
  if (size == 0) return notSent("it is empty");
  if (std::any_of(bytes.data(), bytes.data() + size, [](std::uint8_t byte) { return byte >= 0x80; }))
    return notSent("it has characters that are not ASCII");
  if (size > kMaxPinLen) return notSent("it has more than 8 characters");
  return {};
}

}  // namespace

bool mayWork(const PublishedKey& key, SecKeyAlgorithm algorithm) noexcept {
  constexpr int kLargestSigningKey = 2048;  // bits
  if (key.keyType != CertificateKeyType::kRSA || !isRsaAlgorithm(algorithm)) return false;
  switch (operationOf(algorithm)) {
    case TKTokenOperation::kSignData: return key.canSign && key.keySizeInBits <= kLargestSigningKey;
    case TKTokenOperation::kDecryptData:
      return key.canDecrypt && algorithm == SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1;
    default: return false;
  }
}

KeyClient::KeyClient(InsertedCard card, std::shared_ptr<HostTokenSession> session,
                     std::shared_ptr<FailureDiary> diary, std::shared_ptr<TimeAndChance> chance)
    : card_{std::move(card)},
      session_{std::move(session)},
      diary_{std::move(diary)},
      chance_{givenOrSystem(std::move(chance))} {}

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
  Signature made{*value, *form, Bytes{*data}, std::nullopt};
  const auto reason = faultIn("C_Sign");
  if (!reason) return made;
  made.fault = CardFault{*reason};
  if (const auto cause = diary_->cause()) {
    made.fault->failure =
        failureBecauseOf(*cause, "there is no good signature", FailureKind::kVerificationFailed);
    if (isEmptyOrZero(made.value)) learnFrom(*made.fault->failure);
  }
  return made;
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
    return refusal(
        "the card gave no plain text", *fault,
        "check that the data were encrypted for this key, with PKCS #1 v1.5 padding: the card layer "
        "knows no other");
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
    return refusal(
        std::string{"the token does not "} + verbOf(operation),
        "it answered with error " + std::to_string(error->code) + (text.empty() ? "" : ": " + text),
        UserStep::kSeeLog);
  }
}

Result<void> KeyClient::authenticate(const Text& constraint, PinSource& pins) {
  int notSent = 0;
  for (int attempt = 1;; ++attempt) {
    if (const auto card = lookForCard(); !card) return card.failure();
    std::optional<TKError> error;
    const auto pinOperation = session_->beginAuthForOperation(constraint, &error);
    if (!pinOperation) {
      const std::string text = wordsOf(error);
      return Failure{FailureKind::kNotSupported, "the key cannot be unlocked",
                     text.empty() ? "the token begins no authentication" : "the token says " + text,
                     UserStep::kSeeLog};
    }
    const auto entered = pins.askForPin(displayed(card_.reader.tokenLabel));
    if (!entered) return entered.failure();
    const std::shared_ptr<const SecretText>& pin = *entered;
    if (!pin) {
      return Failure{FailureKind::kCancelled, "no PIN was given", "the entry was cancelled",
                     "run again to try once more"};
    }
    if (const auto fit = checkSending(*pin); !fit) {
      if (++notSent == kMostPins || !pins.canAskAgain()) return fit.failure();
      --attempt;  // it was none: the card has not been asked
      pins.showRefusal(fit.failure().what + ": " + fit.failure().why);
      continue;
    }
    // As late as can be: the user may have taken any time.
    if (const auto card = lookForCard(); !card) return card.failure();
    diary_->clear();
    const bool accepted = pinOperation->finishWithPIN(pin, &error);
    if (accepted) return {};

    const std::string text = wordsOf(error);
    Failure failure =
        loginFailure(text.empty() ? "the PIN is wrong" : "the PIN is wrong, the token says " + text);
    const bool last = attempt == kMostPins || !pins.canAskAgain();
    if (failure.kind != FailureKind::kPinWrong || last) return failure;
    pins.showRefusal(failure.what);
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

void KeyClient::learnFrom(const Failure& failure) {
  if (card_.watch) card_.watch->learnFrom(failure);
}

/// Because of the call that failed; where none did, with these words.
Failure KeyClient::refusal(std::string what, std::string why, Advice advice) {
  const auto cause = diary_->cause();
  if (!cause) return {FailureKind::kCardRefuses, std::move(what), std::move(why), advice};
  Failure failure = failureBecauseOf(*cause, std::move(what), FailureKind::kCardRefuses);
  learnFrom(failure);
  return failure;
}

/// Why the card did not do what that Cryptoki function does; nothing when no such reason is known. A card
/// that was not asked may leave no other trace.
std::optional<std::string> KeyClient::faultIn(CryptokiFunction function) const {
  if (auto reason = diary_->reason()) return reason;
  if (diary_->lastResultOf(function) == CKR_OK) return std::nullopt;
  return "the card was not asked";
}

/// `wrongPin`: what is told where the card has found the PIN wrong.
Failure KeyClient::loginFailure(const std::string& wrongPin) {
  const auto answer = diary_->lastResultOf("C_Login");
  if (!answer) {
    return refusal("the card did not take the PIN", "it is not there any more",
                   "insert the card and run again");
  }
  const FailedCall login{"C_Login", *answer};
  const auto decided = meaningOf(login.name, login.result).kind;
  if (decided == FailureKind::kPinWrong) return failureBecauseOf(login, wrongPin, FailureKind::kPinWrong);
  if (decided == FailureKind::kPinLocked)
    return failureBecauseOf(login, "the PIN of the card is locked", FailureKind::kPinLocked);
  const char* what = "the card did not take the PIN";
  if (!diary_->cause() && *answer != CKR_OK) {
    // The framework has looked at the session since, so the diary does not tell any more.
    Failure failure = failureBecauseOf(login, what, FailureKind::kCardRefuses);
    learnFrom(failure);
    return failure;
  }
  const auto ended = diary_->lastResultOf(BridgeOperation::pkcs11_UserLogin);
  return refusal(what,
                 !ended || *ended == kLoginDidNotTake
                     ? "the login left no user logged in"
                     : answerText({operationName(BridgeOperation::pkcs11_UserLogin), *ended}),
                 UserStep::kSeeLog);
}

Result<void> KeyClient::logIn(PinSource& pins) {
  if (const auto done = authenticate(Text{kPinConstraint}, pins); !done) return done.failure();
  if (diary_->lastResultOf("C_Login") != CKR_USER_ALREADY_LOGGED_IN) return {};
  return Failure{FailureKind::kCardRefuses, "the PIN was not checked",
                 "the card's software was logged in already (C_Login answered " +
                     cryptokiResultText(CKR_USER_ALREADY_LOGGED_IN) + ")",
                 "end the other programs that use the card and run again"};
}

}  // namespace mirel
