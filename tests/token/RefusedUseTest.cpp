#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;

constexpr const char* kSignStart = "default: CTK [MirelSCTokenSession-204] +++START+++";
constexpr const char* kSignKeyNotFound = "error: [MirelSCTokenSession-211] signData key not found";
constexpr const char* kDecryptStart = "default: CTK [MirelSCTokenSession-255] +++START+++";
constexpr const char* kDecryptKeyNotFound = "process: [MirelSCTokenSession-265] decryptData key not found";

class RefusedUse : public ClientSessionTest {
 protected:
  /// The session is in that state, on a connection with that mark.
  void isIn(std::int64_t state, std::optional<bool> context) {
    session->setAuthState(state);
    base->card->setContext(context);
  }
};

/// Signing without a session that is authenticated.
class SignDataRefused : public RefusedUse {
 protected:
  [[nodiscard]] Bytes sign(const Text& keyObjectID, TKErrorPointer outError) {
    return session->signData(session, Bytes{patternValue(256, 0x20)}, keyObjectID,
                             FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}, outError);
  }
};

TEST_F(SignDataRefused, NeedsThePinFirst) {
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
  EXPECT_THAT(log->allLines, ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kNeeded, kFailed));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(SignDataRefused, NeedsThePinFirstWithoutAnErrorPointer) {
  EXPECT_TRUE(sign(kKey, nullptr).isNull());
  EXPECT_THAT(log->allLines, ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kFailed));
}

TEST_F(SignDataRefused, NeedsThePinFirstOnAMarkedCardToo) {
  isIn(0, true);
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(SignDataRefused, ReplacesAnEarlierError) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_TRUE(sign(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(SignDataRefused, ReportsAnUnknownKeyAsThePlatformDoesBeforeThePin) {
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kNoKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-6));
  EXPECT_THAT(log->allLines,
              ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kKeyIsNil, kFailedNoKey));
}

TEST_F(SignDataRefused, ReportsAnUnknownKeyAsNotFoundAfterThePin) {
  isIn(1, true);
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kNoKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-7));
  EXPECT_THAT(log->allLines, ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kKeyIsNil,
                                         kFailedNoKey, kSignKeyNotFound));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(SignDataRefused, LogsAnUnknownKeyWithoutAnErrorPointer) {
  isIn(1, true);
  EXPECT_TRUE(sign(kNoKey, nullptr).isNull());
  EXPECT_THAT(log->allLines, ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kKeyIsNil,
                                         kFailedNoKey, kSignKeyNotFound));
}

TEST_F(SignDataRefused, TakesACardThatHasLostItsMarkForAMissingToken) {
  isIn(1, std::nullopt);
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-7));
  EXPECT_THAT(log->allLines, ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kNeeded, kFailed,
                                         kSignKeyNotFound));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(SignDataRefused, RefusesAKeyThatAsksEachTimeInTheUsedState) {
  isIn(2, true);
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
  EXPECT_THAT(log->allLines, ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kNeeded, kFailed));
}

TEST_F(SignDataRefused, AnswersNothingAndNoErrorForAKeyThatMayBeUsedInTheUsedState) {
  publish({newKey(kKey, false)});
  forget();
  isIn(2, true);
  std::optional<TKError> error;
  EXPECT_TRUE(sign(kKey, &error).isNull());
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(log->allLines,
              ElementsAre(kSignStart, kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

/// Decrypting without a session that is authenticated.
class DecryptDataRefused : public RefusedUse {
 protected:
  [[nodiscard]] Bytes decrypt(const Text& keyObjectID, TKErrorPointer outError) {
    return session->decryptData(session, Bytes{cipherOf(bytesOf("attack at dawn"))}, keyObjectID,
                                FakeKeyAlgorithm{kSecKeyAlgorithmRSAEncryptionPKCS1}, outError);
  }
};

TEST_F(DecryptDataRefused, NeedsThePinFirst) {
  std::optional<TKError> error;
  EXPECT_TRUE(decrypt(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
  EXPECT_THAT(log->allLines,
              ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kNeeded, kFailed));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(DecryptDataRefused, NeedsThePinFirstWithoutAnErrorPointer) {
  EXPECT_TRUE(decrypt(kKey, nullptr).isNull());
  EXPECT_THAT(log->allLines, ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kFailed));
}

TEST_F(DecryptDataRefused, NeedsThePinFirstOnAMarkedCardToo) {
  isIn(0, true);
  std::optional<TKError> error = kEarlierError;
  EXPECT_TRUE(decrypt(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(DecryptDataRefused, ReportsAnUnknownKeyAsThePlatformDoesBeforeThePin) {
  std::optional<TKError> error;
  EXPECT_TRUE(decrypt(kNoKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-6));
  EXPECT_THAT(log->allLines,
              ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kKeyIsNil, kFailedNoKey));
}

TEST_F(DecryptDataRefused, ReportsAnUnknownKeyAsNotFoundAfterThePin) {
  isIn(1, true);
  std::optional<TKError> error;
  EXPECT_TRUE(decrypt(kNoKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-7));
  EXPECT_THAT(log->allLines, ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kKeyIsNil,
                                         kFailedNoKey, kDecryptKeyNotFound));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(DecryptDataRefused, LogsAnUnknownKeyWithoutAnErrorPointer) {
  isIn(1, true);
  EXPECT_TRUE(decrypt(kNoKey, nullptr).isNull());
  EXPECT_THAT(log->allLines, ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kKeyIsNil,
                                         kFailedNoKey, kDecryptKeyNotFound));
}

TEST_F(DecryptDataRefused, TakesACardThatHasLostItsMarkForAMissingToken) {
  isIn(1, std::nullopt);
  std::optional<TKError> error;
  EXPECT_TRUE(decrypt(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-7));
  EXPECT_THAT(log->allLines, ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kNeeded, kFailed,
                                         kDecryptKeyNotFound));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(DecryptDataRefused, RefusesAKeyThatAsksEachTimeInTheUsedState) {
  isIn(2, true);
  std::optional<TKError> error;
  EXPECT_TRUE(decrypt(kKey, &error).isNull());
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(DecryptDataRefused, AnswersNothingAndNoErrorForAKeyThatMayBeUsedInTheUsedState) {
  publish({newKey(kKey, false)});
  forget();
  isIn(2, true);
  std::optional<TKError> error;
  EXPECT_TRUE(decrypt(kKey, &error).isNull());
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(log->allLines,
              ElementsAre(kDecryptStart, kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
