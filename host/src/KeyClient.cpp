#include "host/KeyClient.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "Adaptation.h"
#include "CardWatch.h"
#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "HostTokenKit.h"
#include "NameList.h"
#include "RsaEncoding.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "host/InputSource.h"
#include "host/PinSource.h"
#include "platform/SecretBytes.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

/// The text without the full stop at its end, to stand within a line.
std::string withoutFullStop(std::string text) {
  for (const std::string_view stop : {".", "\u3002"}) {
    if (text.ends_with(stop)) text.resize(text.size() - stop.size());
  }
  return text;
}

/// More than any digest, block or cryptogram of one key.
constexpr std::size_t kLargestInput = 65536;  // bytes
constexpr std::size_t kPieceSize = 65536;     // bytes
constexpr std::u16string_view kPinConstraint = u"PIN";

constexpr const char* kSeeAlgorithms = "see what it accepts with: mireltoken algorithms";
constexpr const char* kAskFittingAlgorithm = "name an algorithm for this type of key";
constexpr const char* kSeeLog = "run again with -v to see the log";

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
Outcome<ByteVector> readAll(InputSource& input) {
  ByteVector data;
  std::vector<std::uint8_t> piece(kPieceSize);
  while (true) {
    const auto result = input.read(piece);
    if (const auto* failure = std::get_if<Failure>(&result)) return *failure;
    const std::size_t count = std::get<std::size_t>(result);
    if (count == 0) return data;
    data.insert(data.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(count));
    if (data.size() > kLargestInput)
      return badInput("there are more than " + std::to_string(kLargestInput) + " bytes of them");
  }
}

Outcome<ByteVector> readDigest(Hash hash, InputSource& input) {
  Digest digest{hash};
  std::vector<std::uint8_t> piece(kPieceSize);
  while (true) {
    const auto result = input.read(piece);
    if (const auto* failure = std::get_if<Failure>(&result)) return *failure;
    const std::size_t count = std::get<std::size_t>(result);
    if (count == 0) return digest.finish();
    digest.update(std::span{piece}.first(count));
  }
}

/// Why data of that size cannot be the input of the algorithm; empty when they can.
std::string sizeTrouble(SecKeyAlgorithm algorithm, const PublishedKey& key, std::size_t size) {
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
  if (wanted == 0 || wanted == size) return size == 0 ? "there are none" : "";
  return "they have " + std::to_string(size) + " bytes, " + what + " has " + std::to_string(wanted);
}

/// The data in the next form; nothing when they do not fit into the key.
std::optional<ByteVector> adapted(const AdaptationStep& step, const PublishedKey& key,
                                  const ByteVector& data) {
  switch (step.kind) {
    case AdaptationKind::kHash: return digestOf(step.hash, data);
    case AdaptationKind::kDigestInfo: return digestInfo(step.hash, data);
    case AdaptationKind::kPadPKCS1: return paddedForSigning(data, modulusSizeOf(key));
    case AdaptationKind::kEncodePSS:
      return encodedForPss(step.hash, data, static_cast<std::size_t>(std::max(key.keySizeInBits, 0)));
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

/// Why `plain` cannot be what the card made of `cipher` (not empty) when asked in that form; empty when it
/// can. A module that answers CKR_OK and writes nothing leaves the length of the whole block, and zeros.
/// Where a module claims a shorter length and writes nothing, the zeros are taken for the plain text: it may
/// have been zeros, and a module that lies about the length could write any other bytes as well.
std::string plainTextTrouble(SecKeyAlgorithm form, const PublishedKey& key, const ByteVector& cipher,
                             const Bytes& plain) {
  constexpr std::size_t kPaddingSize = 11;  // bytes at least (RFC 8017, section 7.2.1)
  const std::size_t blockSize = modulusSizeOf(key);
  if (plain.size() + kPaddingSize <= blockSize) return {};
  const bool mayBeBlock = form == SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionRaw;
  if (!mayBeBlock || plain.size() != blockSize) {
    return "C_Decrypt answered CKR_OK with " + std::to_string(plain.size()) +
           " bytes, a plain text in a block for this key has " +
           std::to_string(blockSize - std::min(blockSize, kPaddingSize)) + " at most";
  }
  // Raw RSA makes zero of nothing but zero.
  const auto isZero = [](std::uint8_t byte) { return byte == 0; };
  const bool nothingWritten = std::all_of(plain.view().begin(), plain.view().end(), isZero) &&
                              !std::all_of(cipher.begin(), cipher.end(), isZero);
  return nothingWritten ? "C_Decrypt answered CKR_OK, but wrote no plain text" : "";
}

bool isEmptyOrZero(const Bytes& bytes) noexcept {
  const auto view = bytes.view();
  return std::all_of(view.begin(), view.end(), [](std::uint8_t byte) { return byte == 0; });
}

bool isRsaAlgorithm(SecKeyAlgorithm algorithm) noexcept {
  return nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size()).starts_with("RSA");
}

/// Why that PIN cannot be sent to a card as it was entered; empty when it can. The token would count its
/// characters, but send as many bytes of its UTF-8, and so cut one that is not ASCII.
std::string sendingTrouble(const SecretText& pin) {
  constexpr std::size_t kMostBytes = 8;
  SecretBytes<kMostBytes + 1> bytes;
  const std::size_t size = pin.copyUtf8(bytes.span());
  if (size == 0) return "it is empty";
  if (std::any_of(bytes.data(), bytes.data() + size, [](std::uint8_t byte) { return byte >= 0x80; }))
    return "it has characters that are not ASCII";
  if (size > kMostBytes) return "it has more than 8 characters";
  return {};
}

}  // namespace

KeyClient::KeyClient(InsertedCard card, std::shared_ptr<MirelSCTokenSession> session,
                     std::shared_ptr<FailureDiary> diary)
    : card_{std::move(card)}, session_{std::move(session)}, diary_{std::move(diary)} {}

KeyClient::~KeyClient() = default;

std::optional<SecKeyAlgorithm> KeyClient::acceptedForm(const PublishedKey& key, SecKeyAlgorithm algorithm) {
  for (std::optional<SecKeyAlgorithm> form = algorithm; form && session_;) {
    if (session_->supportsOperation(session_, operationOf(*form), key.objectID, HostKeyAlgorithm{*form}))
      return form;
    const auto step = nextStep(*form);
    form = step ? std::optional{step->to} : std::nullopt;
  }
  return std::nullopt;
}

Outcome<SecKeyAlgorithm> KeyClient::formFor(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                            TKTokenOperation operation) {
  if (const auto end = card_.watch ? card_.watch->ended() : std::nullopt) return *end;
  const std::string what = "the key \"" + shortened(displayed(key.objectID)) + "\" does not " +
                           verbOf(operation) + " with " + named(algorithm);
  if (operationOf(algorithm) != operation) {
    return Failure{FailureKind::kNotSupported, what,
                   std::string{"that algorithm is there to "} + verbOf(operationOf(algorithm)),
                   kSeeAlgorithms};
  }
  const auto form = acceptedForm(key, algorithm);
  if (!form)
    return Failure{FailureKind::kNotSupported, what, "the token accepts no form of it", kSeeAlgorithms};
  if (isComposite(stepsBetween(algorithm, *form))) {
    return Failure{FailureKind::kNotSupported, what,
                   "the token would be asked for " + named(*form) +
                       ", but the rest is the platform's work and is not done here",
                   kSeeAlgorithms};
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

Outcome<Signature> KeyClient::sign(const PublishedKey& key, SecKeyAlgorithm algorithm, InputSource& input,
                                   PinSource& pins) {
  const auto chosen = formFor(key, algorithm, TKTokenOperation::kSignData);
  if (const auto* failure = std::get_if<Failure>(&chosen)) return *failure;
  const SecKeyAlgorithm form = std::get<SecKeyAlgorithm>(chosen);
  std::vector<AdaptationStep> steps = stepsBetween(algorithm, form);

  const bool isMessage = !steps.empty() && steps.front().kind == AdaptationKind::kHash;
  auto read = isMessage ? readDigest(steps.front().hash, input) : readAll(input);
  if (const auto* failure = std::get_if<Failure>(&read)) return *failure;
  const ByteVector& data = std::get<ByteVector>(read);
  if (isMessage) steps.erase(steps.begin());
  if (const std::string trouble = isMessage ? "" : sizeTrouble(algorithm, key, data.size());
      !trouble.empty()) {
    return badInput(trouble);
  }
  ByteVector prepared = data;
  for (const AdaptationStep& step : steps) {
    auto next = adapted(step, key, prepared);
    if (!next) return badInput("the key has too few bits for them");
    prepared = std::move(*next);
  }
  if (form == SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw &&
      !paddedForSigning(prepared, modulusSizeOf(key))) {
    return badInput("with PKCS #1 v1.5 padding the key has too few bits for them");
  }

  const auto result = perform(key, TKTokenOperation::kSignData, pins, [&](TKErrorPointer outError) {
    return session_->signData(session_, Bytes{prepared}, key.objectID, HostKeyAlgorithm{form}, outError);
  });
  if (const auto* failure = std::get_if<Failure>(&result)) return *failure;
  Signature made{std::get<Bytes>(result), form, Bytes{data}, cardTrouble("C_Sign")};
  if (const auto cause = diary_->cause()) {
    made.cardFailure =
        failureBecauseOf(*cause, "there is no good signature", FailureKind::kVerificationFailed);
    if (isEmptyOrZero(made.value)) learnFrom(*made.cardFailure);
  }
  return made;
}

Outcome<Bytes> KeyClient::decrypt(const PublishedKey& key, SecKeyAlgorithm algorithm, InputSource& input,
                                  PinSource& pins) {
  const auto chosen = formFor(key, algorithm, TKTokenOperation::kDecryptData);
  if (const auto* failure = std::get_if<Failure>(&chosen)) return *failure;
  const SecKeyAlgorithm form = std::get<SecKeyAlgorithm>(chosen);
  const auto read = readAll(input);
  if (const auto* failure = std::get_if<Failure>(&read)) return *failure;
  const ByteVector& cipher = std::get<ByteVector>(read);
  if (const std::string trouble = sizeTrouble(algorithm, key, cipher.size()); !trouble.empty())
    return badInput(trouble);

  auto result = perform(key, TKTokenOperation::kDecryptData, pins, [&](TKErrorPointer outError) {
    return session_->decryptData(session_, Bytes{cipher}, key.objectID, HostKeyAlgorithm{form}, outError);
  });
  if (std::holds_alternative<Failure>(result)) return result;
  Bytes plain = Bytes::secret(std::get<Bytes>(result));
  if (const std::string trouble = cardTrouble("C_Decrypt"); !trouble.empty()) {
    return refusal(
        "the card gave no plain text", trouble,
        "check that the data were encrypted for this key, with PKCS #1 v1.5 padding: the card layer "
        "knows no other");
  }
  if (const std::string trouble = plainTextTrouble(form, key, cipher, plain); !trouble.empty()) {
    return Failure{FailureKind::kCardRefuses, "the card gave no plain text", trouble,
                   "ask the maker of the module"};
  }
  for (const AdaptationStep& step : stepsBetween(algorithm, form)) {
    auto next = step.kind == AdaptationKind::kUnpadPKCS1 ? unpaddedAfterDecrypting(plain.view())
                                                         : decodedFromOaep(step.hash, plain.view());
    if (!next) {
      return Failure{FailureKind::kCardRefuses, "the card gave no plain text for " + named(algorithm),
                     "what it gave for " + named(form) +
                         " is not a whole block: the card layer removes PKCS #1 v1.5 padding itself",
                     "encrypt with PKCS #1 v1.5 padding (kSecKeyAlgorithmRSAEncryptionPKCS1)"};
    }
    plain = Bytes::secret(Bytes{std::move(*next)});
  }
  return plain.isNull() ? Bytes{ByteVector{}} : plain;
}

Outcome<KeyExchange> KeyClient::exchange(const PublishedKey& key, SecKeyAlgorithm algorithm,
                                         InputSource& input, PinSource& pins) {
  const auto chosen = formFor(key, algorithm, TKTokenOperation::kPerformKeyExchange);
  if (const auto* failure = std::get_if<Failure>(&chosen)) return *failure;
  const SecKeyAlgorithm form = std::get<SecKeyAlgorithm>(chosen);
  const auto read = readAll(input);
  if (const auto* failure = std::get_if<Failure>(&read)) return *failure;
  const ByteVector& point = std::get<ByteVector>(read);
  if (point.empty()) return badInput("there are none");
  const auto result = perform(key, TKTokenOperation::kPerformKeyExchange, pins, [&](TKErrorPointer outError) {
    return session_->performKeyExchangeWithPublicKey(session_, Bytes{point}, key.objectID,
                                                     HostKeyAlgorithm{form}, nullptr, outError);
  });
  if (const auto* failure = std::get_if<Failure>(&result)) return *failure;
  return KeyExchange{std::get<Bytes>(result), form};
}

/// Asks the token; where it wants the PIN first, once more after that. The answer may be null.
template <typename Request>
Outcome<Bytes> KeyClient::perform(const PublishedKey& key, TKTokenOperation operation, PinSource& pins,
                                  const Request& request) {
  for (bool mayAuthenticate = true;; mayAuthenticate = false) {
    if (auto failure = missingCard()) return *failure;
    std::optional<TKError> error;
    diary_->clear();
    Bytes answer = request(&error);
    if (!answer.isNull() || !error) return answer;
    if (mayAuthenticate && isError(error, TKErrorCode::kAuthenticationNeeded)) {
      const auto constraint = key.constraints.find(static_cast<std::int64_t>(operation));
      if (auto failure = authenticate(
              operation, constraint == key.constraints.end() ? Text{} : constraint->second, pins)) {
        return *failure;
      }
      continue;
    }
    const std::string text =
        error->localizedDescription.isNull() ? "" : displayedName(error->localizedDescription);
    return refusal(
        std::string{"the token does not "} + verbOf(operation),
        "it answered with error " + std::to_string(error->code) + (text.empty() ? "" : ": " + text), kSeeLog);
  }
}

std::optional<Failure> KeyClient::authenticate(TKTokenOperation operation, const Text& constraint,
                                               PinSource& pins) {
  int notSent = 0;
  for (int attempt = 1;; ++attempt) {
    if (auto failure = missingCard()) return failure;
    std::optional<TKError> error;
    const auto authentication = session_->beginAuthForOperation(session_, operation, constraint, &error);
    const auto pinOperation = std::dynamic_pointer_cast<MirelSCTokenAuth>(authentication);
    if (!pinOperation) {
      return Failure{
          FailureKind::kNotSupported, "the key cannot be unlocked",
          error ? displayedName(error->localizedDescription) : "the token begins no authentication", kSeeLog};
    }
    const auto entered = pins.askForPin(displayed(card_.reader.tokenLabel));
    if (const auto* failure = std::get_if<Failure>(&entered)) return *failure;
    const auto& pin = std::get<std::shared_ptr<const SecretText>>(entered);
    if (!pin) {
      return Failure{FailureKind::kCancelled, "no PIN was given", "the entry was cancelled",
                     "run again to try once more"};
    }
    if (const std::string trouble = sendingTrouble(*pin); !trouble.empty()) {
      const Failure failure{FailureKind::kPinCannotBeEntered, "the PIN was not sent to the card", trouble,
                            "give a PIN of 1 to 8 ASCII characters; if the card has another one, change it "
                            "with the card maker's tool"};
      if (++notSent == kMostPins || !pins.canAskAgain()) return failure;
      --attempt;  // it was none: the card has not been asked
      pins.showRefusal(failure.what + ": " + failure.why);
      continue;
    }
    // As late as can be: the user may have taken any time.
    if (auto failure = missingCard()) return failure;
    diary_->clear();
    pinOperation->setPIN(pin);
    const bool accepted = pinOperation->finishWithError(&error);
    pinOperation->setPIN(nullptr);
    if (accepted) return std::nullopt;

    const std::string text = error ? displayedName(error->localizedDescription) : std::string{};
    Failure failure = loginFailure(withoutFullStop(text));
    const bool last = attempt == kMostPins || !pins.canAskAgain();
    if (failure.kind != FailureKind::kPinWrong || last) return failure;
    pins.showRefusal(text);
  }
}

/// Why nothing can be asked of the card; nothing when it is there. Drops the session of a token that has
/// ended.
std::optional<Failure> KeyClient::missingCard() {
  if (!card_.watch) return std::nullopt;
  auto failure = card_.watch->look(*diary_);
  // Another client may have found out since.
  auto end = card_.watch->ended();
  if (!end) return failure;
  session_.reset();
  card_.token.reset();
  return end;
}

void KeyClient::learnFrom(const Failure& failure) {
  if (card_.watch) card_.watch->learnFrom(failure);
}

/// Because of the call that failed; where none did, with these words.
Failure KeyClient::refusal(std::string what, std::string why, std::string whatToDo) {
  const auto cause = diary_->cause();
  if (!cause) return {FailureKind::kCardRefuses, std::move(what), std::move(why), std::move(whatToDo)};
  Failure failure = failureBecauseOf(*cause, std::move(what), FailureKind::kCardRefuses);
  learnFrom(failure);
  return failure;
}

/// Why the card did not do what that Cryptoki function does; empty when it did. A card that was not asked may
/// leave no other trace.
std::string KeyClient::cardTrouble(std::string_view function) const {
  if (std::string reason = diary_->reason(); !reason.empty()) return reason;
  return diary_->lastResultOf(function) == CKR_OK ? std::string{} : "the card was not asked";
}

Failure KeyClient::loginFailure(const std::string& text) {
  const auto answer = diary_->lastResultOf("C_Login");
  if (!answer) {
    return refusal("the card did not take the PIN", "it is not there any more",
                   "insert the card and run again");
  }
  const FailedCall login{"C_Login", *answer};
  const auto decided = meaningOf(login.name, login.result).kind;
  if (decided == FailureKind::kPinWrong) return failureBecauseOf(login, text, FailureKind::kPinWrong);
  if (decided == FailureKind::kPinLocked)
    return failureBecauseOf(login, "the PIN of the card is locked", FailureKind::kPinLocked);
  const char* what = "the card did not take the PIN";
  if (!diary_->cause() && *answer != CKR_OK) {
    // The framework has looked at the session since, so the diary does not tell any more.
    Failure failure = failureBecauseOf(login, what, FailureKind::kCardRefuses);
    learnFrom(failure);
    return failure;
  }
  const auto ended = diary_->lastResultOf("pkcs11_UserLogin");
  return refusal(what,
                 !ended || *ended == kLoginDidNotTake
                     ? "the login left no user logged in"
                     : "pkcs11_UserLogin ended with " + cryptokiResultText(*ended),
                 kSeeLog);
}

std::optional<Failure> KeyClient::logIn(PinSource& pins) {
  if (auto failure = authenticate(TKTokenOperation::kNone, Text{kPinConstraint}, pins)) return failure;
  if (diary_->lastResultOf("C_Login") != CKR_USER_ALREADY_LOGGED_IN) return std::nullopt;
  return Failure{FailureKind::kCardRefuses, "the PIN was not checked",
                 "the card's software was logged in already (C_Login answered " +
                     cryptokiResultText(CKR_USER_ALREADY_LOGGED_IN) + ")",
                 "end the other programs that use the card and run again"};
}

}  // namespace mirel
