#include "Algorithms.h"

#include <algorithm>
#include <iterator>

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
  bool isSupported = true;  ///< what the system is told
};

constexpr AlgorithmRow kAlgorithms[] = {
    {kSignData, kSecKeyAlgorithmRSASignatureRaw},
    {kSignData, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA256},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA384},
    {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA512},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionRaw},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionPKCS1},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA256},
    // Oddity: not supported, and yet decrypted with when somebody asks for it.
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA384, false},
    {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM, false},
    {kPerformKeyExchange, kSecKeyAlgorithmECDHKeyExchangeStandard},
};

/// Oddity: these two alone are not looked for, so they print nothing.
constexpr SecKeyAlgorithm kNotPrinted[] = {
    kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
    kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM,
};

struct CardSideName {
  SecKeyAlgorithm algorithm;
  std::string_view name;
};

/// Oddity: these print the name that card software has for them. All others print the constant's own name.
constexpr CardSideName kCardSideNames[] = {
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
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA1, "SC_ALGORITHM_ECDSA_HASH_SHA1"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA224, "SC_ALGORITHM_ECDSA_HASH_SHA224"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "SC_ALGORITHM_ECDSA_HASH_SHA256"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "SC_ALGORITHM_ECDSA_HASH_SHA384"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, "SC_ALGORITHM_ECDSA_HASH_SHA512"},
    {kSecKeyAlgorithmRSAEncryptionPKCS1, "SC_ALGORITHM_RSA_PAD_PKCS1"},
};

bool isPrinted(SecKeyAlgorithm algorithm) noexcept {
  return std::ranges::find(kNotPrinted, algorithm) == std::end(kNotPrinted);
}

std::string_view printedName(const SecKeyAlgorithmName& algorithm) noexcept {
  const auto* const row = std::ranges::find(kCardSideNames, algorithm.algorithm, &CardSideName::algorithm);
  return row == std::end(kCardSideNames) ? algorithm.name : row->name;
}

}  // namespace

bool isSupported(TKTokenOperation operation, const TKTokenKeychainKey& key,
                 const TKTokenKeyAlgorithm& algorithm) noexcept {
  for (const CapabilityRow& row : kCapabilities) {
    if (row.operation == operation && !(key.*row.keyCan)) return false;
  }
  for (const AlgorithmRow& row : kAlgorithms) {
    if (row.operation == operation && row.isSupported && algorithm.isAlgorithm(row.algorithm)) return true;
  }
  return false;
}

std::string_view algorithmName(TKTokenOperation operation, const TKTokenKeyAlgorithm& algorithm) noexcept {
  for (const AlgorithmRow& row : kAlgorithms) {
    if (row.operation == operation && algorithm.isAlgorithm(row.algorithm)) return nameOf(row.algorithm);
  }
  return {};
}

void algorithmToPrint(const TKTokenKeyAlgorithm& algorithm, Log& log) noexcept {
  for (const SecKeyAlgorithmName& candidate : kSecKeyAlgorithms) {
    if (isPrinted(candidate.algorithm) && algorithm.isAlgorithm(candidate.algorithm)) {
      log.process(printedName(candidate));
    }
  }
}

}  // namespace mirel
