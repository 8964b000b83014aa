#include "host/KeyAbility.h"

#include <algorithm>

#include "Adaptation.h"
#include "RsaEncoding.h"
#include "bridge/CardRules.h"
#include "bridge/cryptoki.h"
#include "host/Display.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

constexpr int kLongestSigningKey = 8 * CryptTKitSProvider::kMaxSignatureLen;  // bits
static_assert(kLongestSigningKey == 2048 && kMaxSearchedIDLen == 254, "the catalogue names the numbers");

std::string sizeText(const PublishedKey& key) {
  const bool isRsa = key.keyType == CertificateKeyType::kRSA;
  return std::string{isRsa ? "RSA, " : "EC, "} + std::to_string(key.keySizeInBits) + " bits";
}

}  // namespace

std::optional<Finding> reasonNeverTo(KeyOperation operation, const PublishedKey& key) {
  using enum FindingID;
  const auto never = [&](FindingID id, std::string evidence) {
    return Finding{id, Severity::kFailure, subjectOf("key", key.objectID, Text{}), std::move(evidence)};
  };
  if (operation == KeyOperation::kExchangeKeys) return never(kNoKeyAgreement, sizeText(key));
  if (key.keyType != CertificateKeyType::kRSA) return never(kEcKeyNeverSigns, sizeText(key));
  if (key.objectID.length() > kMaxSearchedIDLen)
    return never(kKeyIDTooLong, std::to_string(key.objectID.length()) + " bytes");
  if (operation != KeyOperation::kSign) return std::nullopt;
  if (key.keySizeInBits > kLongestSigningKey) return never(kRsaKeyTooLong, sizeText(key));
  if (containsIgnoringCase(key.nameInCard, kPssMark))
    return never(kKeyNameWithPss,
                 "the card layer's name of the key is \"" + displayed(key.nameInCard) + "\"");
  return std::nullopt;
}

int leastKeySizeFor(SecKeyAlgorithm algorithm) {
  constexpr std::size_t kOtherBytesOfPkcs1 = 11;
  for (auto step = nextStep(algorithm); step; step = nextStep(step->to)) {
    const std::size_t hashSize = factsOf(step->hash).size;
    // The encoded message of PSS has one bit less than the modulus.
    if (step->kind == AdaptationKind::kEncodePSS) return static_cast<int>(8 * (2 * hashSize + 1) + 2);
    if (step->kind != AdaptationKind::kDigestInfo) continue;
    const std::size_t size = digestInfo(step->hash, ByteVector(hashSize)).size() + kOtherBytesOfPkcs1;
    return static_cast<int>(8 * (size - 1) + 1);
  }
  return 0;
}

bool mayWork(const PublishedKey& key, SecKeyAlgorithm algorithm) {
  const KeyOperation operation = keyOperationOf(operationOf(algorithm));
  if (!isRsaAlgorithm(algorithm) || reasonNeverTo(operation, key)) return false;
  if (key.keySizeInBits < leastKeySizeFor(algorithm)) return false;
  if (operation == KeyOperation::kSign) return key.canSign;
  return key.canDecrypt && algorithm == SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1;
}

Failure refusalBecauseOf(const Finding& finding, KeyOperation operation) {
  const FindingEntry& entry = entryOf(finding.id);
  Failure failure;
  failure.why = finding.subject + ": " + std::string{entry.title} + " (" + finding.evidence +
                "): " + std::string{entry.why};
  failure.advice = entry.remedy.data();  // a literal
  switch (operation) {
    case KeyOperation::kSign:
      failure.kind = FailureKind::kVerificationFailed;
      failure.what = "there is no good signature";
      break;
    case KeyOperation::kDecrypt:
      // The card would not find its private key.
      failure.kind =
          finding.id == FindingID::kKeyIDTooLong ? FailureKind::kCardRefuses : FailureKind::kNotSupported;
      failure.what = "there is no plain text";
      break;
    case KeyOperation::kExchangeKeys:
      failure.kind = FailureKind::kNotSupported;
      failure.what = "there is no shared secret";
      break;
  }
  return failure;
}

Failure explainedBy(const CardReport& report, const PublishedKey& key, Failure failure) {
  using enum FindingID;
  constexpr FindingID kCauses[] = {kCardChanged,       kCertificateOfOtherKey, kIDShared,
                                   kPrivateKeyMissing, kUseNotAllowed,         kPinForEachUse};
  if (failure.isCauseKnown) return failure;
  for (const KeyReport& own : report.keys) {
    if (!(own.objectID == key.objectID)) continue;
    for (const FindingID cause : kCauses) {
      if (cause == kIDShared && !own.sharesIDWithOtherKey) continue;
      if (cause == kPinForEachUse && failure.result != CKR_USER_NOT_LOGGED_IN) continue;
      const auto found = std::find_if(own.findings.begin(), own.findings.end(),
                                      [&](const Finding& finding) { return finding.id == cause; });
      if (found == own.findings.end()) continue;
      const FindingEntry& entry = entryOf(cause);
      failure.why += ": " + std::string{entry.title} + " (" + found->subject + ": " + found->evidence + ")";
      if (cause == kIDShared) failure.why += ", and " + std::string{entry.why};
      failure.advice = entry.remedy.data();  // a literal
      return failure;
    }
  }
  const std::string& unread = report.failedRead.empty() ? report.failedPrivateRead : report.failedRead;
  if (!unread.empty())
    failure.why += "; whether the card's objects are the reason cannot be told now, " + unread;
  return failure;
}

}  // namespace mirel
