#include "doctor/KeyTrials.h"

#include <algorithm>
#include <array>

#include "CodeMeaning.h"
#include "RsaEncoding.h"
#include "TokenFindings.h"
#include "bridge/cryptoki.h"
#include "host/Display.h"
#include "host/InputSource.h"
#include "host/KeyAbility.h"
#include "host/KeyChoice.h"
#include "platform/PublicKey.h"
#include "platform/TimeAndChance.h"

namespace mirel {
namespace {

using enum FindingID;

/// What a key is tried with: the first row for which it is long enough.
struct TrialAlgorithms {
  SecKeyAlgorithm pss;
  SecKeyAlgorithm pkcs1;
};
constexpr TrialAlgorithms kTrialAlgorithms[] = {
    {SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256,
     SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256},
    {SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA1,
     SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1},
};
constexpr auto kDecryption = SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1;
constexpr std::size_t kTrialSize = 32;  // bytes
constexpr const char* kChanged = "was changed on the card, not tried";
constexpr std::size_t kLeastPadding = 11;  // bytes (RFC 8017, section 7.2.1)

class MemoryInput final : public InputSource {
 public:
  explicit MemoryInput(std::span<const std::uint8_t> data) : rest_{data} {}

  Result<std::size_t> read(std::span<std::uint8_t> room) override {
    const std::size_t count = std::min(room.size(), rest_.size());
    std::copy_n(rest_.begin(), count, room.begin());
    rest_ = rest_.subspan(count);
    return count;
  }

 private:
  std::span<const std::uint8_t> rest_;
};

/// Null where the report does not know the key.
const KeyReport* reportOf(const PublishedKey& key, const CardReport& report) {
  const auto known = std::find_if(report.keys.begin(), report.keys.end(),
                                  [&](const KeyReport& one) { return one.objectID == key.objectID; });
  return known == report.keys.end() ? nullptr : &*known;
}

std::string subjectOf(const CardReport& report, const PublishedKey& key) {
  const KeyReport* known = reportOf(key, report);
  return subjectOf("key", key.objectID, known ? known->labelOnCard : Text{});
}

const TrialAlgorithms* algorithmsFor(const PublishedKey& key) {
  const auto* fitting =
      std::find_if(std::begin(kTrialAlgorithms), std::end(kTrialAlgorithms), [&](const TrialAlgorithms& row) {
        return key.keySizeInBits >= std::max(leastKeySizeFor(row.pss), leastKeySizeFor(row.pkcs1));
      });
  return fitting == std::end(kTrialAlgorithms) ? nullptr : fitting;
}

/// Joins what is said of each key.
class Evidence {
 public:
  void add(const std::string& subject, const std::string& text) {
    if (!text_.empty()) text_ += "; ";
    text_.append(subject).append(" ").append(text);
  }
  [[nodiscard]] bool isEmpty() const noexcept { return text_.empty(); }
  [[nodiscard]] const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

/// The card is not there any more: that says nothing of the key that was tried.
bool isGone(const Failure& failure) {
  return failure.kind == FailureKind::kCardGone || failure.kind == FailureKind::kAnotherCard;
}

Finding goneFinding(const Failure& failure) {
  return {goneFindingOf(failure.result), Severity::kFailure, {}, failure.why};
}

/// The card, its reader or the service behind it failed, whatever the key and the module are like.
bool isOfDevice(const Failure& failure) {
  return hasAnswer(failure, {CKR_DEVICE_ERROR, CKR_DEVICE_MEMORY, CKR_HOST_MEMORY, CKR_TOKEN_NOT_RECOGNIZED,
                             CKR_SESSION_COUNT});
}

/// A call failed that has nothing to do with the key.
bool isDisturbed(const Failure& failure) {
  return failure.isCardUnasked || isOfDevice(failure);  // unasked: as happens after a call that failed
}

bool worksForNothing(const CardReport& report, const PublishedKey& key) {
  const KeyReport* known = reportOf(key, report);
  return known && known->worksForNothing;
}

/// The finding of that kind about the key; null where there is none.
const Finding* findingOf(FindingID id, const CardReport& report, const PublishedKey& key) {
  const KeyReport* known = reportOf(key, report);
  if (!known) return nullptr;
  const auto found = std::find_if(known->findings.begin(), known->findings.end(),
                                  [id](const Finding& finding) { return finding.id == id; });
  return found == known->findings.end() ? nullptr : &*found;
}

/// Asked for although a user was logged in.
bool wantsPin(const Failure& failure) { return failure.result == CKR_USER_NOT_LOGGED_IN; }

/// Whether the private key was seen after the login, and is not found now: some modules end the login when a
/// key that wants the PIN for each use is used once more.
bool isLoginLost(const CardReport& report, const PublishedKey& key, const Failure& failure) {
  const KeyReport* known = reportOf(key, report);
  const auto wantsPinEachTime = [](const Finding& finding) { return finding.id == kPinForEachUse; };
  return failure.isKeyMissing && known && known->hasPrivateKey == true &&
         std::any_of(report.findings.begin(), report.findings.end(), wantsPinEachTime);
}

/// Whether it may be the end of somebody else's login, and no wish of the key.
bool mayBeLoggedOut(const KeyTrial& trial, const Failure& failure) {
  return !trial.isOwnLogin && wantsPin(failure);
}

bool saysNothing(const KeyTrial& trial, const PublishedKey& key, const Failure& failure) {
  return mirel::saysNothing(failure) || mayBeLoggedOut(trial, failure) ||
         isLoginLost(trial.report, key, failure);
}

/// Whether the first use asked for the PIN again, and the card does not tell whether the key wants that: then
/// the login may have ended as well, as where another program has reset the card.
bool leavesOpenWhoWantsPin(const CardReport& report, const PublishedKey& key, const Failure& failure) {
  const KeyReport* known = reportOf(key, report);
  return wantsPin(failure) && known && !known->wantsPinForEachUse;
}

/// What became of a key that was tried for the first time, in vain.
const char* outcomeText(const KeyTrial& trial, const PublishedKey& key, const Failure& failure,
                        const char* ifItFails) {
  const bool isOpen = saysNothing(trial, key, failure) || leavesOpenWhoWantsPin(trial.report, key, failure);
  return isOpen ? "could not be tried" : ifItFails;
}

/// Whether the card gave a result, and that is wrong.
bool isWrongResult(const Failure& failure) {
  return failure.kind == FailureKind::kVerificationFailed && !failure.result;
}

/// What a key that wants the PIN for each use comes to where another use came before it: that it is refused
/// says no more than its finding does.
constexpr const char* kUsedBefore = "wants the PIN right before its use, and another use came before";

/// What a key that was tried in vain is told of. The module is to blame only where nothing else is known to
/// be the cause.
Finding trialFinding(FindingID id, const KeyTrial& trial, const PublishedKey& key, const Failure& failure) {
  const CardReport& report = trial.report;
  const std::string subject = subjectOf(report, key);
  const auto failed = [&](FindingID cause) {
    return Finding{cause, Severity::kFailure, subject, failure.why};
  };
  const bool wasAllRead = report.failedRead.empty() && report.failedPrivateRead.empty();
  if (isDisturbed(failure) || (!wasAllRead && !isWrongResult(failure))) return failed(kTrialDisturbed);
  if (const Finding* shared = findingOf(kIDShared, report, key); shared && sharesItsID(key, report))
    return {shared->id, Severity::kFailure, shared->subject, shared->evidence};
  if (const Finding* told = findingOf(kPinForEachUse, report, key); told && wantsPin(failure))
    return {told->id, Severity::kFailure, told->subject, told->evidence};
  if (mayBeLoggedOut(trial, failure)) return failed(kTrialDisturbed);
  if (leavesOpenWhoWantsPin(report, key, failure)) {
    Finding open = failed(kTrialDisturbed);
    open.evidence +=
        "; it was given before: the key may want it for each use, which the card does not tell, or "
        "the login has ended since";
    return open;
  }
  if (isLoginLost(report, key, failure))
    return {kTrialDisturbed, Severity::kUnknown, subject,
            failure.why + ": it was seen after the login, which may have ended since"};
  if (failure.isKeyMissing) return failed(kPrivateKeyMissing);
  if (hasAnswer(failure, {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_TYPE_INCONSISTENT}))
    return failed(kUseNotAllowed);
  if (saysNothing(failure)) return {kTrialDisturbed, Severity::kUnknown, subject, failure.why};
  if (!wasAllRead) return {id, Severity::kFailure, subject, explainedBy(report, key, failure).why};
  return failed(id);
}

/// What the trials of one kind came to so far.
struct Outcome {
  Evidence evidence;
  std::vector<Finding> findings;
  bool isMade = false;               ///< one at least, and not too late
  std::optional<FindingID> ended{};  ///< that the card or the module went away
};

/// Whether a use of the login that came before may be why the key wants the PIN. `isUsed`: there was one.
bool isRefusedAsUsed(const KeyTrial& trial, const PublishedKey& key, const Failure& failure, bool isUsed) {
  return isUsed && wantsPin(failure) && findingOf(kPinForEachUse, trial.report, key);
}

/// Notes that a key was tried in vain. A cause that was told before with less weight is told once.
/// `ioIsUsed`: a wrong result is one of a use.
void noteFailure(FindingID id, const KeyTrial& trial, const PublishedKey& key, const Failure& failure,
                 Checks& checks, Outcome& ioOutcome, bool& ioIsUsed) {
  ioIsUsed = ioIsUsed || (isWrongResult(failure) && !isDisturbed(failure));
  ioOutcome.isMade = true;
  Finding finding = trialFinding(id, trial, key, failure);
  if (finding.id == kPinForEachUse) checks.takeBack(finding.id, finding.subject);
  ioOutcome.findings.push_back(std::move(finding));
}

/// Of several with one ID only the first is found.
std::vector<PublishedKey> findableKeysOf(const InsertedCard& card) {
  std::vector<PublishedKey> keys;
  for (const PublishedKey& key : keysOf(card)) {
    const bool isFound = std::none_of(
        keys.begin(), keys.end(), [&](const PublishedKey& other) { return other.objectID == key.objectID; });
    if (isFound) keys.push_back(key);
  }
  return keys;
}

}  // namespace

std::optional<Failure> failureOfSigning(KeyClient& client, const PublishedKey& key, SecKeyAlgorithm algorithm,
                                        PinSource& pins) {
  constexpr std::array<std::uint8_t, 6> kMessage{'T', 'r', 'i', 'a', 'l', '\n'};
  MemoryInput input{kMessage};
  const auto signature = client.sign(key, algorithm, input, pins);
  return signature ? signature->whyNotVerified : std::optional{signature.failure()};
}

std::optional<Failure> failureOfDecrypting(KeyClient& client, const PublishedKey& key,
                                           const PublishedCertificate& certificate, PinSource& pins) {
  const auto failed = [](const char* why) {
    return Failure{FailureKind::kInternal, "there is no trial text", why, {}};
  };
  const std::size_t blockSize = modulusSizeOf(key);
  if (blockSize <= kLeastPadding) return failed("the key is too short for any text");
  ByteVector message(std::min(kTrialSize, blockSize - kLeastPadding));
  if (!client.chance().drawTrialText(message)) return failed("the system has no random bytes");
  const auto block = paddedForEncrypting(message, blockSize);
  const auto publicKey = publicKeyOfCertificate(certificate.data.view());
  // RSAEP and RSAVP1 are one operation (RFC 8017, sections 5.1.1 and 5.2.2).
  const ByteVector cipher = block && publicKey ? publicKey->recoveredBlock(*block) : ByteVector{};
  if (cipher.empty()) return failed("the public key of the certificate cannot encrypt");
  MemoryInput input{cipher};
  const auto plain = client.decrypt(key, kDecryption, input, pins);
  if (!plain) return plain.failure();
  const auto view = plain->view();
  if (std::equal(view.begin(), view.end(), message.begin(), message.end())) return std::nullopt;
  return Failure{
      FailureKind::kVerificationFailed, "", "the plain text is another one than was encrypted", {}};
}

bool sharesItsID(const PublishedKey& key, const CardReport& report) {
  const KeyReport* known = reportOf(key, report);
  return known && known->sharesIDWithOtherKey;
}

bool saysNothingOfModule(const Failure& failure) {
  return isGone(failure) || isOfDevice(failure) || failure.kind == FailureKind::kInternal ||
         failure.kind == FailureKind::kNotSupported;
}

bool saysNothing(const Failure& failure) { return saysNothingOfModule(failure) || isDisturbed(failure); }

bool wantsPinForEachUse(const PublishedKey& key, const CardReport& report) {
  return findingOf(kPinForEachUse, report, key) != nullptr;
}

namespace {

/// `ioIsUsed`: a key was used since the login.
void trySigning(const KeyTrial& trial, const PublishedKey& key, const Checkpoint& point, Checks& checks,
                Outcome& ioOutcome, bool& ioIsUsed) {
  const CardReport& report = trial.report;
  auto& evidence = ioOutcome.evidence;
  auto& findings = ioOutcome.findings;
  if (!key.canSign || !certificateOf(trial.card, key)) return;
  const std::string subject = subjectOf(report, key);
  if (key.keyType != CertificateKeyType::kRSA || worksForNothing(report, key))
    return evidence.add(subject,
                        findingOf(kCardChanged, report, key) ? kChanged : "never signs here, not tried");
  const TrialAlgorithms* algorithms = algorithmsFor(key);
  if (!algorithms) return evidence.add(subject, "is too short for a trial");
  checks.start(point);
  const auto endWith = [&](const Failure& failure, const char* text) {
    ioOutcome.isMade = true;
    ioOutcome.evidence.add(subject, text);
    ioOutcome.ended = ioOutcome.findings.emplace_back(goneFinding(failure)).id;
  };
  if (const auto failure = failureOfSigning(trial.client, key, algorithms->pss, trial.pins)) {
    if (isGone(*failure)) return endWith(*failure, "could not be tried");
    if (isRefusedAsUsed(trial, key, *failure, ioIsUsed)) return evidence.add(subject, kUsedBefore);
    evidence.add(subject, outcomeText(trial, key, *failure, "does not sign"));
    return noteFailure(kSignatureFails, trial, key, *failure, checks, ioOutcome, ioIsUsed);
  }
  ioIsUsed = ioOutcome.isMade = true;
  const auto failure = failureOfSigning(trial.client, key, algorithms->pkcs1, trial.pins);
  if (failure && isGone(*failure)) return endWith(*failure, "signs RSA-PSS, and could not be tried further");
  // A key that wants the PIN for each use has not said anything about its padding.
  const bool isVerdict = failure && failure->kind == FailureKind::kVerificationFailed &&
                         !saysNothing(trial, key, *failure) && !wantsPin(*failure);
  if (failure && !isVerdict) {
    evidence.add(subject, "signs RSA-PSS, and could not be tried further");
    const bool isToldBefore = wantsPin(*failure) && findingOf(kPinForEachUse, report, key);
    if (!isToldBefore && saysNothing(trial, key, *failure)) {
      findings.push_back(trialFinding(kNoPkcs1Signatures, trial, key, *failure));
    } else if (!isToldBefore && wantsPin(*failure)) {
      findings.push_back({kPinForEachUse, Severity::kWarning, subject, failure->why});
    }
    return;
  }
  if (!failure || isWrongResult(*failure)) checks.takeBack(kPinForEachUse, subject);  // it signed twice
  evidence.add(subject, failure ? "signs RSA-PSS, not PKCS #1 v1.5" : "signs RSA-PSS and PKCS #1 v1.5");
  if (failure) findings.push_back({kNoPkcs1Signatures, Severity::kWarning, subject, failure->why});
}

void tryDecrypting(const KeyTrial& trial, const PublishedKey& key, const Checkpoint& point, Checks& checks,
                   Outcome& ioOutcome, bool& ioIsUsed) {
  const CardReport& report = trial.report;
  auto& evidence = ioOutcome.evidence;
  const PublishedCertificate* certificate = certificateOf(trial.card, key);
  if (!key.canDecrypt || !certificate || key.keyType != CertificateKeyType::kRSA) return;
  const std::string subject = subjectOf(report, key);
  if (worksForNothing(report, key))
    return evidence.add(subject,
                        findingOf(kCardChanged, report, key) ? kChanged : "never decrypts here, not tried");
  checks.start(point);
  const auto failure = failureOfDecrypting(trial.client, key, *certificate, trial.pins);
  if (!failure) {
    ioIsUsed = ioOutcome.isMade = true;
    return evidence.add(subject, "decrypts PKCS #1 v1.5");
  }
  if (isGone(*failure)) {
    ioOutcome.isMade = true;
    evidence.add(subject, "could not be tried");
    ioOutcome.ended = ioOutcome.findings.emplace_back(goneFinding(*failure)).id;
    return;
  }
  if (isRefusedAsUsed(trial, key, *failure, ioIsUsed)) return evidence.add(subject, kUsedBefore);
  evidence.add(subject, outcomeText(trial, key, *failure, "does not decrypt"));
  noteFailure(kDecryptionFails, trial, key, *failure, checks, ioOutcome, ioIsUsed);
}

}  // namespace

void tryKeys(const KeyTrial& trial, const Checkpoint& signatures, const Checkpoint& decryption,
             Checks& checks) {
  Outcome signing;
  Outcome decrypting;
  bool isUsed = false;
  const auto keys = findableKeysOf(trial.card);
  const auto tell = [&](const Checkpoint& point, Outcome& outcome, const Outcome& other, const char* ifNone) {
    if (outcome.evidence.isEmpty())
      return checks.skip(point, other.ended ? endingText(*other.ended) : ifNone);
    if (!outcome.isMade) return checks.skip(point, outcome.evidence.text());
    checks.add(point, outcome.evidence.text(), std::move(outcome.findings));
  };
  const auto wants = [&](const PublishedKey& key) { return wantsPinForEachUse(key, trial.report); };
  const bool anyWants = std::any_of(keys.begin(), keys.end(), wants);
  // The login may end with the use of a key that wants the PIN each time, so these come last.
  for (const bool wantsPin : {false, true}) {
    const auto tryEach = [&](const auto& tryIt) {
      for (const PublishedKey& key : keys) {
        if (wants(key) == wantsPin && !signing.ended && !decrypting.ended) tryIt(key);
      }
    };
    tryEach([&](const PublishedKey& key) { trySigning(trial, key, signatures, checks, signing, isUsed); });
    // As soon as can be: the module may crash when it decrypts.
    if (wantsPin == anyWants) tell(signatures, signing, decrypting, "no key of the card signs");
    tryEach(
        [&](const PublishedKey& key) { tryDecrypting(trial, key, decryption, checks, decrypting, isUsed); });
  }
  tell(decryption, decrypting, signing, "no RSA key of the card decrypts");
}

}  // namespace mirel
