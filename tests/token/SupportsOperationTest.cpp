#include <algorithm>
#include <set>

#include "platform/Certificate.h"
#include "token/ClientSessionTest.h"
#include "token/RecordingAlgorithm.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;
using enum TKTokenOperation;

/// Every operation of the platform and one that it does not have.
constexpr TKTokenOperation kOperations[] = {kNone,        kReadData,           kSignData,
                                            kDecryptData, kPerformKeyExchange, TKTokenOperation{5}};

/// All that is supported; each list in the order in which it is searched.
const std::vector<SecKeyAlgorithm> kForSigning{
    kSecKeyAlgorithmRSASignatureRaw, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
    kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
    kSecKeyAlgorithmECDSASignatureDigestX962SHA512};
const std::vector<SecKeyAlgorithm> kForDecrypting{kSecKeyAlgorithmRSAEncryptionRaw,
                                                  kSecKeyAlgorithmRSAEncryptionPKCS1,
                                                  kSecKeyAlgorithmRSAEncryptionOAEPSHA256};
const std::vector<SecKeyAlgorithm> kForKeyExchange{kSecKeyAlgorithmECDHKeyExchangeStandard};

[[nodiscard]] const std::vector<SecKeyAlgorithm>& supportedFor(TKTokenOperation operation) {
  static const std::vector<SecKeyAlgorithm> kNothing;
  switch (operation) {
    case kSignData: return kForSigning;
    case kDecryptData: return kForDecrypting;
    case kPerformKeyExchange: return kForKeyExchange;
    default: return kNothing;
  }
}

[[nodiscard]] std::string traceOf(TKTokenOperation operation, std::string_view algorithm) {
  return std::to_string(static_cast<std::int64_t>(operation)) + " " + std::string{algorithm};
}

/// The token publishes one key, which can do everything.
class SupportsOperation : public ClientSessionTest {
 protected:
  SupportsOperation() {
    publish({key});
    forget();
  }

  [[nodiscard]] bool supports(TKTokenOperation operation, SecKeyAlgorithm algorithm,
                              const Text& keyObjectID = kKey) {
    return session->supportsOperation(session, operation, keyObjectID, FakeKeyAlgorithm{algorithm});
  }

  /// Expects exactly the pairs of the lists above, for the operations of `possible`.
  void expectTable(const std::set<TKTokenOperation>& possible) {
    for (const TKTokenOperation operation : kOperations) {
      const auto& supported = supportedFor(operation);
      for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
        SCOPED_TRACE(traceOf(operation, name));
        const bool isListed = std::count(supported.begin(), supported.end(), algorithm) == 1;
        EXPECT_EQ(supports(operation, algorithm), isListed && possible.contains(operation));
      }
    }
  }

  const std::shared_ptr<MirelCTKTokenKeychainKey> key = newKey(kKey, true);
};

TEST_F(SupportsOperation, AcceptsNinePairsOfOperationAndAlgorithm) {
  expectTable({kSignData, kDecryptData, kPerformKeyExchange});
}

TEST_F(SupportsOperation, NeedsAKeyThatCanSign) {
  key->setCanSign(false);
  expectTable({kDecryptData, kPerformKeyExchange});
}

TEST_F(SupportsOperation, NeedsAKeyThatCanDecrypt) {
  key->setCanDecrypt(false);
  expectTable({kSignData, kPerformKeyExchange});
}

TEST_F(SupportsOperation, NeedsAKeyThatCanExchangeKeys) {
  key->setCanPerformKeyExchange(false);
  expectTable({kSignData, kDecryptData});
}

TEST_F(SupportsOperation, DoesNotLookAtTheTypeOfTheKey) {
  for (const TestKey type : {TestKey::kP256, TestKey::kRsa2048}) {
    const auto mine = newKey(kKey, true, type);
    SCOPED_TRACE(mine->keyType() == CertificateKeyType::kRSA ? "RSA" : "EC");
    publish({mine});
    expectTable({kSignData, kDecryptData, kPerformKeyExchange});
  }
}

TEST_F(SupportsOperation, SearchesItsListsInOrderAfterThePrintableNames) {
  constexpr std::size_t kNumPrintable = 74;
  for (const TKTokenOperation operation : kOperations) {
    SCOPED_TRACE(static_cast<std::int64_t>(operation));
    const RecordingAlgorithm none{false};
    EXPECT_FALSE(session->supportsOperation(session, operation, kKey, none));
    ASSERT_GE(none.askedFor().size(), kNumPrintable);
    const std::vector<SecKeyAlgorithm> behind{none.askedFor().begin() + kNumPrintable, none.askedFor().end()};
    EXPECT_THAT(behind, ElementsAreArray(supportedFor(operation)));
  }
}

TEST_F(SupportsOperation, EndsItsSearchAtTheFirstMatch) {
  const RecordingAlgorithm every{true};
  EXPECT_TRUE(session->supportsOperation(session, kSignData, kKey, every));
  EXPECT_EQ(every.askedFor().size(), 75U);
}

TEST_F(SupportsOperation, AsksForNoSupportedAlgorithmOfAKeyThatCannot) {
  key->setCanSign(false);
  const RecordingAlgorithm every{true};
  EXPECT_FALSE(session->supportsOperation(session, kSignData, kKey, every));
  EXPECT_EQ(every.askedFor().size(), 74U);
}

TEST_F(SupportsOperation, LogsTheAlgorithm) {
  const struct {
    TKTokenOperation operation;
    SecKeyAlgorithm algorithm;
    const char* line;
  } rows[] = {
      {kDecryptData, kSecKeyAlgorithmRSAEncryptionPKCS1, "process: SC_ALGORITHM_RSA_PAD_PKCS1"},
      {kSignData, kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "process: SC_ALGORITHM_ECDSA_HASH_SHA256"},
      // What is not supported too.
      {kDecryptData, kSecKeyAlgorithmRSAEncryptionOAEPSHA384,
       "process: kSecKeyAlgorithmRSAEncryptionOAEPSHA384"},
      {kNone, kSecKeyAlgorithmRSASignatureRaw, "process: kSecKeyAlgorithmRSASignatureRaw"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    log->allLines.clear();
    (void)supports(row.operation, row.algorithm);
    EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCTokenSession-125] ", row.line));
  }
}

TEST_F(SupportsOperation, LogsNoNameOfAnAlgorithmWithoutOne) {
  EXPECT_TRUE(supports(kSignData, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw));
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCTokenSession-125] "));
}

TEST_F(SupportsOperation, LogsAnUnknownKey) {
  EXPECT_FALSE(supports(kSignData, kSecKeyAlgorithmRSASignatureRaw, kNoKey));
  EXPECT_FALSE(supports(kSignData, kSecKeyAlgorithmRSASignatureRaw, Text{}));
  constexpr const char* kLine = "error: [MirelSCTokenSession-121] supportsOperation key not found";
  EXPECT_THAT(log->allLines, ElementsAre(kLine, kLine));
}

TEST_F(SupportsOperation, KnowsNoKeyOfATokenWithoutContents) {
  kit->script->withoutContents = true;
  EXPECT_FALSE(supports(kSignData, kSecKeyAlgorithmRSASignatureRaw));
  EXPECT_THAT(log->allLines, ElementsAre("error: [MirelSCTokenSession-121] supportsOperation key not found"));
}

TEST_F(SupportsOperation, KnowsNoKeyWhenTheTokenHasGone) {
  token.reset();
  EXPECT_FALSE(supports(kSignData, kSecKeyAlgorithmRSASignatureRaw));
  EXPECT_THAT(log->systemErrorLines,
              ElementsAre("[MirelSCTokenSession-121] supportsOperation key not found"));
}

TEST_F(SupportsOperation, KnowsKeysThatAreNotThisSystemsOwn) {
  const auto foreign = kit->allocKeychainKey();
  ASSERT_TRUE(foreign->initWithCertificate(
      systemCertificateParser()->createWithData(Bytes{testCertificate({})}), Text{u"02"}));
  foreign->setCanSign(true);
  publish({key, foreign});
  EXPECT_TRUE(supports(kSignData, kSecKeyAlgorithmRSASignatureRaw, Text{u"02"}));
}

TEST_F(SupportsOperation, NeedsNeitherPinNorCard) {
  EXPECT_EQ(session->authState(), 0);
  base->card = nullptr;
  EXPECT_TRUE(supports(kSignData, kSecKeyAlgorithmRSASignatureRaw));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(SupportsOperation, IsAnsweredByTheReceiver) {
  EXPECT_TRUE(session->supportsOperation(nullptr, kSignData, kKey,
                                         FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}));
}

}  // namespace
}  // namespace mirel::test
