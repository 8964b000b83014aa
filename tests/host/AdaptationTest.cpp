#include "Adaptation.h"

#include <gtest/gtest.h>

#include <optional>
#include <set>

#include "host/Algorithms.h"

namespace mirel::test {
namespace {

using enum AdaptationKind;

constexpr Hash kHashes[] = {Hash::kSHA1, Hash::kSHA224, Hash::kSHA256, Hash::kSHA384, Hash::kSHA512};

/// Steps from an algorithm to the next form; names with "*" stand for one with each hash.
struct Steps {
  const char* from;
  AdaptationKind kind;
  const char* to;
  bool tellsTheHash = true;  ///< which has to be computed
  bool hasSha1 = true;
};

constexpr Steps kSteps[] = {
    // Messages are hashed.
    {"RSASignatureMessagePKCS1v15*", kHash, "RSASignatureDigestPKCS1v15*"},
    {"RSASignatureMessagePSS*", kHash, "RSASignatureDigestPSS*"},
    {"ECDSASignatureMessageX962*", kHash, "ECDSASignatureDigestX962*"},
    // Digests for PKCS #1 v1.5 are wrapped, then padded.
    {"RSASignatureDigestPKCS1v15*", kDigestInfo, "RSASignatureDigestPKCS1v15Raw"},
    {"RSASignatureDigestPKCS1v15Raw", kPadPKCS1, "RSASignatureRaw"},
    // Digests for PSS are encoded at once.
    {"RSASignatureDigestPSS*", kEncodePSS, "RSASignatureRaw"},
    // Digests for ECDSA stay as they are.
    {"ECDSASignatureDigestX962*", kAsItIs, "ECDSASignatureDigestX962"},
    // Padding is removed after raw decryption.
    {"RSAEncryptionPKCS1", kUnpadPKCS1, "RSAEncryptionRaw"},
    {"RSAEncryptionOAEP*", kDecodeOAEP, "RSAEncryptionRaw"},
    // With a symmetric cipher around the key.
    {"RSAEncryptionOAEP*AESGCM", kComposite, "RSAEncryptionOAEP*", false},
    {"ECIESEncryptionStandardX963*AESGCM", kComposite, "ECDHKeyExchangeStandardX963*", false},
    {"ECIESEncryptionCofactorX963*AESGCM", kComposite, "ECDHKeyExchangeCofactorX963*", false},
    {"ECIESEncryptionStandardVariableIVX963*AESGCM", kComposite, "ECDHKeyExchangeStandardX963*", false,
     false},
    {"ECIESEncryptionCofactorVariableIVX963*AESGCM", kComposite, "ECDHKeyExchangeCofactorX963*", false,
     false},
    // With a key derivation behind the exchange.
    {"ECDHKeyExchangeStandardX963*", kComposite, "ECDHKeyExchangeStandard", false},
    {"ECDHKeyExchangeCofactorX963*", kComposite, "ECDHKeyExchangeCofactor", false},
};

constexpr const char* kLowest[] = {"RSASignatureRaw",          "RSAEncryptionRaw",
                                   "ECDSASignatureDigestX962", "ECDSASignatureRFC4754",
                                   "ECDHKeyExchangeStandard",  "ECDHKeyExchangeCofactor"};

TEST(Adaptation, GoesFromEachAlgorithmToTheOneBelow) {
  std::set<SecKeyAlgorithm> tested;
  for (const Steps& row : kSteps) {
    for (std::size_t i = row.hasSha1 ? 0 : 1; i < std::size(kHashes); ++i) {
      const std::string name = withHash(row.from, kHashNames[i]);
      SCOPED_TRACE(name);
      const SecKeyAlgorithm from = algorithmNamed(name);
      const auto step = nextStep(from);
      ASSERT_TRUE(step);
      EXPECT_EQ(step->kind, row.kind);
      EXPECT_EQ(step->to, algorithmNamed(withHash(row.to, kHashNames[i])));
      const bool hasHash = std::string_view{row.from}.find('*') != std::string_view::npos;
      if (row.tellsTheHash && hasHash) {
        EXPECT_EQ(step->hash, kHashes[i]);
      }
      tested.insert(from);
      if (!hasHash) break;
    }
  }
  for (const char* name : kLowest) {
    EXPECT_FALSE(nextStep(algorithmNamed(name))) << name;
    tested.insert(algorithmNamed(name));
  }
  EXPECT_EQ(tested.size(), kSecKeyAlgorithms.size()) << "not all algorithms are in the tables";
}

TEST(Adaptation, KnowsWhatATokenIsAskedFor) {
  const std::pair<const char*, TKTokenOperation> kBeginnings[] = {
      {"kSecKeyAlgorithmRSASignature", TKTokenOperation::kSignData},
      {"kSecKeyAlgorithmECDSASignature", TKTokenOperation::kSignData},
      {"kSecKeyAlgorithmRSAEncryption", TKTokenOperation::kDecryptData},
      {"kSecKeyAlgorithmECIESEncryption", TKTokenOperation::kDecryptData},
      {"kSecKeyAlgorithmECDHKeyExchange", TKTokenOperation::kPerformKeyExchange},
  };
  std::size_t numTested = 0;
  for (const auto& [beginning, operation] : kBeginnings) {
    for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
      if (!name.starts_with(beginning)) continue;
      EXPECT_EQ(operationOf(algorithm), operation) << name;
      ++numTested;
    }
  }
  EXPECT_EQ(numTested, kSecKeyAlgorithms.size());
}

TEST(Adaptation, KnowsTheHashOfAnAlgorithm) {
  std::size_t numWithout = 0;
  for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
    std::optional<Hash> hash;
    for (std::size_t i = 0; i < std::size(kHashes); ++i)
      if (name.find(kHashNames[i]) != std::string_view::npos) hash = kHashes[i];
    EXPECT_EQ(hashOf(algorithm), hash) << name;
    if (!hash) ++numWithout;
  }
  // Raw, PKCS #1 and X9.62 without a hash, RFC 4754, and the two plain exchanges.
  EXPECT_EQ(numWithout, 8U);
}

}  // namespace
}  // namespace mirel::test
