#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FinishAuth : public ClientSessionTest {
 protected:
  FinishAuth() {
    strings->texts["VERIFY_TRY_LEFT"] = Text{u"%lu left"};
    leavesOpen({kCardSession, kLoginSession});
  }

  /// What a refusal with that many tries left is answered with.
  [[nodiscard]] static TKError refusal(const char* triesLeft) {
    return tokenError(-5, Text::fromUtf8(std::string{triesLeft} + " left"));
  }

  void expectState(std::int64_t state, bool marked, const FakeClient& of) {
    EXPECT_EQ(of.core->authState(), state);
    EXPECT_EQ(of.platform.card.sensitive.load(), marked);
    EXPECT_EQ(of.platform.card.marked.load(), marked);
  }
  void expectAuthenticated() { expectState(1, true, *client); }
  void expectUntouched() { expectState(0, false, *client); }
};

// ---- The right PIN ----

TEST_F(FinishAuth, AuthenticatesTheSessionAndMarksItsCardWhateverTheStateBefore) {
  for (const std::int64_t state : {0, 1, 2}) {
    for (const auto& before : kErrorsBefore) {
      SCOPED_TRACE(state);
      startAnew();
      isIn(state, false);
      std::optional<TKError> error = before;
      EXPECT_TRUE(client->login(u"123456", &error));
      expectAuthenticated();
      EXPECT_EQ(error, before);
    }
  }
}

/// The card has lost its marks since the first login; its software still knows the user.
TEST_F(FinishAuth, MarksTheCardAgainForAUserWhoIsLoggedInAlready) {
  EXPECT_TRUE(client->login());
  client->platform.card.sensitive = false;
  client->platform.card.marked = false;
  EXPECT_TRUE(client->login(u"000000"));
  expectAuthenticated();
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2});
}

TEST_F(FinishAuth, AsksThePlatformForNoMoreAndInThisOrder) {
  FakePinEntry entry = pinEntry();
  forget();
  std::vector<std::int64_t> states;
  client->platform.card.whenAsked = [&] { states.push_back(client->core->authState()); };
  EXPECT_TRUE(entry.finish());
  EXPECT_THAT(calls, ElementsAre("PIN", "smartCard", "card.name", "clearPIN", "sessionSmartCard",
                                 "card.setSensitive 1", "card.setContext 1"));
  EXPECT_THAT(states, ElementsAre(0, 0, 0)) << "the session is authenticated last";
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(FinishAuth, LogsInOnceInASessionOfItsOwn) {
  EXPECT_TRUE(client->login());
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre("C_Login(9, 1, 313233343536)"));
  EXPECT_TRUE(script.card().loggedIn);
}

TEST_F(FinishAuth, LogsInToTheReaderOfItsOwnCardAndMarksTheSessions) {
  const CK_SLOT_ID otherSlot = script.addSlot("Reader B 00", script.card());
  script.card(otherSlot).pin = "87654321";
  FakePinEntry entry = pinEntry(u"87654321");
  FakeSmartCard otherCard{nullptr, Text{u"Reader B 00"}};
  entry.request.card = &otherCard;
  EXPECT_TRUE(entry.finish());
  EXPECT_TRUE(script.card(otherSlot).loggedIn);
  EXPECT_FALSE(script.card().loggedIn);
  expectAuthenticated();
  EXPECT_FALSE(otherCard.marked || otherCard.sensitive);
}

TEST_F(FinishAuth, AuthenticatesEachSessionOfTheTokenByItsOwnPin) {
  FakeClient other{services(), *token};
  EXPECT_FALSE(other.login(u"000000"));
  EXPECT_TRUE(client->login());
  expectState(0, false, other);
  EXPECT_TRUE(other.login());
  expectState(1, true, other);
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2, kLoginSession + 4});
}

// ---- A PIN that is refused ----

TEST_F(FinishAuth, ReportsTheTriesLeftUntilThePinIsLocked) {
  script.deviations.triesLeftAsDeviceError = true;
  for (const char* const left : {"2", "1", "0", "0"}) {
    SCOPED_TRACE(left);
    std::optional<TKError> error;
    EXPECT_FALSE(client->login(u"000000", &error));
    EXPECT_EQ(error, refusal(left));
    expectUntouched();
  }
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2, kLoginSession + 4, kLoginSession + 6});
}

TEST_F(FinishAuth, ReportsTheTriesThatTheProviderCountsInPlaceOfAnyError) {
  for (const bool isPulled : {true, false}) {
    for (const auto& before : kErrorsBefore) {
      SCOPED_TRACE(isPulled ? "no card was there to be asked" : "the module reports none");
      startAnew();
      if (isPulled) script.pullCard();
      std::optional<TKError> error = before;
      EXPECT_FALSE(client->login(u"000000", &error));
      EXPECT_EQ(error, refusal(isPulled ? "5" : "0"));
      expectUntouched();
    }
  }
}

TEST_F(FinishAuth, TellsNothingWithoutAnErrorPointer) {
  FakePinEntry entry = pinEntry(u"000000");
  forget();
  EXPECT_FALSE(entry.finish());
  expectUntouched();
  EXPECT_THAT(calls, ElementsAre("PIN", "smartCard", "card.name", "clearPIN"));
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_THAT(strings->askedFor, IsEmpty());
}

TEST_F(FinishAuth, LeavesStateAndMarksAsTheyWereAfterARefusal) {
  for (const std::int64_t state : {0, 1, 2}) {
    for (const bool marked : {false, true}) {
      SCOPED_TRACE(state);
      startAnew();
      isIn(state, marked);
      client->platform.card.sensitive = marked;
      EXPECT_FALSE(client->login(u"000000"));
      expectState(state, marked, *client);
    }
  }
}

// ---- Without a provider ----

TEST_F(FinishAuth, FailsWithoutAProviderAsALoginWithoutTriesLeft) {
  client->core->setSp(nullptr);
  FakePinEntry entry = pinEntry();
  forget();
  std::optional<TKError> error;
  EXPECT_FALSE(entry.finish(&error));
  EXPECT_EQ(error, refusal("0"));
  expectUntouched();
  EXPECT_THAT(log->allLines, ElementsAre("error: sp is nil"));
  EXPECT_THAT(calls, ElementsAre("PIN", "clearPIN"));
  EXPECT_THAT(script.callTexts(), IsEmpty());
  leavesOpen({kCardSession});
}

TEST_F(FinishAuth, GoesByTheSessionsProviderOfThatMoment) {
  client->core->setSp(nullptr);
  FakePinEntry entry = pinEntry();
  client->core->setSp(token->core.sp());
  EXPECT_TRUE(entry.finish());
}

}  // namespace
}  // namespace mirel::test
