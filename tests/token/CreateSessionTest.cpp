#include "token/MirelSCTokenSession.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;

constexpr const char* kSessionStart = "default: CTK [MirelSCTokenSession-70] +++START+++";
constexpr const char* kSessionEnd = "default: CTK [MirelSCTokenSession-81] ---END---";
constexpr const char* kNoError = "process: [MirelSCToken-150] token createSessionWithError NO ERROR!";

/// A token with a card, ready for sessions.
class CreateSession : public TokenTest {
 protected:
  CreateSession() {
    EXPECT_TRUE(init(token));
    log->allLines.clear();
    leavesOpen({kCardSession});
  }

  [[nodiscard]] std::shared_ptr<MirelSCTokenSession> create(TKErrorPointer outError = nullptr) {
    return std::dynamic_pointer_cast<MirelSCTokenSession>(token->createSessionWithError(token, outError));
  }

  const std::shared_ptr<MirelSCToken> token = newToken();
};

[[nodiscard]] std::string tokenLine(const void* token) {
  return "process: [MirelSCToken-148] token = " + shown("MirelSCToken", token);
}
[[nodiscard]] std::string sessionLine(const void* session) {
  return "process: [MirelSCToken-155] token session = " + shown("MirelSCTokenSession", session);
}

TEST_F(CreateSession, SharesTheTokensProvider) {
  const auto session = create();
  ASSERT_TRUE(session);
  EXPECT_TRUE(session->sp());
  EXPECT_EQ(session->sp(), token->sp());
}

TEST_F(CreateSession, MakesANewSessionEachTime) {
  const auto first = create();
  const auto second = create();
  ASSERT_TRUE(first);
  EXPECT_NE(first, second);
}

TEST_F(CreateSession, IsOfTheReceiverNotOfTheArgument) {
  const auto other = std::make_shared<FakeSmartCardToken>(kit->script);
  const auto session =
      std::dynamic_pointer_cast<MirelSCTokenSession>(token->createSessionWithError(other, nullptr));
  ASSERT_TRUE(session);
  EXPECT_THAT(kit->lastSession()->initialisedWith, ElementsAre(token.get()));
  EXPECT_EQ(session->sp(), token->sp());
  EXPECT_EQ(log->allLines.front(), tokenLine(other.get()));
}

TEST_F(CreateSession, WorksWithoutAnArgument) {
  const auto session = token->createSessionWithError(nullptr, nullptr);
  EXPECT_TRUE(session);
  EXPECT_EQ(log->allLines.front(), "process: [MirelSCToken-148] token = (null)");
}

TEST_F(CreateSession, LogsThatThereIsNoErrorPointer) {
  const auto session = create(nullptr);
  EXPECT_THAT(log->allLines, ElementsAre(tokenLine(token.get()), kNoError, kSessionStart, kSessionEnd,
                                         sessionLine(session.get())));
}

TEST_F(CreateSession, LogsNothingOfAnEmptyError) {
  std::optional<TKError> error;
  const auto session = create(&error);
  EXPECT_THAT(log->allLines,
              ElementsAre(tokenLine(token.get()), kSessionStart, kSessionEnd, sessionLine(session.get())));
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(CreateSession, LogsAnErrorThatIsThereAlready) {
  const struct {
    Text text;
    const char* line;
  } rows[] = {
      {Text{}, "process: [MirelSCToken-152] Error: Error Domain=CryptoTokenKit Code=-9 \"(null)\""},
      {Text{u"Why"}, "process: [MirelSCToken-152] Error: Error Domain=CryptoTokenKit Code=-9 \"Why\""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    log->allLines.clear();
    const TKError there{Text{u"CryptoTokenKit"}, -9, row.text};
    std::optional<TKError> error = there;
    const auto session = create(&error);
    EXPECT_THAT(log->allLines, ElementsAre(tokenLine(token.get()), row.line, kSessionStart, kSessionEnd,
                                           sessionLine(session.get())));
    EXPECT_EQ(error, there);
  }
}

TEST_F(CreateSession, IsNullWhenThePlatformRefuses) {
  kit->script->refusesSessions = true;
  std::optional<TKError> error;
  EXPECT_FALSE(token->createSessionWithError(token, &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(log->allLines, ElementsAre(tokenLine(token.get()), kSessionStart,
                                         "process: [MirelSCTokenSession-73] ERROR", sessionLine(nullptr)));
}

TEST_F(CreateSession, HasNoProviderWhenTheTokenHasNone) {
  token->setSp(nullptr);
  const auto session = create();
  ASSERT_TRUE(session);
  EXPECT_FALSE(session->sp());
  EXPECT_THAT(log->allLines, ElementsAre(tokenLine(token.get()), kNoError, kSessionStart,
                                         "process: [MirelSCTokenSession-78] ERROR", kSessionEnd,
                                         sessionLine(session.get())));
}

TEST_F(CreateSession, LeavesTheCardAlone) {
  script.forgetCalls();
  EXPECT_TRUE(create());
  EXPECT_THAT(script.callTexts(), ElementsAre());
}

TEST_F(CreateSession, KeepsTheProviderWhenTheTokenEnds) {
  auto mine = newToken();
  ASSERT_TRUE(init(mine));
  const std::weak_ptr<CryptTKitSProvider> provider = mine->sp();
  auto session = mine->createSessionWithError(mine, nullptr);
  mine.reset();
  EXPECT_FALSE(provider.expired());
  session.reset();
  EXPECT_TRUE(provider.expired());
  leavesOpen({kCardSession, kCardSession + 3});
}

}  // namespace
}  // namespace mirel::test
