#include "Adaptation.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;
using enum AdaptationKind;

/// One step: from an algorithm to the next form. `hash`: what has to be computed, where something has.
struct Step {
  SecKeyAlgorithm from;
  AdaptationKind kind;
  SecKeyAlgorithm to;
  std::optional<Hash> hash = std::nullopt;
};

const Step kSteps[] = {
    // Messages are hashed.
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1, kHash, kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1,
     Hash::kSHA1},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224, kHash,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224, Hash::kSHA224},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, kHash,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256, Hash::kSHA256},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384, kHash,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384, Hash::kSHA384},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512, kHash,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512, Hash::kSHA512},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA1, kHash, kSecKeyAlgorithmRSASignatureDigestPSSSHA1,
     Hash::kSHA1},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA224, kHash, kSecKeyAlgorithmRSASignatureDigestPSSSHA224,
     Hash::kSHA224},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, kHash, kSecKeyAlgorithmRSASignatureDigestPSSSHA256,
     Hash::kSHA256},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA384, kHash, kSecKeyAlgorithmRSASignatureDigestPSSSHA384,
     Hash::kSHA384},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA512, kHash, kSecKeyAlgorithmRSASignatureDigestPSSSHA512,
     Hash::kSHA512},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA1, kHash, kSecKeyAlgorithmECDSASignatureDigestX962SHA1,
     Hash::kSHA1},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA224, kHash, kSecKeyAlgorithmECDSASignatureDigestX962SHA224,
     Hash::kSHA224},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA256, kHash, kSecKeyAlgorithmECDSASignatureDigestX962SHA256,
     Hash::kSHA256},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA384, kHash, kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
     Hash::kSHA384},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA512, kHash, kSecKeyAlgorithmECDSASignatureDigestX962SHA512,
     Hash::kSHA512},
    // Digests for PKCS #1 v1.5 are wrapped, then padded.
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1, kDigestInfo,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, Hash::kSHA1},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224, kDigestInfo,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, Hash::kSHA224},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256, kDigestInfo,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, Hash::kSHA256},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384, kDigestInfo,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, Hash::kSHA384},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512, kDigestInfo,
     kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, Hash::kSHA512},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, kPadPKCS1, kSecKeyAlgorithmRSASignatureRaw},
    // Digests for PSS are encoded at once.
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA1, kEncodePSS, kSecKeyAlgorithmRSASignatureRaw, Hash::kSHA1},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA224, kEncodePSS, kSecKeyAlgorithmRSASignatureRaw, Hash::kSHA224},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, kEncodePSS, kSecKeyAlgorithmRSASignatureRaw, Hash::kSHA256},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA384, kEncodePSS, kSecKeyAlgorithmRSASignatureRaw, Hash::kSHA384},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA512, kEncodePSS, kSecKeyAlgorithmRSASignatureRaw, Hash::kSHA512},
    // Digests for ECDSA stay as they are.
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA1, kAsItIs, kSecKeyAlgorithmECDSASignatureDigestX962,
     Hash::kSHA1},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA224, kAsItIs, kSecKeyAlgorithmECDSASignatureDigestX962,
     Hash::kSHA224},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kAsItIs, kSecKeyAlgorithmECDSASignatureDigestX962,
     Hash::kSHA256},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, kAsItIs, kSecKeyAlgorithmECDSASignatureDigestX962,
     Hash::kSHA384},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, kAsItIs, kSecKeyAlgorithmECDSASignatureDigestX962,
     Hash::kSHA512},
    // Padding is removed after raw decryption.
    {kSecKeyAlgorithmRSAEncryptionPKCS1, kUnpadPKCS1, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1, kDecodeOAEP, kSecKeyAlgorithmRSAEncryptionRaw, Hash::kSHA1},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224, kDecodeOAEP, kSecKeyAlgorithmRSAEncryptionRaw, Hash::kSHA224},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256, kDecodeOAEP, kSecKeyAlgorithmRSAEncryptionRaw, Hash::kSHA256},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, kDecodeOAEP, kSecKeyAlgorithmRSAEncryptionRaw, Hash::kSHA384},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512, kDecodeOAEP, kSecKeyAlgorithmRSAEncryptionRaw, Hash::kSHA512},
    // With a symmetric cipher around the key.
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM, kComposite, kSecKeyAlgorithmRSAEncryptionOAEPSHA1},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM, kComposite, kSecKeyAlgorithmRSAEncryptionOAEPSHA224},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM, kComposite, kSecKeyAlgorithmRSAEncryptionOAEPSHA256},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM, kComposite, kSecKeyAlgorithmRSAEncryptionOAEPSHA384},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM, kComposite, kSecKeyAlgorithmRSAEncryptionOAEPSHA512},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA1AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA224AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA256AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA384AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384},
    {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA224AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA256AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA384AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384},
    {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM, kComposite,
     kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512},
    // With a key derivation behind the exchange.
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1, kComposite, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224, kComposite, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256, kComposite, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384, kComposite, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512, kComposite, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1, kComposite, kSecKeyAlgorithmECDHKeyExchangeCofactor},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224, kComposite, kSecKeyAlgorithmECDHKeyExchangeCofactor},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256, kComposite, kSecKeyAlgorithmECDHKeyExchangeCofactor},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384, kComposite, kSecKeyAlgorithmECDHKeyExchangeCofactor},
    {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512, kComposite, kSecKeyAlgorithmECDHKeyExchangeCofactor},
};

const SecKeyAlgorithm kLowest[] = {
    kSecKeyAlgorithmRSASignatureRaw,          kSecKeyAlgorithmRSAEncryptionRaw,
    kSecKeyAlgorithmECDSASignatureDigestX962, kSecKeyAlgorithmECDSASignatureRFC4754,
    kSecKeyAlgorithmECDHKeyExchangeStandard,  kSecKeyAlgorithmECDHKeyExchangeCofactor,
};

/// By what stands in the name; names without one of these have no hash.
[[nodiscard]] std::optional<Hash> hashInName(std::string_view name) {
  const std::map<std::string_view, Hash> kMarks{{"SHA1", Hash::kSHA1},
                                                {"SHA224", Hash::kSHA224},
                                                {"SHA256", Hash::kSHA256},
                                                {"SHA384", Hash::kSHA384},
                                                {"SHA512", Hash::kSHA512}};
  for (const auto& [mark, hash] : kMarks) {
    if (name.find(mark) != std::string_view::npos) return hash;
  }
  return std::nullopt;
}

TEST(Adaptation, GoesFromEachAlgorithmToTheOneBelow) {
  for (const Step& row : kSteps) {
    SCOPED_TRACE(nameOf(row.from));
    const auto step = nextStep(row.from);
    ASSERT_TRUE(step);
    EXPECT_EQ(step->kind, row.kind);
    EXPECT_EQ(nameOf(step->to), nameOf(row.to));
    EXPECT_EQ(step->hash, row.hash.value_or(step->hash));
  }
}

TEST(Adaptation, EndsAtTheLowestForms) {
  for (const SecKeyAlgorithm algorithm : kLowest) EXPECT_FALSE(nextStep(algorithm)) << nameOf(algorithm);
}

TEST(Adaptation, IsTestedForEveryAlgorithmOnce) {
  std::set<std::string_view> names;
  for (const Step& row : kSteps) names.insert(nameOf(row.from));
  for (const SecKeyAlgorithm algorithm : kLowest) names.insert(nameOf(algorithm));
  EXPECT_EQ(std::size(kSteps) + std::size(kLowest), kSecKeyAlgorithms.size());
  EXPECT_EQ(names.size(), kSecKeyAlgorithms.size());
}

TEST(Adaptation, KnowsWhatATokenIsAskedFor) {
  const std::pair<TKTokenOperation, std::vector<std::string_view>> kBeginnings[] = {
      {TKTokenOperation::kSignData, {"kSecKeyAlgorithmRSASignature", "kSecKeyAlgorithmECDSASignature"}},
      {TKTokenOperation::kDecryptData, {"kSecKeyAlgorithmRSAEncryption", "kSecKeyAlgorithmECIESEncryption"}},
      {TKTokenOperation::kPerformKeyExchange, {"kSecKeyAlgorithmECDHKeyExchange"}},
  };
  std::size_t numTested = 0;
  for (const auto& [operation, beginnings] : kBeginnings) {
    for (const std::string_view beginning : beginnings) {
      for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
        if (!name.starts_with(beginning)) continue;
        EXPECT_EQ(operationOf(algorithm), operation) << name;
        ++numTested;
      }
    }
  }
  EXPECT_EQ(numTested, kSecKeyAlgorithms.size());
}

TEST(Adaptation, KnowsTheHashOfAnAlgorithm) {
  std::size_t numWithout = 0;
  for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
    EXPECT_EQ(hashOf(algorithm), hashInName(name)) << name;
    if (!hashOf(algorithm)) ++numWithout;
  }
  // Raw, PKCS #1 and X9.62 without a hash, RFC 4754, and the two plain exchanges.
  EXPECT_EQ(numWithout, 8U);
}

}  // namespace
}  // namespace mirel::test
