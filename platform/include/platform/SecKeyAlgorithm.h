#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "platform/Digest.h"

namespace mirel {

/// The algorithms of the platform's key services: X(name) for each, without the prefix that all names have.
/// The one list: the enumeration, the names and the platform's constants are made of it.
#define MIREL_SEC_KEY_ALGORITHMS(X)                    \
  X(RSAEncryptionRaw)                                  \
  X(RSASignatureRaw)                                   \
  X(RSASignatureDigestPKCS1v15Raw)                     \
  X(RSASignatureDigestPKCS1v15SHA1)                    \
  X(RSASignatureDigestPKCS1v15SHA224)                  \
  X(RSASignatureDigestPKCS1v15SHA256)                  \
  X(RSASignatureDigestPKCS1v15SHA384)                  \
  X(RSASignatureDigestPKCS1v15SHA512)                  \
  X(RSASignatureMessagePKCS1v15SHA1)                   \
  X(RSASignatureMessagePKCS1v15SHA224)                 \
  X(RSASignatureMessagePKCS1v15SHA256)                 \
  X(RSASignatureMessagePKCS1v15SHA384)                 \
  X(RSASignatureMessagePKCS1v15SHA512)                 \
  X(RSASignatureDigestPSSSHA1)                         \
  X(RSASignatureDigestPSSSHA224)                       \
  X(RSASignatureDigestPSSSHA256)                       \
  X(RSASignatureDigestPSSSHA384)                       \
  X(RSASignatureDigestPSSSHA512)                       \
  X(RSASignatureMessagePSSSHA1)                        \
  X(RSASignatureMessagePSSSHA224)                      \
  X(RSASignatureMessagePSSSHA256)                      \
  X(RSASignatureMessagePSSSHA384)                      \
  X(RSASignatureMessagePSSSHA512)                      \
  X(ECDSASignatureRFC4754)                             \
  X(ECDSASignatureDigestX962)                          \
  X(ECDSASignatureDigestX962SHA1)                      \
  X(ECDSASignatureDigestX962SHA224)                    \
  X(ECDSASignatureDigestX962SHA256)                    \
  X(ECDSASignatureDigestX962SHA384)                    \
  X(ECDSASignatureDigestX962SHA512)                    \
  X(ECDSASignatureMessageX962SHA1)                     \
  X(ECDSASignatureMessageX962SHA224)                   \
  X(ECDSASignatureMessageX962SHA256)                   \
  X(ECDSASignatureMessageX962SHA384)                   \
  X(ECDSASignatureMessageX962SHA512)                   \
  X(RSAEncryptionPKCS1)                                \
  X(RSAEncryptionOAEPSHA1)                             \
  X(RSAEncryptionOAEPSHA224)                           \
  X(RSAEncryptionOAEPSHA256)                           \
  X(RSAEncryptionOAEPSHA384)                           \
  X(RSAEncryptionOAEPSHA512)                           \
  X(RSAEncryptionOAEPSHA1AESGCM)                       \
  X(RSAEncryptionOAEPSHA224AESGCM)                     \
  X(RSAEncryptionOAEPSHA256AESGCM)                     \
  X(RSAEncryptionOAEPSHA384AESGCM)                     \
  X(RSAEncryptionOAEPSHA512AESGCM)                     \
  X(ECIESEncryptionStandardX963SHA1AESGCM)             \
  X(ECIESEncryptionStandardX963SHA224AESGCM)           \
  X(ECIESEncryptionStandardX963SHA256AESGCM)           \
  X(ECIESEncryptionStandardX963SHA384AESGCM)           \
  X(ECIESEncryptionStandardX963SHA512AESGCM)           \
  X(ECIESEncryptionCofactorX963SHA1AESGCM)             \
  X(ECIESEncryptionCofactorX963SHA224AESGCM)           \
  X(ECIESEncryptionCofactorX963SHA256AESGCM)           \
  X(ECIESEncryptionCofactorX963SHA384AESGCM)           \
  X(ECIESEncryptionCofactorX963SHA512AESGCM)           \
  X(ECIESEncryptionStandardVariableIVX963SHA224AESGCM) \
  X(ECIESEncryptionStandardVariableIVX963SHA256AESGCM) \
  X(ECIESEncryptionStandardVariableIVX963SHA384AESGCM) \
  X(ECIESEncryptionStandardVariableIVX963SHA512AESGCM) \
  X(ECIESEncryptionCofactorVariableIVX963SHA224AESGCM) \
  X(ECIESEncryptionCofactorVariableIVX963SHA256AESGCM) \
  X(ECIESEncryptionCofactorVariableIVX963SHA384AESGCM) \
  X(ECIESEncryptionCofactorVariableIVX963SHA512AESGCM) \
  X(ECDHKeyExchangeStandard)                           \
  X(ECDHKeyExchangeStandardX963SHA1)                   \
  X(ECDHKeyExchangeStandardX963SHA224)                 \
  X(ECDHKeyExchangeStandardX963SHA256)                 \
  X(ECDHKeyExchangeStandardX963SHA384)                 \
  X(ECDHKeyExchangeStandardX963SHA512)                 \
  X(ECDHKeyExchangeCofactor)                           \
  X(ECDHKeyExchangeCofactorX963SHA1)                   \
  X(ECDHKeyExchangeCofactorX963SHA224)                 \
  X(ECDHKeyExchangeCofactorX963SHA256)                 \
  X(ECDHKeyExchangeCofactorX963SHA384)                 \
  X(ECDHKeyExchangeCofactorX963SHA512)

#define MIREL_ENUMERATOR(name) kSecKeyAlgorithm##name,
/// Named like the platform's constants.
enum class SecKeyAlgorithm { MIREL_SEC_KEY_ALGORITHMS(MIREL_ENUMERATOR) };
#undef MIREL_ENUMERATOR

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

/// The hash in the name of the algorithm; nothing when there is none.
[[nodiscard]] std::optional<Hash> hashOf(SecKeyAlgorithm algorithm) noexcept;

}  // namespace mirel
