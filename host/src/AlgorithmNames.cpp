#include "host/AlgorithmNames.h"

#include <array>

#include "host/NearestName.h"

namespace mirel {
namespace {

/// A name as it is written elsewhere. "#" in both stands for the number of bits of a hash.
struct OtherName {
  std::string_view name;
  std::string_view platformName;                         ///< without its prefix
  std::optional<KeyOperation> operation = std::nullopt;  ///< the only one for which it means that
};

constexpr std::array kOtherNames{
    // JOSE (RFC 7518). Its ECDSA signatures are two numbers side by side; here they are DER.
    OtherName{"PS#", "RSASignatureMessagePSSSHA#"},
    OtherName{"RS#", "RSASignatureMessagePKCS1v15SHA#"},
    OtherName{"ES#", "ECDSASignatureMessageX962SHA#"},
    OtherName{"RSA-OAEP", "RSAEncryptionOAEPSHA1"},
    OtherName{"RSA-OAEP-#", "RSAEncryptionOAEPSHA#"},
    OtherName{"RSA1_5", "RSAEncryptionPKCS1"},
    OtherName{"ECDH-ES", "ECDHKeyExchangeStandard"},

    // X.509 and CMS (RFC 4055, RFC 5758). Without a hash: SHA-256, and SHA-1 for OAEP, which has it by
    // default.
    OtherName{"sha#WithRSAEncryption", "RSASignatureMessagePKCS1v15SHA#"},
    OtherName{"ecdsa-with-SHA#", "ECDSASignatureMessageX962SHA#"},
    OtherName{"rsaEncryption", "RSAEncryptionPKCS1"},
    OtherName{"rsassaPss", "RSASignatureMessagePSSSHA256"},
    OtherName{"id-RSASSA-PSS", "RSASignatureMessagePSSSHA256"},
    OtherName{"rsa-pss", "RSASignatureMessagePSSSHA256"},
    OtherName{"rsa-pss-sha#", "RSASignatureMessagePSSSHA#"},
    OtherName{"rsaesOaep", "RSAEncryptionOAEPSHA1"},
    OtherName{"id-RSAES-OAEP", "RSAEncryptionOAEPSHA1"},
    OtherName{"RSA-SHA#", "RSASignatureMessagePKCS1v15SHA#"},
    OtherName{"ECDSA", "ECDSASignatureMessageX962SHA256"},

    // PKCS #11
    OtherName{"SHA#-RSA-PKCS-PSS", "RSASignatureMessagePSSSHA#"},
    OtherName{"SHA#-RSA-PKCS", "RSASignatureMessagePKCS1v15SHA#"},
    OtherName{"RSA-PKCS-PSS", "RSASignatureMessagePSSSHA256"},
    OtherName{"RSA-PKCS-OAEP", "RSAEncryptionOAEPSHA1"},
    OtherName{"RSA-PKCS", "RSASignatureDigestPKCS1v15Raw", KeyOperation::kSign},
    OtherName{"RSA-PKCS", "RSAEncryptionPKCS1", KeyOperation::kDecrypt},
    OtherName{"RSA-X-509", "RSASignatureRaw", KeyOperation::kSign},
    OtherName{"RSA-X-509", "RSAEncryptionRaw", KeyOperation::kDecrypt},
    OtherName{"ECDSA-SHA#", "ECDSASignatureMessageX962SHA#"},
    OtherName{"ECDH1-DERIVE", "ECDHKeyExchangeStandard"},
    OtherName{"ECDH1-COFACTOR-DERIVE", "ECDHKeyExchangeCofactor"},

    // TLS (RFC 8446)
    OtherName{"rsa_pss_rsae_sha#", "RSASignatureMessagePSSSHA#"},
    OtherName{"rsa_pss_pss_sha#", "RSASignatureMessagePSSSHA#"},
    OtherName{"rsa_pkcs1_sha#", "RSASignatureMessagePKCS1v15SHA#"},
    OtherName{"ecdsa_sha1", "ECDSASignatureMessageX962SHA1"},
    OtherName{"ecdsa_secp256r1_sha256", "ECDSASignatureMessageX962SHA256"},
    OtherName{"ecdsa_secp384r1_sha384", "ECDSASignatureMessageX962SHA384"},
    OtherName{"ecdsa_secp521r1_sha512", "ECDSASignatureMessageX962SHA512"},

    // Java
    OtherName{"SHA#withRSA", "RSASignatureMessagePKCS1v15SHA#"},
    OtherName{"SHA#withRSA/PSS", "RSASignatureMessagePSSSHA#"},
    OtherName{"SHA#withECDSA", "ECDSASignatureMessageX962SHA#"},
    OtherName{"RSASSA-PSS", "RSASignatureMessagePSSSHA256"},
};

constexpr std::array<std::string_view, 5> kHashes{"1", "224", "256", "384", "512"};

/// JOSE has no names with the shorter hashes.
bool hasHash(const OtherName& other, std::string_view hash) noexcept {
  const bool isJose =
      other.name == "PS#" || other.name == "RS#" || other.name == "ES#" || other.name == "RSA-OAEP-#";
  return !isJose || (hash != "1" && hash != "224");
}

std::string filledIn(std::string_view pattern, std::string_view hash) {
  std::string text{pattern};
  if (const auto at = text.find('#'); at != std::string::npos) text.replace(at, 1, hash);
  return text;
}

/// What counts of a name.
std::string letters(std::string_view name) {
  std::string folded;
  for (const char c : name) {
    if (c == '-' || c == '_' || c == '/') continue;
    folded.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c);
  }
  return folded;
}

bool hasPrefix(std::string_view name, std::string_view prefix) {
  return name.size() > prefix.size() && letters(name.substr(0, prefix.size())) == letters(prefix);
}

/// Calls `take` with each name of other standards and its row, until it answers true.
template <typename Take>
void forEachOtherName(const Take& take) {
  for (const OtherName& other : kOtherNames) {
    for (const std::string_view hash : kHashes) {
      const bool hasNone = other.name.find('#') == std::string_view::npos;
      if ((hasNone || hasHash(other, hash)) && take(filledIn(other.name, hash), other, hash)) return;
      if (hasNone) break;
    }
  }
}

}  // namespace

std::optional<SecKeyAlgorithm> algorithmNamed(std::string_view name, KeyOperation operation) {
  std::string_view platformName = name;
  if (hasPrefix(name, kSecKeyAlgorithmPrefix)) platformName.remove_prefix(kSecKeyAlgorithmPrefix.size());
  const std::string wanted = letters(platformName);
  for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms) {
    if (letters(known.name.substr(kSecKeyAlgorithmPrefix.size())) == wanted) return known.algorithm;
  }
  constexpr std::string_view kMechanismPrefix = "CKM_";
  std::string_view otherName = name;
  if (hasPrefix(name, kMechanismPrefix)) otherName.remove_prefix(kMechanismPrefix.size());
  const std::string meant = letters(otherName);
  std::optional<SecKeyAlgorithm> found;
  forEachOtherName([&](const std::string& known, const OtherName& other, std::string_view hash) {
    if (letters(known) != meant || other.operation.value_or(operation) != operation) return false;
    found = secKeyAlgorithmNamed(filledIn(other.platformName, hash));
    return true;
  });
  return found;
}

std::string suggestedAlgorithm(std::string_view name) {
  std::vector<std::string> names;
  for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms) {
    names.emplace_back(known.name.substr(kSecKeyAlgorithmPrefix.size()));
    names.emplace_back(known.name);
  }
  forEachOtherName([&](const std::string& known, const OtherName&, std::string_view) {
    names.push_back(known);
    return false;
  });
  return suggestionFor(name, names);
}

SecKeyAlgorithm defaultAlgorithm(KeyOperation operation, CertificateKeyType type) noexcept {
  const bool isEC = type == CertificateKeyType::kECPrimeRandom;
  switch (operation) {
    case KeyOperation::kDecrypt:
      return isEC ? SecKeyAlgorithm::kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM
                  : SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1;
    case KeyOperation::kExchangeKeys: return SecKeyAlgorithm::kSecKeyAlgorithmECDHKeyExchangeStandard;
    case KeyOperation::kSign: break;
  }
  return isEC ? SecKeyAlgorithm::kSecKeyAlgorithmECDSASignatureMessageX962SHA256
              : SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256;
}

}  // namespace mirel
