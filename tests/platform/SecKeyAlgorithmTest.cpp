#include "platform/SecKeyAlgorithm.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {
namespace {

constexpr std::initializer_list<const char*> kHashes{"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};
constexpr std::initializer_list<const char*> kHashesWithoutSha1{"SHA224", "SHA256", "SHA384", "SHA512"};
constexpr std::initializer_list<const char*> kAlone{""};

/// The names that a family has, one for each of its hashes.
struct Family {
  const char* front;
  std::initializer_list<const char*> hashes;
  const char* back;
};

/// As the platform's documentation groups them.
constexpr Family kFamilies[] = {
    // RSA without a hash
    {"RSAEncryptionRaw", kAlone, ""},
    {"RSASignatureRaw", kAlone, ""},
    {"RSASignatureDigestPKCS1v15Raw", kAlone, ""},
    // RSA signatures
    {"RSASignatureDigestPKCS1v15", kHashes, ""},
    {"RSASignatureMessagePKCS1v15", kHashes, ""},
    {"RSASignatureDigestPSS", kHashes, ""},
    {"RSASignatureMessagePSS", kHashes, ""},
    // ECDSA
    {"ECDSASignatureRFC4754", kAlone, ""},
    {"ECDSASignatureDigestX962", kAlone, ""},
    {"ECDSASignatureDigestX962", kHashes, ""},
    {"ECDSASignatureMessageX962", kHashes, ""},
    // RSA encryption
    {"RSAEncryptionPKCS1", kAlone, ""},
    {"RSAEncryptionOAEP", kHashes, ""},
    {"RSAEncryptionOAEP", kHashes, "AESGCM"},
    // ECIES
    {"ECIESEncryptionStandardX963", kHashes, "AESGCM"},
    {"ECIESEncryptionCofactorX963", kHashes, "AESGCM"},
    {"ECIESEncryptionStandardVariableIVX963", kHashesWithoutSha1, "AESGCM"},
    {"ECIESEncryptionCofactorVariableIVX963", kHashesWithoutSha1, "AESGCM"},
    // ECDH
    {"ECDHKeyExchangeStandard", kAlone, ""},
    {"ECDHKeyExchangeStandardX963", kHashes, ""},
    {"ECDHKeyExchangeCofactor", kAlone, ""},
    {"ECDHKeyExchangeCofactorX963", kHashes, ""},
};

/// Without the common prefix.
std::vector<std::string> expectedNames() {
  std::vector<std::string> names;
  for (const Family& family : kFamilies) {
    for (const char* hash : family.hashes) names.push_back(std::string{family.front} + hash + family.back);
  }
  return names;
}

TEST(SecKeyAlgorithm, HasTheNamesOfThePlatform) {
  const std::vector<std::string> expected = expectedNames();
  ASSERT_EQ(expected.size(), 76U);
  ASSERT_EQ(kSecKeyAlgorithms.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(kSecKeyAlgorithms[i].name, "kSecKeyAlgorithm" + expected[i]);
  }
}

TEST(SecKeyAlgorithm, ListsThemInTheOrderOfTheEnumeration) {
  for (std::size_t i = 0; i < kSecKeyAlgorithms.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(static_cast<std::size_t>(kSecKeyAlgorithms[i].algorithm), i);
    EXPECT_EQ(nameOf(kSecKeyAlgorithms[i].algorithm), kSecKeyAlgorithms[i].name);
  }
}

TEST(SecKeyAlgorithm, HasTheNameOfItsConstant) {
  using enum SecKeyAlgorithm;
  // The first, the last, and one of each family: that a row of the table did not take its neighbour's name.
  const std::pair<SecKeyAlgorithm, std::string_view> rows[] = {
      {kSecKeyAlgorithmRSAEncryptionRaw, "kSecKeyAlgorithmRSAEncryptionRaw"},
      {kSecKeyAlgorithmRSASignatureRaw, "kSecKeyAlgorithmRSASignatureRaw"},
      {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw"},
      {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1"},
      {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512,
       "kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512"},
      {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, "kSecKeyAlgorithmRSASignatureDigestPSSSHA256"},
      {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, "kSecKeyAlgorithmRSASignatureMessagePSSSHA256"},
      {kSecKeyAlgorithmECDSASignatureRFC4754, "kSecKeyAlgorithmECDSASignatureRFC4754"},
      {kSecKeyAlgorithmECDSASignatureDigestX962, "kSecKeyAlgorithmECDSASignatureDigestX962"},
      {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "kSecKeyAlgorithmECDSASignatureDigestX962SHA384"},
      {kSecKeyAlgorithmECDSASignatureMessageX962SHA224, "kSecKeyAlgorithmECDSASignatureMessageX962SHA224"},
      {kSecKeyAlgorithmRSAEncryptionPKCS1, "kSecKeyAlgorithmRSAEncryptionPKCS1"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA256, "kSecKeyAlgorithmRSAEncryptionOAEPSHA256"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM, "kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM"},
      {kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM,
       "kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM"},
      {kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM,
       "kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM"},
      {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM,
       "kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM"},
      {kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM,
       "kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM"},
      {kSecKeyAlgorithmECDHKeyExchangeStandard, "kSecKeyAlgorithmECDHKeyExchangeStandard"},
      {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1, "kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1"},
      {kSecKeyAlgorithmECDHKeyExchangeCofactor, "kSecKeyAlgorithmECDHKeyExchangeCofactor"},
      {kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512,
       "kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512"},
  };
  for (const auto& [algorithm, name] : rows) EXPECT_EQ(nameOf(algorithm), name);
}

TEST(SecKeyAlgorithmNamed, FindsEachWithItsPrefixAndWithout) {
  std::set<SecKeyAlgorithm> found;
  for (const std::string& name : expectedNames()) {
    SCOPED_TRACE(name);
    const auto algorithm = secKeyAlgorithmNamed("kSecKeyAlgorithm" + name);
    ASSERT_TRUE(algorithm.has_value());
    EXPECT_EQ(nameOf(*algorithm), "kSecKeyAlgorithm" + name);
    EXPECT_EQ(secKeyAlgorithmNamed(name), algorithm);
    found.insert(*algorithm);
  }
  EXPECT_EQ(found.size(), 76U);
}

TEST(SecKeyAlgorithmNamed, FindsNothingElse) {
  const std::string_view rows[] = {
      "",
      "kSecKeyAlgorithm",
      "RSA",
      "RSASignatureRa",
      "RSASignatureRaw2",
      " RSASignatureRaw",
      "RSASignatureRaw\n",
      "rsasignatureraw",
      "KSECKEYALGORITHMRSASignatureRaw",
      "kSecKeyAlgorithmkSecKeyAlgorithmRSASignatureRaw",
      "SecKeyAlgorithmRSASignatureRaw",
      "ECIESEncryptionStandardVariableIVX963SHA1AESGCM",  // that family begins at SHA224
      "ECDSASignatureDigestRFC4754SHA256",                // newer than the systems served
      std::string_view{"RSASignatureRaw\0", 16},
  };
  for (const std::string_view row : rows) EXPECT_EQ(secKeyAlgorithmNamed(row), std::nullopt) << row;
}

}  // namespace
}  // namespace mirel
