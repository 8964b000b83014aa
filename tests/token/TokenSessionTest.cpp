#include "token/MirelSCTokenSession.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;

class TokenSession : public TokenTest {
 protected:
  const std::shared_ptr<FakeTokenSession> base = std::make_shared<FakeTokenSession>(kit->script);
  MirelSCTokenSession session{services(), base};
};

TEST_F(TokenSession, TakesTheProviderOfItsToken) {
  const auto token = newToken();
  ASSERT_TRUE(init(token));
  EXPECT_TRUE(session.initWithToken(token));
  EXPECT_TRUE(session.sp());
  EXPECT_EQ(session.sp(), token->sp());
  leavesOpen({kCardSession});
}

TEST_F(TokenSession, KeepsItsProviderWhenTheTokenGetsAnother) {
  const auto token = newToken();
  ASSERT_TRUE(init(token));
  const auto provider = token->sp();
  EXPECT_TRUE(session.initWithToken(token));
  token->setSp(nullptr);
  EXPECT_EQ(session.sp(), provider);
  leavesOpen({kCardSession});
}

TEST_F(TokenSession, InitialisesThePlatformsSessionWithItsToken) {
  const auto token = newToken();
  EXPECT_TRUE(session.initWithToken(token));
  EXPECT_THAT(base->initialisedWith, ElementsAre(token.get()));
}

TEST_F(TokenSession, HasTheTokenAndTheCardOfThePlatformsSession) {
  const auto token = newToken();
  EXPECT_TRUE(session.initWithToken(token));
  EXPECT_EQ(session.token(), token);
  EXPECT_EQ(session.smartCard(), base->card);
}

TEST_F(TokenSession, IsNotAuthenticatedAtFirst) {
  EXPECT_TRUE(session.initWithToken(newToken()));
  EXPECT_EQ(session.authState(), 0);
}

TEST_F(TokenSession, KeepsAnAuthenticationState) {
  EXPECT_TRUE(session.initWithToken(newToken()));
  session.setAuthState(1);
  EXPECT_EQ(session.authState(), 1);
}

TEST_F(TokenSession, LogsItsInitialisation) {
  const auto token = newToken();
  ASSERT_TRUE(init(token));
  log->allLines.clear();
  EXPECT_TRUE(session.initWithToken(token));
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCTokenSession-70] +++START+++",
                                         "default: CTK [MirelSCTokenSession-81] ---END---"));
  leavesOpen({kCardSession});
}

TEST_F(TokenSession, FailsWhenThePlatformRefuses) {
  kit->script->refusesSessions = true;
  const auto token = newToken();
  ASSERT_TRUE(init(token));
  log->allLines.clear();
  EXPECT_FALSE(session.initWithToken(token));
  EXPECT_FALSE(session.sp());
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCTokenSession-70] +++START+++",
                                         "process: [MirelSCTokenSession-73] ERROR"));
  leavesOpen({kCardSession});
}

TEST_F(TokenSession, GoesOnWithATokenWithoutAProvider) {
  EXPECT_TRUE(session.initWithToken(newToken()));
  EXPECT_FALSE(session.sp());
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCTokenSession-70] +++START+++",
                                         "process: [MirelSCTokenSession-78] ERROR",
                                         "default: CTK [MirelSCTokenSession-81] ---END---"));
}

}  // namespace
}  // namespace mirel::test
