#include <algorithm>

#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;

constexpr const char* kStart = "default: CTK [MirelSCTokenSession-255] +++START+++";
constexpr const char* kChoice = "default: CTK [MirelSCTokenSession-271] ";

const std::vector<SecKeyAlgorithm> kDecryptedWith{
    kSecKeyAlgorithmRSAEncryptionRaw, kSecKeyAlgorithmRSAEncryptionPKCS1,
    kSecKeyAlgorithmRSAEncryptionOAEPSHA256, kSecKeyAlgorithmRSAEncryptionOAEPSHA384,
    kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM};

const Bytes kEmpty{Value{}};

[[nodiscard]] Value plainText() { return bytesOf("attack at dawn"); }

class DecryptData : public LoggedInTest {
 protected:
  [[nodiscard]] Bytes decrypt(const Value& cipher,
                              SecKeyAlgorithm algorithm = kSecKeyAlgorithmRSAEncryptionPKCS1,
                              TKErrorPointer outError = nullptr) {
    return session->decryptData(session, Bytes{cipher}, kKey, FakeKeyAlgorithm{algorithm}, outError);
  }
};

// ---- The good way ----

TEST_F(DecryptData, GivesThePlainText) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_EQ(decrypt(cipherOf(plainText()), kSecKeyAlgorithmRSAEncryptionPKCS1, &error), Bytes{plainText()});
  EXPECT_EQ(error, kEarlierError);
  EXPECT_THAT(script.openOperations(), IsEmpty());
}

TEST_F(DecryptData, DecryptsByPkcs1InTheSessionOfTheLoginWhateverTheAlgorithm) {
  for (const SecKeyAlgorithm algorithm : kDecryptedWith) {
    SCOPED_TRACE(nameOf(algorithm));
    forget();
    EXPECT_EQ(decrypt(cipherOf(plainText()), algorithm), Bytes{plainText()});
    EXPECT_THAT(script.callTexts("C_DecryptInit"), ElementsAre("C_DecryptInit(9, CKM 1 null 0, 22)"));
    EXPECT_EQ(script.countOf("C_Decrypt"), 1U);
    EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
    EXPECT_EQ(script.countOf("C_Login"), 0U);
  }
}

TEST_F(DecryptData, HandsTheCipherTextDown) {
  script.deviations.plainText = plainText();
  EXPECT_EQ(decrypt({0x01, 0x02, 0xFF}), Bytes{plainText()});
  EXPECT_THAT(script.callTexts("C_Decrypt"), ElementsAre("C_Decrypt(9, 0102FF, room 256)"));
}

TEST_F(DecryptData, LogsItsWay) {
  script.deviations.plainText = plainText();
  (void)decrypt({0x01, 0x02, 0xFF});
  EXPECT_THAT(
      log->allLines,
      ElementsAre(kStart, kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd, kChoice,
                  "process: SC_ALGORITHM_RSA_PAD_PKCS1",
                  "process: [MirelSCTokenSession-287] decryptData 01 {length = 3, bytes = 0x0102ff} "
                  "algName kSecKeyAlgorithmRSAEncryptionPKCS1",
                  "process: [MirelCTKFramework-607] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]"));
}

TEST_F(DecryptData, HandsTheNameOfTheAlgorithmDown) {
  const struct {
    SecKeyAlgorithm algorithm;
    const char* line;
  } rows[] = {
      {kSecKeyAlgorithmRSAEncryptionRaw, "algName kSecKeyAlgorithmRSAEncryptionRaw"},
      {kSecKeyAlgorithmRSAEncryptionPKCS1, "algName kSecKeyAlgorithmRSAEncryptionPKCS1"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA256, "algName kSecKeyAlgorithmRSAEncryptionOAEPSHA256"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, "algName kSecKeyAlgorithmRSAEncryptionOAEPSHA384"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM,
       "algName kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM"},
  };
  script.deviations.plainText = plainText();
  for (const auto& row : rows) {
    forget();
    EXPECT_EQ(decrypt({0x01}, row.algorithm), Bytes{plainText()});
    EXPECT_THAT(log->allLines,
                Contains("process: [MirelSCTokenSession-287] decryptData 01 {length = 1, bytes "
                         "= 0x01} " +
                         std::string{row.line}));
  }
}

TEST_F(DecryptData, DecryptsWithTwoAlgorithmsThatAreNotSupported) {
  for (const SecKeyAlgorithm algorithm :
       {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM}) {
    EXPECT_FALSE(session->supportsOperation(session, TKTokenOperation::kDecryptData, kKey,
                                            FakeKeyAlgorithm{algorithm}));
    EXPECT_EQ(decrypt(cipherOf(plainText()), algorithm), Bytes{plainText()});
  }
}

TEST_F(DecryptData, ComparesAlgorithmsInOrder) {
  class OneOfTwo final : public TKTokenKeyAlgorithm {
   public:
    [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
      return algorithm == kSecKeyAlgorithmRSAEncryptionOAEPSHA384 ||
             algorithm == kSecKeyAlgorithmRSAEncryptionPKCS1;
    }
  };
  (void)session->decryptData(session, Bytes{cipherOf(plainText())}, kKey, OneOfTwo{}, nullptr);
  EXPECT_THAT(log->allLines, Contains(HasSubstr("algName kSecKeyAlgorithmRSAEncryptionPKCS1")));
}

TEST_F(DecryptData, DescribesALongCipherText) {
  script.deviations.plainText = plainText();
  (void)decrypt(patternValue(256, 0x20));
  EXPECT_THAT(log->allLines,
              Contains(HasSubstr("{length = 256, bytes = 0x20272e35 3c434a51 585f666d 747b8289 ... e8eff6fd "
                                 "040b1219 } algName")));
}

TEST_F(DecryptData, KeepsThePlainTextOutOfTheLines) {
  script.deviations.plainText = bytesOf("a very secret text");
  EXPECT_EQ(decrypt({0x01}), Bytes{bytesOf("a very secret text")});
  for (const std::string& line : log->allLines) {
    EXPECT_THAT(line, ::testing::Not(HasSubstr("secret")));
    EXPECT_THAT(line, ::testing::Not(HasSubstr("736563726574")));
  }
}

TEST_F(DecryptData, DoesNotUseTheSessionUp) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(decrypt(cipherOf(plainText())), Bytes{plainText()});
  EXPECT_EQ(session->authState(), 1);
  EXPECT_EQ(base->card->context(), true);
}

TEST_F(DecryptData, NeedsAPinInEverySession) {
  const Client other = newClient();
  std::optional<TKError> error;
  EXPECT_TRUE(other.session
                  ->decryptData(other.session, Bytes{cipherOf(plainText())}, kKey,
                                FakeKeyAlgorithm{kSecKeyAlgorithmRSAEncryptionPKCS1}, &error)
                  .isNull());
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(DecryptData, GivesAnEmptyPlainText) { EXPECT_EQ(decrypt(cipherOf({})), kEmpty); }

TEST_F(DecryptData, NeverGivesMoreThan2000Bytes) {
  const struct {
    std::size_t length;
    std::size_t given;
  } rows[] = {{1999, 1999}, {2000, 2000}, {2001, 0}, {5000, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    // A modulus long enough to announce that much room.
    for (const CK_OBJECT_HANDLE handle : {kPublicKey, kPrivateKey}) {
      Object& key = script.object(handle);
      key = key.with(CKA_MODULUS, patternValue(handle == kPublicKey ? 256 : 5011, 1));
    }
    const Value plain = patternValue(row.length, 1);
    script.deviations.plainText = plain;
    std::optional<TKError> error;
    EXPECT_EQ(decrypt({0x01}, kSecKeyAlgorithmRSAEncryptionRaw, &error),
              row.given > 0 ? Bytes{plain} : kEmpty);
    EXPECT_EQ(error, std::nullopt);
  }
}

TEST_F(DecryptData, IsNotMisledByALengthThatTheModuleClaims) {
  for (const CK_ULONG length : {CK_ULONG{2001}, CK_ULONG{1} << 40U, CK_UNAVAILABLE_INFORMATION}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Decrypt"] = {length, {}};
    EXPECT_EQ(decrypt(cipherOf(plainText())), kEmpty);
  }
}

// ---- Algorithms that are not decrypted with ----

TEST_F(DecryptData, DecryptsWithNoOtherAlgorithmAndSaysNothing) {
  for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
    SCOPED_TRACE(name);
    if (std::find(kDecryptedWith.begin(), kDecryptedWith.end(), algorithm) != kDecryptedWith.end()) continue;
    forget();
    std::optional<TKError> error;
    EXPECT_TRUE(decrypt(cipherOf(plainText()), algorithm, &error).isNull());
    EXPECT_EQ(error, std::nullopt);
    EXPECT_THAT(log->allLines, ::testing::Not(Contains(HasSubstr("287"))));
    EXPECT_THAT(script.callTexts(), IsEmpty());
  }
}

TEST_F(DecryptData, LogsNoMoreThanTheNameOfAnAlgorithmThatIsNotDecryptedWith) {
  EXPECT_TRUE(decrypt(cipherOf(plainText()), kSecKeyAlgorithmRSAEncryptionOAEPSHA512).isNull());
  EXPECT_THAT(log->allLines,
              ElementsAre(kStart, kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd, kChoice,
                          "process: kSecKeyAlgorithmRSAEncryptionOAEPSHA512"));
}

// ---- Results that are handed out whatever the provider says ----

TEST_F(DecryptData, GivesAnEmptyPlainTextWhenTheCardFails) {
  for (const char* const function :
       {"C_FindObjectsInit", "C_GetAttributeValue", "C_DecryptInit", "C_Decrypt"}) {
    SCOPED_TRACE(function);
    logInAnew();
    script.failCallOf(function, 0, CKR_DEVICE_ERROR);
    std::optional<TKError> error;
    EXPECT_EQ(decrypt(cipherOf(plainText()), kSecKeyAlgorithmRSAEncryptionPKCS1, &error), kEmpty);
    EXPECT_EQ(error, std::nullopt);
  }
}

TEST_F(DecryptData, GivesAnEmptyPlainTextForACipherTextThatTheCardDoesNotTake) {
  for (const Value& cipher : {Value{}, Value{0x01}, patternValue(256, 1), patternValue(257, 1)}) {
    SCOPED_TRACE(cipher.size());
    EXPECT_EQ(decrypt(cipher), kEmpty);
  }
  EXPECT_EQ(session->decryptData(session, Bytes{}, kKey, FakeKeyAlgorithm{kSecKeyAlgorithmRSAEncryptionPKCS1},
                                 nullptr),
            kEmpty);
}

TEST_F(DecryptData, GivesAnEmptyPlainTextWithoutAProvider) {
  session->setSp(nullptr);
  std::optional<TKError> error;
  EXPECT_EQ(decrypt(cipherOf(plainText()), kSecKeyAlgorithmRSAEncryptionPKCS1, &error), kEmpty);
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(DecryptData, GivesAnEmptyPlainTextForAnEcKey) {
  Object& key = script.object(kPublicKey);
  key = ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1));
  Object& privateKey = script.object(kPrivateKey);
  privateKey = ecPrivateKey(bytesOf("01"), bytesOf("MyKey"), p256Params());
  EXPECT_EQ(decrypt(cipherOf(plainText())), kEmpty);
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

// ---- The card is not as it was at the login ----

TEST_F(DecryptData, GivesAnEmptyPlainTextWhenTheCardWasPulledAfterThePin) {
  script.pullCard();
  std::optional<TKError> error;
  EXPECT_EQ(decrypt(cipherOf(plainText()), kSecKeyAlgorithmRSAEncryptionPKCS1, &error), kEmpty);
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(script.countOf("C_Decrypt"), 0U);
  leavesOpen({});
}

TEST_F(DecryptData, WorksAgainAfterAnotherLogin) {
  Card card = script.card();
  card.loggedIn = false;
  script.pullCard();
  script.insertCard(card);
  EXPECT_EQ(decrypt(cipherOf(plainText())), kEmpty);
  ASSERT_TRUE(login());
  EXPECT_EQ(decrypt(cipherOf(plainText())), Bytes{plainText()});
  leavesOpen({kLoginSession + 2});
}

TEST_F(DecryptData, NeedsTheReaderOfTheSessionsCard) {
  base->card = std::make_shared<FakeSmartCard>(Text{u"Reader B 00"});
  base->card->setContext(true);
  EXPECT_EQ(decrypt(cipherOf(plainText())), kEmpty);
  EXPECT_EQ(script.countOf("C_Decrypt"), 0U);
}

TEST_F(DecryptData, LogsAKeyThatHasGoneFromTheCard) {
  script.card().objects.erase(kPublicKey);
  EXPECT_EQ(decrypt(cipherOf(plainText())), kEmpty);
  EXPECT_EQ(log->allLines.back(), "error: pAsymKeyInfo is nil");
  EXPECT_EQ(script.countOf("C_Decrypt"), 0U);
}

}  // namespace
}  // namespace mirel::test
