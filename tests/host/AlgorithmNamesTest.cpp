#include "host/AlgorithmNames.h"

#include <gtest/gtest.h>

#include <cctype>

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;

TEST(AlgorithmNamed, KnowsThePlatformsNamesInAnyCase) {
  for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms) {
    std::string lower{known.name};
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const std::string& name :
         {std::string{known.name}, lower, lower.substr(kSecKeyAlgorithmPrefix.size())})
      EXPECT_EQ(algorithmNamed(name, KeyOperation::kSign), known.algorithm) << name;
  }
}

TEST(AlgorithmNamed, KnowsTheNamesOfOtherStandards) {
  const struct {
    const char* name;
    SecKeyAlgorithm algorithm;
    KeyOperation operation = KeyOperation::kSign;
  } rows[] = {
      {"PS256", kSecKeyAlgorithmRSASignatureMessagePSSSHA256},
      {"ps512", kSecKeyAlgorithmRSASignatureMessagePSSSHA512},
      {"RS384", kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384},
      {"ES256", kSecKeyAlgorithmECDSASignatureMessageX962SHA256},
      {"RSA-OAEP", kSecKeyAlgorithmRSAEncryptionOAEPSHA1, KeyOperation::kDecrypt},
      {"RSA-OAEP-256", kSecKeyAlgorithmRSAEncryptionOAEPSHA256, KeyOperation::kDecrypt},
      {"RSA1_5", kSecKeyAlgorithmRSAEncryptionPKCS1, KeyOperation::kDecrypt},
      {"rsa-pss", kSecKeyAlgorithmRSASignatureMessagePSSSHA256},
      {"sha256WithRSAEncryption", kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256},
      {"sha1withrsaencryption", kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1},
      {"ecdsa-with-SHA384", kSecKeyAlgorithmECDSASignatureMessageX962SHA384},
      {"SHA256-RSA-PKCS-PSS", kSecKeyAlgorithmRSASignatureMessagePSSSHA256},
      {"CKM_SHA256_RSA_PKCS", kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256},
      {"RSA-PKCS", kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
      {"RSA-PKCS", kSecKeyAlgorithmRSAEncryptionPKCS1, KeyOperation::kDecrypt},
      {"CKM_RSA_X_509", kSecKeyAlgorithmRSASignatureRaw},
      {"RSA-X-509", kSecKeyAlgorithmRSAEncryptionRaw, KeyOperation::kDecrypt},
      {"ECDSA-SHA256", kSecKeyAlgorithmECDSASignatureMessageX962SHA256},
      {"ECDH1-DERIVE", kSecKeyAlgorithmECDHKeyExchangeStandard, KeyOperation::kExchangeKeys},
      {"rsa_pss_rsae_sha256", kSecKeyAlgorithmRSASignatureMessagePSSSHA256},
      {"rsa_pkcs1_sha512", kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512},
      {"ecdsa_secp384r1_sha384", kSecKeyAlgorithmECDSASignatureMessageX962SHA384},
      {"SHA256withRSA/PSS", kSecKeyAlgorithmRSASignatureMessagePSSSHA256},
  };
  for (const auto& row : rows) EXPECT_EQ(algorithmNamed(row.name, row.operation), row.algorithm) << row.name;
}

TEST(AlgorithmNamed, KnowsNoOtherName) {
  for (const char* name : {"", "RSA", "PS", "PS1", "PS224", "PS2566", "#", "PS#", "CKM_", "kSecKeyAlgorithm",
                           "PS256 ", "kSecKeyAlgorithmPS256x", "RSA-OAEP-1", "ES255"})
    EXPECT_EQ(algorithmNamed(name, KeyOperation::kSign), std::nullopt) << name;
  EXPECT_EQ(algorithmNamed("RSA-PKCS", KeyOperation::kExchangeKeys), std::nullopt);
}

TEST(SuggestedAlgorithm, IsANameThatIsTaken) {
  EXPECT_EQ(suggestedAlgorithm("RSASignatureMessagePPSSHA256"),
            " (did you mean \"RSASignatureMessagePSSSHA256\"?)");
  EXPECT_EQ(suggestedAlgorithm("ECDSA-SHA265"), " (did you mean \"ECDSA-SHA256\"?)");
  EXPECT_EQ(suggestedAlgorithm("DES"), "");
}

TEST(DefaultAlgorithm, FitsTheTypeOfTheKey) {
  using enum KeyOperation;
  using enum CertificateKeyType;
  EXPECT_EQ(defaultAlgorithm(kSign, kRSA), kSecKeyAlgorithmRSASignatureMessagePSSSHA256);
  EXPECT_EQ(defaultAlgorithm(kSign, kECPrimeRandom), kSecKeyAlgorithmECDSASignatureMessageX962SHA256);
  EXPECT_EQ(defaultAlgorithm(kDecrypt, kRSA), kSecKeyAlgorithmRSAEncryptionPKCS1);
  EXPECT_EQ(defaultAlgorithm(kDecrypt, kECPrimeRandom),
            kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM);
  EXPECT_EQ(defaultAlgorithm(kExchangeKeys, kECPrimeRandom), kSecKeyAlgorithmECDHKeyExchangeStandard);
}

}  // namespace
}  // namespace mirel::test
