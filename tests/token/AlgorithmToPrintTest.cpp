#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/RecordingLog.h"
#include "token/FakeKeyAlgorithm.h"
#include "token/MirelSCTokenSession.h"
#include "token/RecordingAlgorithm.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;

struct Row {
  SecKeyAlgorithm algorithm;
  const char* printed;
};

/// In the order in which they are tested.
const Row kRows[] = {
    {kSecKeyAlgorithmRSAEncryptionRaw, "kSecKeyAlgorithmRSAEncryptionRaw"},
    {kSecKeyAlgorithmRSASignatureRaw, "kSecKeyAlgorithmRSASignatureRaw"},
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
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA1, "SC_ALGORITHM_ECDSA_HASH_SHA1"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA224, "SC_ALGORITHM_ECDSA_HASH_SHA224"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "SC_ALGORITHM_ECDSA_HASH_SHA256"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "SC_ALGORITHM_ECDSA_HASH_SHA384"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, "SC_ALGORITHM_ECDSA_HASH_SHA512"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA1, "kSecKeyAlgorithmECDSASignatureMessageX962SHA1"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA224, "kSecKeyAlgorithmECDSASignatureMessageX962SHA224"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA256, "kSecKeyAlgorithmECDSASignatureMessageX962SHA256"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA384, "kSecKeyAlgorithmECDSASignatureMessageX962SHA384"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA512, "kSecKeyAlgorithmECDSASignatureMessageX962SHA512"},
    {kSecKeyAlgorithmRSAEncryptionPKCS1, "SC_ALGORITHM_RSA_PAD_PKCS1"},
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
};

[[nodiscard]] std::vector<std::string> printedOf(const TKTokenKeyAlgorithm& algorithm) {
  RecordingLog log;
  algorithmToPrint(algorithm, log);
  return log.allLines;
}

TEST(AlgorithmToPrint, WritesTheNameOfEachRowToTheProcessLog) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.printed);
    EXPECT_THAT(printedOf(FakeKeyAlgorithm{row.algorithm}),
                ElementsAre(std::string{"process: "} + row.printed));
  }
}

TEST(AlgorithmToPrint, Has74Rows) {
  const RecordingAlgorithm algorithm{false};
  EXPECT_THAT(printedOf(algorithm), IsEmpty());
  EXPECT_EQ(algorithm.askedFor().size(), 74U);
}

TEST(AlgorithmToPrint, TestsEveryRowInOrder) {
  const RecordingAlgorithm algorithm{true};
  std::vector<std::string> expected;
  std::vector<SecKeyAlgorithm> asked;
  for (const Row& row : kRows) {
    expected.push_back(std::string{"process: "} + row.printed);
    asked.push_back(row.algorithm);
  }
  EXPECT_EQ(printedOf(algorithm), expected);
  EXPECT_EQ(algorithm.askedFor(), asked);
}

TEST(AlgorithmToPrint, PrintsNothingForTheTwoAlgorithmsWithoutARow) {
  const std::set<SecKeyAlgorithm> kGaps{kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
                                        kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM};
  std::set<SecKeyAlgorithm> silent;
  for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
    if (printedOf(FakeKeyAlgorithm{algorithm}).empty()) silent.insert(algorithm);
  }
  EXPECT_EQ(silent, kGaps);
}

}  // namespace
}  // namespace mirel::test
