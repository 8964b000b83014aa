#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace mirel {

/// The algorithms of the platform's key services, named like its constants.
enum class SecKeyAlgorithm {
  kSecKeyAlgorithmRSAEncryptionRaw,
  kSecKeyAlgorithmRSASignatureRaw,
  kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
  kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1,
  kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224,
  kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256,
  kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384,
  kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512,
  kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1,
  kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224,
  kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256,
  kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384,
  kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512,
  kSecKeyAlgorithmRSASignatureDigestPSSSHA1,
  kSecKeyAlgorithmRSASignatureDigestPSSSHA224,
  kSecKeyAlgorithmRSASignatureDigestPSSSHA256,
  kSecKeyAlgorithmRSASignatureDigestPSSSHA384,
  kSecKeyAlgorithmRSASignatureDigestPSSSHA512,
  kSecKeyAlgorithmRSASignatureMessagePSSSHA1,
  kSecKeyAlgorithmRSASignatureMessagePSSSHA224,
  kSecKeyAlgorithmRSASignatureMessagePSSSHA256,
  kSecKeyAlgorithmRSASignatureMessagePSSSHA384,
  kSecKeyAlgorithmRSASignatureMessagePSSSHA512,
  kSecKeyAlgorithmECDSASignatureRFC4754,
  kSecKeyAlgorithmECDSASignatureDigestX962,
  kSecKeyAlgorithmECDSASignatureDigestX962SHA1,
  kSecKeyAlgorithmECDSASignatureDigestX962SHA224,
  kSecKeyAlgorithmECDSASignatureDigestX962SHA256,
  kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
  kSecKeyAlgorithmECDSASignatureDigestX962SHA512,
  kSecKeyAlgorithmECDSASignatureMessageX962SHA1,
  kSecKeyAlgorithmECDSASignatureMessageX962SHA224,
  kSecKeyAlgorithmECDSASignatureMessageX962SHA256,
  kSecKeyAlgorithmECDSASignatureMessageX962SHA384,
  kSecKeyAlgorithmECDSASignatureMessageX962SHA512,
  kSecKeyAlgorithmRSAEncryptionPKCS1,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA1,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA224,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA256,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA384,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA512,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM,
  kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorX963SHA1AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorX963SHA224AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorX963SHA256AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorX963SHA384AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM,
  kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA224AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA256AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA384AESGCM,
  kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM,
  kSecKeyAlgorithmECDHKeyExchangeStandard,
  kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1,
  kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224,
  kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256,
  kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384,
  kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512,
  kSecKeyAlgorithmECDHKeyExchangeCofactor,
  kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1,
  kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224,
  kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256,
  kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384,
  kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512,
};

struct SecKeyAlgorithmName {
  SecKeyAlgorithm algorithm;
  std::string_view name;  ///< of the platform's constant
};

/// What all names begin with.
inline constexpr std::string_view kSecKeyAlgorithmPrefix = "kSecKeyAlgorithm";

/// Every algorithm, in the order of the enumeration.
extern const std::array<SecKeyAlgorithmName, 76> kSecKeyAlgorithms;

/// The name of the constant, spelled as the constant.
[[nodiscard]] std::string_view nameOf(SecKeyAlgorithm algorithm) noexcept;

/// The algorithm of that name, with or without the common prefix; nothing when there is none.
[[nodiscard]] std::optional<SecKeyAlgorithm> secKeyAlgorithmNamed(std::string_view name) noexcept;

}  // namespace mirel
