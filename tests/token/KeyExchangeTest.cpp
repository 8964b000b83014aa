#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;

constexpr const char* kStart = "default: CTK [MirelSCTokenSession-308] +++START+++";
constexpr const char* kKeyNotFound =
    "process: [MirelSCTokenSession-312] performKeyExchangeWithPublicKey objectID not found";

/// Before a login, unless a test says otherwise.
class KeyExchange : public ClientSessionTest {
 protected:
  [[nodiscard]] Bytes exchange(const Text& keyObjectID, TKErrorPointer outError = nullptr) {
    return session->performKeyExchangeWithPublicKey(session, otherPartyKey, keyObjectID, algorithm,
                                                    std::make_shared<TKTokenKeyExchangeParameters>(),
                                                    outError);
  }

  const Bytes otherPartyKey{p256Point(7)};
  const FakeKeyAlgorithm algorithm{kSecKeyAlgorithmECDHKeyExchangeStandard};
};

TEST_F(KeyExchange, IsSupportedAndAnswersNothing) {
  publish({newKey(kKey, true)});
  EXPECT_TRUE(session->supportsOperation(session, TKTokenOperation::kPerformKeyExchange, kKey, algorithm));
  std::optional<TKError> error;
  EXPECT_TRUE(exchange(kKey, &error).isNull());
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeyExchange, LogsItsWay) {
  EXPECT_TRUE(exchange(kKey).isNull());
  EXPECT_THAT(
      log->allLines,
      ElementsAre(kStart, "process: [MirelSCTokenSession-318] performKeyExchangeWithPublicKey 01 algorithm " +
                              shown("TKTokenKeyAlgorithm", &algorithm)));
}

TEST_F(KeyExchange, AnswersTheSameInEveryState) {
  for (const std::int64_t state : {0, 1, 2}) {
    for (const auto context : {std::optional<bool>{}, std::optional{true}}) {
      session->setAuthState(state);
      base->card->setContext(context);
      std::optional<TKError> error;
      EXPECT_TRUE(exchange(kKey, &error).isNull());
      EXPECT_EQ(error, std::nullopt);
      EXPECT_EQ(session->authState(), state);
    }
  }
  base->card = nullptr;
  EXPECT_TRUE(exchange(kKey).isNull());
}

TEST_F(KeyExchange, LeavesAnEarlierErrorAlone) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_TRUE(exchange(kKey, &error).isNull());
  EXPECT_EQ(error, kEarlierError);
}

TEST_F(KeyExchange, ReportsAnUnknownKeyAsAMissingToken) {
  for (const auto& before : {std::optional<TKError>{}, std::optional{kEarlierError}}) {
    log->allLines.clear();
    std::optional<TKError> error = before;
    EXPECT_TRUE(exchange(kNoKey, &error).isNull());
    EXPECT_EQ(error, tokenError(-7));
    EXPECT_THAT(log->allLines, ElementsAre(kStart, kKeyNotFound));
  }
}

TEST_F(KeyExchange, LogsAnUnknownKeyWithoutAnErrorPointer) {
  EXPECT_TRUE(exchange(kNoKey, nullptr).isNull());
  EXPECT_THAT(log->allLines, ElementsAre(kStart, kKeyNotFound));
}

TEST_F(KeyExchange, DoesNotLookAtItsOtherArguments) {
  const FakeKeyAlgorithm other{kSecKeyAlgorithmRSASignatureRaw};
  std::optional<TKError> error;
  EXPECT_TRUE(
      session->performKeyExchangeWithPublicKey(nullptr, Bytes{}, kKey, other, nullptr, &error).isNull());
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(KeyExchange, LeavesTheCardAlone) {
  EXPECT_TRUE(exchange(kKey).isNull());
  EXPECT_TRUE(exchange(kNoKey).isNull());
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(KeyExchange, AnswersNothingAfterALoginToo) {
  EXPECT_TRUE(login());
  script.forgetCalls();
  EXPECT_TRUE(exchange(kKey).isNull());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace
}  // namespace mirel::test
