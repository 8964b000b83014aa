#include "Adaptation.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace mirel {
namespace {

constexpr std::array kHashes{Hash::kSHA1, Hash::kSHA224, Hash::kSHA256, Hash::kSHA384, Hash::kSHA512};

constexpr std::string_view kHashMark = "*";

/// The names are regular, so one rule serves a whole family: "*" is the hash.
struct Rule {
  std::string_view from;
  AdaptationKind kind;
  std::string_view to;
};

constexpr Rule kRules[] = {
    {"RSASignatureMessagePKCS1v15*", AdaptationKind::kHash, "RSASignatureDigestPKCS1v15*"},
    {"RSASignatureDigestPKCS1v15*", AdaptationKind::kDigestInfo, "RSASignatureDigestPKCS1v15Raw"},
    {"RSASignatureDigestPKCS1v15Raw", AdaptationKind::kPadPKCS1, "RSASignatureRaw"},
    {"RSASignatureMessagePSS*", AdaptationKind::kHash, "RSASignatureDigestPSS*"},
    {"RSASignatureDigestPSS*", AdaptationKind::kEncodePSS, "RSASignatureRaw"},
    {"ECDSASignatureMessageX962*", AdaptationKind::kHash, "ECDSASignatureDigestX962*"},
    {"ECDSASignatureDigestX962*", AdaptationKind::kAsItIs, "ECDSASignatureDigestX962"},
    {"RSAEncryptionPKCS1", AdaptationKind::kUnpadPKCS1, "RSAEncryptionRaw"},
    {"RSAEncryptionOAEP*", AdaptationKind::kDecodeOAEP, "RSAEncryptionRaw"},
    {"RSAEncryptionOAEP*AESGCM", AdaptationKind::kComposite, "RSAEncryptionOAEP*"},
    {"ECIESEncryptionStandardX963*AESGCM", AdaptationKind::kComposite, "ECDHKeyExchangeStandardX963*"},
    {"ECIESEncryptionStandardVariableIVX963*AESGCM", AdaptationKind::kComposite,
     "ECDHKeyExchangeStandardX963*"},
    {"ECIESEncryptionCofactorX963*AESGCM", AdaptationKind::kComposite, "ECDHKeyExchangeCofactorX963*"},
    {"ECIESEncryptionCofactorVariableIVX963*AESGCM", AdaptationKind::kComposite,
     "ECDHKeyExchangeCofactorX963*"},
    {"ECDHKeyExchangeStandardX963*", AdaptationKind::kComposite, "ECDHKeyExchangeStandard"},
    {"ECDHKeyExchangeCofactorX963*", AdaptationKind::kComposite, "ECDHKeyExchangeCofactor"},
};

/// The pattern with that hash in its place.
std::string filledIn(std::string_view pattern, Hash hash) {
  std::string name{pattern};
  if (const std::size_t at = name.find(kHashMark); at != std::string::npos) {
    name.replace(at, kHashMark.size(), factsOf(hash).name);
  }
  return name;
}

std::string_view shortNameOf(SecKeyAlgorithm algorithm) noexcept {
  return nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size());
}

}  // namespace

std::optional<AdaptationStep> nextStep(SecKeyAlgorithm algorithm) {
  const std::string_view name = shortNameOf(algorithm);
  for (const Rule& rule : kRules) {
    for (const Hash hash : kHashes) {
      if (filledIn(rule.from, hash) != name) continue;
      return AdaptationStep{rule.kind, secKeyAlgorithmNamed(filledIn(rule.to, hash)).value(), hash};
    }
  }
  return std::nullopt;
}

TKTokenOperation operationOf(SecKeyAlgorithm form) noexcept {
  const std::string_view name = shortNameOf(form);
  if (name.starts_with("ECDH")) return TKTokenOperation::kPerformKeyExchange;
  return name.find("Signature") != std::string_view::npos ? TKTokenOperation::kSignData
                                                          : TKTokenOperation::kDecryptData;
}

KeyOperation keyOperationOf(TKTokenOperation operation) noexcept {
  const auto same = [](TKTokenOperation asked, KeyOperation known) {
    return static_cast<std::int64_t>(asked) == static_cast<std::int64_t>(known);
  };
  static_assert(same(TKTokenOperation::kSignData, KeyOperation::kSign));
  static_assert(same(TKTokenOperation::kDecryptData, KeyOperation::kDecrypt));
  static_assert(same(TKTokenOperation::kPerformKeyExchange, KeyOperation::kExchangeKeys));
  return static_cast<KeyOperation>(operation);
}

bool isRsaAlgorithm(SecKeyAlgorithm algorithm) noexcept {
  return nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size()).starts_with("RSA");
}

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

}  // namespace mirel
