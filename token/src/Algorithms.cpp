#include "Algorithms.h"

#include <array>

#include "platform/Log.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

using enum SecKeyAlgorithm;
using enum TKTokenOperation;

struct CapabilityRow {
  TKTokenOperation operation;
  bool TKTokenKeychainKey::*keyCan;
};

constexpr CapabilityRow kCapabilities[] = {
    {kSignData, &TKTokenKeychainKey::canSign},
    {kDecryptData, &TKTokenKeychainKey::canDecrypt},
    {kPerformKeyExchange, &TKTokenKeychainKey::canPerformKeyExchange},
};

struct AlgorithmRow {
  TKTokenOperation operation;
  SecKeyAlgorithm algorithm;
};

constexpr AlgorithmRow kSupported[] = {
    {kSignData, kSecKeyAlgorithmRSASignatureRaw},
    {kSignData, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA256},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA384},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA512},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionRaw},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionPKCS1},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA256},
    {kPerformKeyExchange, kSecKeyAlgorithmECDHKeyExchangeStandard},
};

/// Oddity: two algorithms more for decryption than are supported.
constexpr AlgorithmRow kNamed[] = {
    {kSignData, kSecKeyAlgorithmRSASignatureRaw},
    {kSignData, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA256},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA384},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA512},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionRaw},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionPKCS1},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA256},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA384},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM},
};

struct PrintableRow {
  SecKeyAlgorithm algorithm;
  const char* cardSideName;  ///< null: the constant's own name is printed
};

/// Oddity: two algorithms of the platform have no row, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw and
/// kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM, so they print nothing.
constexpr std::array<PrintableRow, 74> kPrintable{{
    {kSecKeyAlgorithmRSAEncryptionRaw, nullptr},
    {kSecKeyAlgorithmRSASignatureRaw, nullptr},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1,
     "SC_ALGORITHM_RSA_PAD_PKCS1 | SC_ALGORITHM_RSA_HASH_SHA1"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224,
     "SC_ALGORITHM_RSA_PAD_PKCS1 | SC_ALGORITHM_RSA_HASH_SHA224"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256,
     "SC_ALGORITHM_RSA_PAD_PKCS1 | SC_ALGORITHM_RSA_HASH_SHA256"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384,
     "SC_ALGORITHM_RSA_PAD_PKCS1 | SC_ALGORITHM_RSA_HASH_SHA384"},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512,
     "SC_ALGORITHM_RSA_PAD_PKCS1 | SC_ALGORITHM_RSA_HASH_SHA512"},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512, nullptr},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA1, nullptr},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA224, nullptr},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, nullptr},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA384, nullptr},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA512, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA1, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA224, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA384, nullptr},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA512, nullptr},
    {kSecKeyAlgorithmECDSASignatureRFC4754, nullptr},
    {kSecKeyAlgorithmECDSASignatureDigestX962, nullptr},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA1, "SC_ALGORITHM_ECDSA_HASH_SHA1"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA224, "SC_ALGORITHM_ECDSA_HASH_SHA224"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "SC_ALGORITHM_ECDSA_HASH_SHA256"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "SC_ALGORITHM_ECDSA_HASH_SHA384"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, "SC_ALGORITHM_ECDSA_HASH_SHA512"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA1, nullptr},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA224, nullptr},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA256, nullptr},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA384, nullptr},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA512, nullptr},
    {kSecKeyAlgorithmRSAEncryptionPKCS1, "SC_ALGORITHM_RSA_PAD_PKCS1"},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM, nullptr},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA1AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA224AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA256AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA384AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA224AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA256AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA384AESGCM, nullptr},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeStandard, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeCofactor, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384, nullptr},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512, nullptr},
}};

}  // namespace

bool isSupported(TKTokenOperation operation, const TKTokenKeychainKey& key,
                 const TKTokenKeyAlgorithm& algorithm) noexcept {
  for (const CapabilityRow& row : kCapabilities) {
    if (row.operation == operation && !(key.*row.keyCan)) return false;
  }
  for (const AlgorithmRow& row : kSupported) {
    if (row.operation == operation && algorithm.isAlgorithm(row.algorithm)) return true;
  }
  return false;
}

std::string_view algorithmName(TKTokenOperation operation, const TKTokenKeyAlgorithm& algorithm) noexcept {
  for (const AlgorithmRow& row : kNamed) {
    if (row.operation == operation && algorithm.isAlgorithm(row.algorithm)) return nameOf(row.algorithm);
  }
  return {};
}

void algorithmToPrint(const TKTokenKeyAlgorithm& algorithm, Log& log) noexcept {
  for (const PrintableRow& row : kPrintable) {
    if (!algorithm.isAlgorithm(row.algorithm)) continue;
    log.process(row.cardSideName ? std::string_view{row.cardSideName} : nameOf(row.algorithm));
  }
}

}  // namespace mirel
