/// Signing and decrypting after a login.

#include <algorithm>

#include "support/Values.h"
#include "token/KeyOperations.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

using enum SecKeyAlgorithm;

constexpr std::size_t kModulusLen = 256;  // bytes

[[nodiscard]] Bytes zeros(std::size_t size) { return Bytes{Value(size)}; }

/// The lines for a key that may be used.
[[nodiscard]] std::vector<std::string> linesUpToTheChoice(const KeyOperation& operation) {
  return {operation.start,   kGeneralStart, kAuthenticatedStart,
          kAuthenticatedEnd, kGeneralEnd,   operation.choice};
}

class KeyUse : public LoggedInTest, public ::testing::WithParamInterface<KeyOperation> {
 protected:
  [[nodiscard]] Bytes use(FakeClient& of, const TKTokenKeyAlgorithm& algorithm,
                          TKErrorPointer outError = nullptr) {
    return useKey(of, GetParam(), algorithm, outError);
  }
  [[nodiscard]] Bytes use(TKErrorPointer outError = nullptr) {
    return use(*client, FakeKeyAlgorithm{GetParam().algorithm}, outError);
  }
  [[nodiscard]] Bytes result() const { return Bytes{GetParam().result}; }

  /// An empty answer without an error, and no use of the key on the card.
  void expectEmpty() {
    for (const auto& before : kErrorsBefore) {
      std::optional<TKError> error = before;
      EXPECT_EQ(use(&error), zeros(0));
      EXPECT_EQ(error, before);
    }
    EXPECT_EQ(script.countOf(GetParam().function), 0U);
  }
};

// ---- The good way ----

TEST_P(KeyUse, GivesTheResultOfTheCardInTheSessionOfTheLoginAndAsksThePlatformForNoMore) {
  for (const auto& before : kErrorsBefore) {
    forget();
    std::optional<TKError> error = before;
    EXPECT_EQ(use(&error), result());
    EXPECT_EQ(error, before);
    EXPECT_THAT(script.callTexts(std::string{GetParam().function} + "Init"),
                ElementsAre(GetParam().initCall));
    EXPECT_EQ(script.countOf(GetParam().function), 1U);
    EXPECT_EQ(script.countOf("C_Login") + script.countOf("C_OpenSession"), 0U);
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(client->core->authState(), 1) << "the session is not used up";
    EXPECT_THAT(calls, ElementsAre("session.keyForObjectID 01", "session.smartCard", "card.hasContext",
                                   "session.smartCard", "card.name"));
  }
}

TEST_P(KeyUse, DoesNotAskWhatTheKeyCanDo) {
  MirelCTKTokenKeychainKey key;
  key.objectID = kKey;
  publish({key});
  EXPECT_EQ(use(), result());
}

TEST_P(KeyUse, NeedsAPinInEverySession) {
  FakeClient other{services(), *token};
  std::optional<TKError> error;
  EXPECT_TRUE(use(other, FakeKeyAlgorithm{GetParam().algorithm}, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
  EXPECT_EQ(use(), result());
}

TEST_P(KeyUse, HandsTheNameOfTheAlgorithmDown) {
  for (const SecKeyAlgorithm algorithm : GetParam().algorithms) {
    const std::string name{nameOf(algorithm)};
    SCOPED_TRACE(name);
    forget();
    EXPECT_EQ(use(*client, FakeKeyAlgorithm{algorithm}), result());
    EXPECT_THAT(log->allLines, Contains(::testing::AnyOf(::testing::EndsWith("] pccAlgName = " + name),
                                                         ::testing::EndsWith(" algName " + name))));
  }
}

TEST_P(KeyUse, LooksForItsAlgorithmsInOrderAfterThePrintedNames) {
  constexpr std::size_t kNumPrinted = 74;
  const FakeKeyAlgorithm none{FakeKeyAlgorithm::Is::kNone};
  EXPECT_TRUE(use(*client, none).isNull());
  ASSERT_GE(none.askedFor.size(), kNumPrinted);
  EXPECT_EQ((std::vector<SecKeyAlgorithm>{none.askedFor.begin() + kNumPrinted, none.askedFor.end()}),
            GetParam().algorithms);
  const FakeKeyAlgorithm every{FakeKeyAlgorithm::Is::kEvery};
  EXPECT_FALSE(use(*client, every).isNull());
  EXPECT_EQ(every.askedFor.size(), kNumPrinted + 1);
}

TEST_P(KeyUse, AnswersNothingAndNoErrorToAnotherAlgorithm) {
  auto lines = linesUpToTheChoice(GetParam());
  lines.emplace_back("process: kSecKeyAlgorithmRSASignatureMessagePSSSHA256");
  if (GetParam().notSupported) lines.emplace_back(GetParam().notSupported);
  for (const auto& before : kErrorsBefore) {
    forget();
    std::optional<TKError> error = before;
    const FakeKeyAlgorithm another{kSecKeyAlgorithmRSASignatureMessagePSSSHA256};
    EXPECT_TRUE(use(*client, another, &error).isNull());
    EXPECT_EQ(error, before);
    EXPECT_EQ(log->allLines, lines);
    EXPECT_THAT(script.callTexts(), IsEmpty());
  }
}

// ---- Answers that are handed out whatever the provider says ----

TEST_P(KeyUse, GivesAnEmptyAnswerWithoutAProviderAndAsksNobodyForAReader) {
  client->core->setSp(nullptr);
  EXPECT_EQ(use(), zeros(0));
  EXPECT_THAT(calls, ElementsAre("session.keyForObjectID 01", "session.smartCard", "card.hasContext"));
  expectEmpty();
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_P(KeyUse, GivesAnEmptyAnswerWhereTheProviderRefuses) {
  client->platform.card.readerName = Text{u"Reader B 00"};
  expectEmpty();
  client->platform.card.readerName = Text{kReader};
  script.card().objects.erase(kPublicKey);
  expectEmpty();
}

TEST_P(KeyUse, NeedsAnotherLoginWhenTheCardWasPulledAfterThePinAndInsertedAgain) {
  Card card = script.card();
  card.loggedIn = false;
  script.pullCard();
  expectEmpty();
  script.insertCard(card);
  expectEmpty();
  ASSERT_TRUE(client->login());
  EXPECT_EQ(use(), result());
  leavesOpen({kLoginSession + 2});
}

INSTANTIATE_TEST_SUITE_P(Key, KeyUse, ::testing::ValuesIn(keyOperations()), nameOfParameter);

// ---- Signing ----

class SignData : public LoggedInTest {
 protected:
  /// The line with the result.
  [[nodiscard]] std::string resultLine() const {
    const auto& all = log->allLines;
    const auto found = std::find_if(all.rbegin(), all.rend(), [](const std::string& line) {
      return line.starts_with("process: isSigned");
    });
    return found == all.rend() ? "no line with a result" : *found;
  }
};

TEST_F(SignData, LogsItsWay) {
  EXPECT_EQ(client->sign(bytesOf("data")), Bytes{resultOf(CKM_RSA_X_509, bytesOf("data"), kModulusLen)});
  EXPECT_THAT(script.callTexts("C_Sign"), ElementsAre("C_Sign(9, 64617461, room 512)"));
  EXPECT_EQ(
      log->allLines,
      inOrder({linesUpToTheChoice(keyOperations()[0]),
               {"process: kSecKeyAlgorithmRSASignatureRaw",
                "process: [-[MirelCTKFramework PerformSignHash::::::::]-437] pccAlgName = "
                "kSecKeyAlgorithmRSASignatureRaw",
                "process: [-[MirelCTKFramework PerformSignHash::::::::]-462] key ID = 01, public key = 15",
                "process: [-[MirelCTKFramework PerformSignHash::::::::]-480] keyName = "
                "1234567890ABCDEF_RSA_01_MyKey",
                "process: isSigned = 1 dataToSign = {length = 4, bytes = 0x64617461}, signature = {length "
                "= 256, bytes = 0x67657167 63697d6b 6f6d796f 6b716573 ... 9f9d899f 9b617563 }"}}));
}

TEST_F(SignData, DescribesDataInItsResultLineAndGivesZerosForNone) {
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
    (void)client->sign(patternValue(row.size, 0x20));
    EXPECT_THAT(resultLine(), HasSubstr(row.expected));
  }
  const FakeKeyAlgorithm raw{kSecKeyAlgorithmRSASignatureRaw};
  EXPECT_EQ(client->core->signData(client->platform, Bytes{}, kKey, raw, nullptr), zeros(kModulusLen));
  EXPECT_THAT(resultLine(), HasSubstr("dataToSign = (null), "));
}

TEST_F(SignData, TellsTheProvidersAnswerInItsResultLine) {
  script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
  EXPECT_EQ(client->sign(bytesOf("data")), zeros(kModulusLen));
  EXPECT_THAT(resultLine(), HasSubstr("isSigned = 1 "));
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  EXPECT_EQ(client->sign(bytesOf("data")), zeros(0));
  EXPECT_EQ(resultLine(),
            "process: isSigned = 0 dataToSign = {length = 4, bytes = 0x64617461}, signature = {length = 0, "
            "bytes = 0x}");
}

TEST_F(SignData, HasRoomFor256Bytes) {
  for (const std::size_t length : {0U, 255U, 256U, 257U}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Sign"] = {length, {}};
    EXPECT_EQ(client->sign(Value(kModulusLen)).size(), length > 256 ? 0 : length);
  }
}

// ---- Decrypting ----

class DecryptData : public LoggedInTest {};

TEST_F(DecryptData, LogsItsWay) {
  script.deviations.plainText = bytesOf("attack at dawn");
  EXPECT_EQ(client->decrypt({0x01, 0x02, 0xFF}), Bytes{bytesOf("attack at dawn")});
  EXPECT_THAT(script.callTexts("C_Decrypt"), ElementsAre("C_Decrypt(9, 0102FF, room 256)"));
  EXPECT_EQ(log->allLines,
            inOrder({linesUpToTheChoice(keyOperations()[1]),
                     {"process: SC_ALGORITHM_RSA_PAD_PKCS1",
                      "process: [MirelSCTokenSession-287] decryptData 01 {length = 3, bytes = 0x0102ff} "
                      "algName kSecKeyAlgorithmRSAEncryptionPKCS1",
                      "process: [MirelCTKFramework-607] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]"}}));
}

TEST_F(DecryptData, KeepsThePlainTextOutOfTheLines) {
  script.deviations.plainText = bytesOf("a very secret text");
  EXPECT_EQ(client->decrypt(patternValue(256, 0x20)), Bytes{bytesOf("a very secret text")});
  EXPECT_THAT(log->allLines,
              Contains(HasSubstr("{length = 256, bytes = 0x20272e35 3c434a51 585f666d 747b8289 ... e8eff6fd "
                                 "040b1219 } algName")));
  for (const std::string& line : log->allLines) {
    EXPECT_THAT(line, Not(HasSubstr("secret")));
    EXPECT_THAT(line, Not(HasSubstr("736563726574")));
  }
}

TEST_F(DecryptData, GivesAnEmptyPlainTextForNoneAndForNoCipherText) {
  EXPECT_EQ(client->decrypt(cipherOf({})), zeros(0));
  EXPECT_EQ(client->decrypt(Value{}), zeros(0));
  const FakeKeyAlgorithm pkcs1{kSecKeyAlgorithmRSAEncryptionPKCS1};
  EXPECT_EQ(client->core->decryptData(client->platform, Bytes{}, kKey, pkcs1, nullptr), zeros(0));
}

TEST_F(DecryptData, HasRoomFor2000Bytes) {
  // A modulus long enough to announce that much room.
  for (const CK_OBJECT_HANDLE handle : {kPublicKey, kPrivateKey}) {
    Object& key = script.object(handle);
    key = key.with(CKA_MODULUS, patternValue(handle == kPublicKey ? 256 : 5011, 1));
  }
  for (const std::size_t length : {1999U, 2000U, 2001U}) {
    SCOPED_TRACE(length);
    script.deviations.plainText = patternValue(length, 1);
    EXPECT_EQ(client->decrypt({0x01}).size(), length > 2000 ? 0 : length);
  }
}

}  // namespace
}  // namespace mirel::test
