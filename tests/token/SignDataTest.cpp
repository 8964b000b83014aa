#include <algorithm>

#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;

constexpr const char* kStart = "default: CTK [MirelSCTokenSession-204] +++START+++";
constexpr const char* kChoice = "default: CTK [MirelSCTokenSession-217] ";
constexpr const char* kNotSupported = "process: [MirelSCTokenSession-230] alogrithm not support, return nil.";

constexpr std::size_t kModulusLen = 256;  // bytes

/// A block of the modulus length, as raw RSA wants it.
[[nodiscard]] Value block() { return patternValue(kModulusLen, 0x20); }

[[nodiscard]] Bytes zeros(std::size_t size) { return Bytes{Value(size)}; }

/// What the module makes of the block.
[[nodiscard]] Bytes signatureOf(const Value& data) {
  return Bytes{resultOf(CKM_RSA_X_509, data, kModulusLen)};
}

class SignData : public LoggedInTest {
 protected:
  [[nodiscard]] Bytes sign(const Value& data, SecKeyAlgorithm algorithm = kSecKeyAlgorithmRSASignatureRaw,
                           TKErrorPointer outError = nullptr) {
    return session->signData(session, Bytes{data}, kKey, FakeKeyAlgorithm{algorithm}, outError);
  }

  /// The line with the result.
  [[nodiscard]] std::string resultLine() const {
    for (const std::string& line : log->allLines) {
      if (line.starts_with("process: isSigned")) return line;
    }
    return "no line with a result";
  }

  /// The key gets another label on the card, and so another name.
  void setKeyLabel(std::string_view label) {
    Object& key = script.object(kPublicKey);
    key = key.with(CKA_LABEL, bytesOf(label));
  }
};

// ---- The good way ----

TEST_F(SignData, GivesTheSignatureOfTheCard) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error), signatureOf(block()));
  EXPECT_EQ(error, kEarlierError);
  EXPECT_THAT(script.openOperations(), IsEmpty());
}

/// What a key can do is for the support check alone.
TEST_F(SignData, DoesNotAskWhetherTheKeyCanSign) {
  const auto key = newKey(kKey, true);
  key->setCanSign(false);
  publish({key});
  ASSERT_FALSE(session->supportsOperation(session, TKTokenOperation::kSignData, kKey,
                                          FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}));
  std::optional<TKError> error;
  EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error), signatureOf(block()));
  EXPECT_FALSE(error);
}

TEST_F(SignData, SignsWithRawRsaInTheSessionOfTheLogin) {
  const Value data = bytesOf("data");
  EXPECT_EQ(sign(data), signatureOf(data));
  EXPECT_THAT(script.callTexts("C_SignInit"), ElementsAre("C_SignInit(9, CKM 3 null 0, 22)"));
  EXPECT_THAT(script.callTexts("C_Sign"), ElementsAre("C_Sign(9, 64617461, room 512)"));
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
}

TEST_F(SignData, LogsItsWay) {
  EXPECT_EQ(sign(bytesOf("data")), signatureOf(bytesOf("data")));
  const std::string keyName = "1234567890ABCDEF_RSA_01_MyKey";
  EXPECT_THAT(
      log->allLines,
      ElementsAre(kStart, kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd, kChoice,
                  "process: kSecKeyAlgorithmRSASignatureRaw",
                  "process: [-[MirelCTKFramework PerformSignHash::::::::]-437] pccAlgName = "
                  "kSecKeyAlgorithmRSASignatureRaw",
                  "process: [-[MirelCTKFramework PerformSignHash::::::::]-462] key ID = 01, public key = 15",
                  "process: [-[MirelCTKFramework PerformSignHash::::::::]-480] keyName = " + keyName,
                  "process: isSigned = 1 dataToSign = {length = 4, bytes = 0x64617461}, signature = {length "
                  "= 256, bytes = 0x67657167 63697d6b 6f6d796f 6b716573 ... 9f9d899f 9b617563 }"));
}

TEST_F(SignData, HandsTheNameOfTheAlgorithmDown) {
  const struct {
    SecKeyAlgorithm algorithm;
    const char* name;
  } rows[] = {
      {kSecKeyAlgorithmRSASignatureRaw, "kSecKeyAlgorithmRSASignatureRaw"},
      {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, "kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw"},
      {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "kSecKeyAlgorithmECDSASignatureDigestX962SHA256"},
      {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "kSecKeyAlgorithmECDSASignatureDigestX962SHA384"},
      {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, "kSecKeyAlgorithmECDSASignatureDigestX962SHA512"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    forget();
    EXPECT_EQ(sign(block(), row.algorithm), signatureOf(block()));
    EXPECT_THAT(log->allLines,
                Contains("process: [-[MirelCTKFramework PerformSignHash::::::::]-437] pccAlgName = " +
                         std::string{row.name}));
  }
}

TEST_F(SignData, ComparesAlgorithmsInOrder) {
  class OneOfTwo final : public TKTokenKeyAlgorithm {
   public:
    [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
      return algorithm == kSecKeyAlgorithmECDSASignatureDigestX962SHA512 ||
             algorithm == kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw;
    }
  };
  (void)session->signData(session, Bytes{block()}, kKey, OneOfTwo{}, nullptr);
  EXPECT_THAT(log->allLines,
              Contains(HasSubstr("pccAlgName = kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw")));
}

TEST_F(SignData, PrintsTheCardSideNameOfAnAlgorithm) {
  (void)sign(block(), kSecKeyAlgorithmECDSASignatureDigestX962SHA384);
  EXPECT_THAT(log->allLines, Contains("process: SC_ALGORITHM_ECDSA_HASH_SHA384"));
}

TEST_F(SignData, PrintsNothingForTheAlgorithmWithoutAPrintableName) {
  EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw), signatureOf(block()));
  ASSERT_GT(log->allLines.size(), 6U);
  EXPECT_EQ(log->allLines[5], kChoice);
  EXPECT_THAT(log->allLines[6], HasSubstr("pccAlgName"));
}

TEST_F(SignData, DescribesDataInItsResultLine) {
  const struct {
    std::size_t size;
    const char* expected;
  } rows[] = {
      {1, "dataToSign = {length = 1, bytes = 0x20}, "},
      {24, "dataToSign = {length = 24, bytes = 0x20272e353c434a51585f666d747b828990979ea5acb3bac1}, "},
      {25,
       "dataToSign = {length = 25, bytes = 0x20272e35 3c434a51 585f666d 747b8289 ... 979ea5ac b3bac1c8 }, "},
  };
  for (const auto& row : rows) {
    forget();
    (void)sign(patternValue(row.size, 0x20));
    EXPECT_THAT(resultLine(), HasSubstr(row.expected));
  }
}

TEST_F(SignData, IsOfTheReceiver) {
  EXPECT_EQ(session->signData(nullptr, Bytes{block()}, kKey,
                              FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}, nullptr),
            signatureOf(block()));
}

TEST_F(SignData, DoesNotUseTheSessionUp) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sign(block()), signatureOf(block()));
  EXPECT_EQ(session->authState(), 1);
  EXPECT_EQ(base->card->context(), true);
}

TEST_F(SignData, NeedsAPinInEverySession) {
  const Client other = newClient();
  std::optional<TKError> error;
  EXPECT_TRUE(other.session
                  ->signData(other.session, Bytes{block()}, kKey,
                             FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}, &error)
                  .isNull());
  EXPECT_EQ(error, tokenError(-9));
  EXPECT_EQ(sign(block()), signatureOf(block()));
}

// ---- Algorithms that are not signed with ----

TEST_F(SignData, SignsWithNoOtherAlgorithm) {
  const std::vector<SecKeyAlgorithm> kSignedWith{
      kSecKeyAlgorithmRSASignatureRaw, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
      kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
      kSecKeyAlgorithmECDSASignatureDigestX962SHA512};
  for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
    SCOPED_TRACE(name);
    if (std::find(kSignedWith.begin(), kSignedWith.end(), algorithm) != kSignedWith.end()) continue;
    forget();
    std::optional<TKError> error;
    EXPECT_TRUE(sign(block(), algorithm, &error).isNull());
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(log->allLines.back(), kNotSupported);
    EXPECT_THAT(script.callTexts(), IsEmpty());
  }
}

TEST_F(SignData, LogsAnAlgorithmThatIsNotSignedWith) {
  EXPECT_TRUE(sign(block(), kSecKeyAlgorithmRSASignatureMessagePSSSHA256).isNull());
  EXPECT_THAT(log->allLines,
              ElementsAre(kStart, kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd, kChoice,
                          "process: kSecKeyAlgorithmRSASignatureMessagePSSSHA256", kNotSupported));
}

// ---- Results that are handed out whatever the provider says ----

TEST_F(SignData, GivesAnEmptySignatureWhenTheProviderRefuses) {
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  std::optional<TKError> error;
  EXPECT_EQ(sign(bytesOf("data"), kSecKeyAlgorithmRSASignatureRaw, &error), zeros(0));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(log->allLines.back(),
            "process: isSigned = 0 dataToSign = {length = 4, bytes = 0x64617461}, signature = {length = 0, "
            "bytes = 0x}");
}

TEST_F(SignData, GivesAnEmptySignatureWithoutAProvider) {
  session->setSp(nullptr);
  std::optional<TKError> error;
  EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error), zeros(0));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(resultLine(), HasSubstr("isSigned = 0 "));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(SignData, GivesZerosForASignatureThatTheCardFailsToMake) {
  for (const char* const function : {"C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    logInAnew();
    script.failCallOf(function, 0, CKR_DEVICE_ERROR);
    std::optional<TKError> error;
    EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error), zeros(kModulusLen));
    EXPECT_EQ(error, std::nullopt);
    EXPECT_THAT(resultLine(), HasSubstr("isSigned = 1 "));
  }
}

TEST_F(SignData, GivesZerosForDataThatTheCardDoesNotTake) {
  EXPECT_EQ(sign(Value{}), zeros(kModulusLen));
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  EXPECT_EQ(sign(patternValue(kModulusLen + 1, 1)), zeros(kModulusLen));
  EXPECT_EQ(script.countOf("C_Sign"), 1U);
}

TEST_F(SignData, GivesZerosForNoData) {
  EXPECT_EQ(
      session->signData(session, Bytes{}, kKey, FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}, nullptr),
      zeros(kModulusLen));
  EXPECT_THAT(resultLine(), HasSubstr("dataToSign = (null), "));
}

TEST_F(SignData, GivesZerosForAKeyWithPssInItsName) {
  setKeyLabel("my pss key");
  const Value digest = patternValue(32, 1);
  EXPECT_EQ(sign(digest), zeros(kModulusLen));
  EXPECT_THAT(resultLine(), HasSubstr("isSigned = 1 "));
  EXPECT_THAT(script.callTexts("C_SignInit"), ElementsAre("C_SignInit(9, CKM 13 [592, 2, 32] 24, 22)"));
}

TEST_F(SignData, GivesAnEmptySignatureForAnEcKey) {
  Object& key = script.object(kPublicKey);
  key = ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1));
  Object& privateKey = script.object(kPrivateKey);
  privateKey = ecPrivateKey(bytesOf("01"), bytesOf("MyKey"), p256Params());
  std::optional<TKError> error;
  EXPECT_EQ(sign(patternValue(32, 1), kSecKeyAlgorithmECDSASignatureDigestX962SHA256, &error), zeros(0));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(resultLine(), HasSubstr("isSigned = 0 "));
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignData, GivesAnEmptySignatureForAKeyOf4096Bits) {
  constexpr std::size_t kLargeModulusLen = 512;
  Object& key = script.object(kPublicKey);
  key = rsaPublicKey(bytesOf("01"), bytesOf("MyKey"), patternValue(kLargeModulusLen, 1));
  Object& privateKey = script.object(kPrivateKey);
  privateKey = rsaPrivateKey(bytesOf("01"), bytesOf("MyKey"), patternValue(kLargeModulusLen, 1));
  std::optional<TKError> error;
  EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error), zeros(0));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(resultLine(), HasSubstr("isSigned = 0 "));
  EXPECT_EQ(script.countOf("C_Sign"), 1U);
}

TEST_F(SignData, NeverGivesMoreThan256Bytes) {
  const struct {
    CK_ULONG length;
    std::size_t given;
  } rows[] = {
      {0, 0},
      {1, 1},
      {255, 255},
      {256, 256},
      // Longer than the caller's room: refused.
      {257, 0},
      {512, 0},
      // Longer than any signature: a failure of the card, answered with as much as a modulus has.
      {513, 256},
      {CK_ULONG{1} << 40U, 256},
      {CK_UNAVAILABLE_INFORMATION, 256},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    script.deviations.claimedResults["C_Sign"] = {row.length, {}};
    std::optional<TKError> error;
    const Bytes signature = sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error);
    EXPECT_FALSE(signature.isNull());
    EXPECT_EQ(signature.size(), row.given);
    EXPECT_EQ(error, std::nullopt);
  }
}

TEST_F(SignData, IsNotMisledByALengthThatAFailureLeavesBehind) {
  for (const CK_ULONG length : {CK_ULONG{0}, CK_ULONG{512}, CK_ULONG{1024}, CK_UNAVAILABLE_INFORMATION}) {
    SCOPED_TRACE(length);
    logInAnew();
    script.deviations.lengthsOnFailure["C_Sign"] = length;
    script.failCallOf("C_Sign", 0, CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(sign(block()), zeros(kModulusLen));
  }
}

// ---- The card is not as it was at the login ----

TEST_F(SignData, GivesAnEmptySignatureWhenTheCardWasPulledAfterThePin) {
  script.pullCard();
  std::optional<TKError> error;
  EXPECT_EQ(sign(block(), kSecKeyAlgorithmRSASignatureRaw, &error), zeros(0));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(resultLine(), HasSubstr("isSigned = 0 "));
  EXPECT_EQ(script.countOf("C_Sign"), 0U);
  leavesOpen({});
}

TEST_F(SignData, DoesNotUseACardThatWasPulledAndInsertedAgain) {
  const Card card = script.card();
  script.pullCard();
  script.insertCard(card);
  EXPECT_EQ(sign(block()), zeros(0));
  EXPECT_EQ(script.countOf("C_Sign"), 0U);
  leavesOpen({});
}

TEST_F(SignData, WorksAgainAfterAnotherLogin) {
  Card card = script.card();
  card.loggedIn = false;
  script.pullCard();
  script.insertCard(card);
  EXPECT_EQ(sign(block()), zeros(0));
  ASSERT_TRUE(login());
  EXPECT_EQ(sign(block()), signatureOf(block()));
  leavesOpen({kLoginSession + 2});
}

TEST_F(SignData, NeedsTheReaderOfTheSessionsCard) {
  for (const std::u16string_view name : {u"Reader B 00", u"Reader A 001", u"reader a 00"}) {
    SCOPED_TRACE(Text{name}.toUtf8());
    base->card = std::make_shared<FakeSmartCard>(Text{name});
    base->card->setContext(true);
    EXPECT_EQ(sign(block()), zeros(0));
    EXPECT_THAT(resultLine(), HasSubstr("isSigned = 0 "));
  }
  EXPECT_EQ(script.countOf("C_Sign"), 0U);
}

TEST_F(SignData, GivesAnEmptySignatureWhenTheKeyHasGoneFromTheCard) {
  script.card().objects.erase(kPublicKey);
  EXPECT_EQ(sign(block()), zeros(0));
  EXPECT_EQ(script.countOf("C_Sign"), 0U);
}

TEST_F(SignData, GivesAnEmptySignatureWhenTheUserWasLoggedOut) {
  script.card().loggedIn = false;
  EXPECT_EQ(sign(block()), zeros(0));
  EXPECT_EQ(script.countOf("C_Sign"), 0U);
}

}  // namespace
}  // namespace mirel::test
