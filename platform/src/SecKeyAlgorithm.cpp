#include "platform/SecKeyAlgorithm.h"

#include <algorithm>

namespace mirel {

using enum SecKeyAlgorithm;

const std::array<SecKeyAlgorithmName, 76> kSecKeyAlgorithms{{
    {kSecKeyAlgorithmRSAEncryptionRaw, "kSecKeyAlgorithmRSAEncryptionRaw"},
    {kSecKeyAlgorithmRSASignatureRaw, "kSecKeyAlgorithmRSASignatureRaw"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512"},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1, "kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1"},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224, "kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224"},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, "kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256"},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384, "kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384"},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512, "kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512"},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA1, "kSecKeyAlgorithmRSASignatureDigestPSSSHA1"},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA224, "kSecKeyAlgorithmRSASignatureDigestPSSSHA224"},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, "kSecKeyAlgorithmRSASignatureDigestPSSSHA256"},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA384, "kSecKeyAlgorithmRSASignatureDigestPSSSHA384"},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA512, "kSecKeyAlgorithmRSASignatureDigestPSSSHA512"},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA1, "kSecKeyAlgorithmRSASignatureMessagePSSSHA1"},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA224, "kSecKeyAlgorithmRSASignatureMessagePSSSHA224"},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, "kSecKeyAlgorithmRSASignatureMessagePSSSHA256"},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA384, "kSecKeyAlgorithmRSASignatureMessagePSSSHA384"},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA512, "kSecKeyAlgorithmRSASignatureMessagePSSSHA512"},
    {kSecKeyAlgorithmECDSASignatureRFC4754, "kSecKeyAlgorithmECDSASignatureRFC4754"},
    {kSecKeyAlgorithmECDSASignatureDigestX962, "kSecKeyAlgorithmECDSASignatureDigestX962"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA1, "kSecKeyAlgorithmECDSASignatureDigestX962SHA1"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA224, "kSecKeyAlgorithmECDSASignatureDigestX962SHA224"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "kSecKeyAlgorithmECDSASignatureDigestX962SHA256"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "kSecKeyAlgorithmECDSASignatureDigestX962SHA384"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, "kSecKeyAlgorithmECDSASignatureDigestX962SHA512"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA1, "kSecKeyAlgorithmECDSASignatureMessageX962SHA1"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA224, "kSecKeyAlgorithmECDSASignatureMessageX962SHA224"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA256, "kSecKeyAlgorithmECDSASignatureMessageX962SHA256"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA384, "kSecKeyAlgorithmECDSASignatureMessageX962SHA384"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA512, "kSecKeyAlgorithmECDSASignatureMessageX962SHA512"},
    {kSecKeyAlgorithmRSAEncryptionPKCS1, "kSecKeyAlgorithmRSAEncryptionPKCS1"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1, "kSecKeyAlgorithmRSAEncryptionOAEPSHA1"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224, "kSecKeyAlgorithmRSAEncryptionOAEPSHA224"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256, "kSecKeyAlgorithmRSAEncryptionOAEPSHA256"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, "kSecKeyAlgorithmRSAEncryptionOAEPSHA384"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512, "kSecKeyAlgorithmRSAEncryptionOAEPSHA512"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM, "kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM, "kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM, "kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM, "kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM, "kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA1AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorX963SHA1AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA224AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorX963SHA224AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA256AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorX963SHA256AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA384AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorX963SHA384AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM,
     "kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA224AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA224AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA256AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA256AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA384AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA384AESGCM"},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM,
     "kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM"},
    {kSecKeyAlgorithmECDHKeyExchangeStandard, "kSecKeyAlgorithmECDHKeyExchangeStandard"},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1, "kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1"},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224, "kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224"},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256, "kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256"},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384, "kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384"},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512, "kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512"},
    {kSecKeyAlgorithmECDHKeyExchangeCofactor, "kSecKeyAlgorithmECDHKeyExchangeCofactor"},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1, "kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1"},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224, "kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224"},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256, "kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256"},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384, "kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384"},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512, "kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512"},
}};

std::string_view nameOf(SecKeyAlgorithm algorithm) noexcept {
  return kSecKeyAlgorithms[static_cast<std::size_t>(algorithm)].name;
}

std::optional<SecKeyAlgorithm> secKeyAlgorithmNamed(std::string_view name) noexcept {
  if (name.starts_with(kSecKeyAlgorithmPrefix)) name.remove_prefix(kSecKeyAlgorithmPrefix.size());
  const auto* const row =
      std::find_if(kSecKeyAlgorithms.begin(), kSecKeyAlgorithms.end(), [&](const SecKeyAlgorithmName& known) {
        return known.name.substr(kSecKeyAlgorithmPrefix.size()) == name;
      });
  return row == kSecKeyAlgorithms.end() ? std::nullopt : std::optional{row->algorithm};
}

}  // namespace mirel
