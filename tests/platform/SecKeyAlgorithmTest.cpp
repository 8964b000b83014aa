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
