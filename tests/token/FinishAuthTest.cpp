#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Text kFormat{u"%lu left"};

/// What a refusal by the card with that many tries left is answered with.
[[nodiscard]] TKError refusal(const char16_t* triesLeft) {
  return tokenError(-5, joined({Text{triesLeft}, Text{u" left"}}));
}

class FinishAuth : public ClientSessionTest {
 protected:
  FinishAuth() { strings->texts["VERIFY_TRY_LEFT"] = kFormat; }

  /// A PIN that the card refuses, on a card that reports the tries left.
  [[nodiscard]] bool failingLogin(TKErrorPointer outError) {
    script.deviations.triesLeftAsDeviceError = true;
    const bool accepted = login(u"000000", outError);
    script.deviations.triesLeftAsDeviceError = false;
    return accepted;
  }

  /// What the session's user has not got before the PIN.
  void expectUntouched() {
    EXPECT_EQ(session->authState(), 0);
    EXPECT_FALSE(base->card->sensitive());
    EXPECT_EQ(base->card->context(), std::nullopt);
  }
};

// ---- The right PIN ----

TEST_F(FinishAuth, AuthenticatesTheSession) {
  EXPECT_TRUE(login());
  EXPECT_EQ(session->authState(), 1);
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, MarksTheCard) {
  EXPECT_TRUE(login());
  EXPECT_TRUE(base->card->sensitive());
  EXPECT_EQ(base->card->context(), true);
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, MarksTheCardAsSensitiveFirstAndTheSessionLast) {
  bool wasSensitive = false;
  std::int64_t stateBefore = -1;
  base->card->whenContextIsSet = [&] {
    wasSensitive = base->card->sensitive();
    stateBefore = session->authState();
  };
  EXPECT_TRUE(login());
  EXPECT_TRUE(wasSensitive);
  EXPECT_EQ(stateBefore, 0);
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, LogsInOnceInASessionOfItsOwn) {
  EXPECT_TRUE(login());
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre("C_Login(9, 1, 313233343536)"));
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, EnumeratesTheCardAndOpensASessionBeforeTheLogin) {
  EXPECT_TRUE(login());
  std::vector<std::string> called;
  for (const Call& call : script.calls()) called.push_back(call.function);
  EXPECT_THAT(called,
              ElementsAre("C_GetSlotList", "C_GetSlotList", "C_GetSlotList", "C_GetSlotInfo", "C_GetSlotInfo",
                          "C_OpenSession", "C_GetTokenInfo", "C_CloseSession",  // the card
                          "C_GetSlotList", "C_GetSlotList", "C_GetSlotInfo", "C_GetSlotInfo", "C_OpenSession",
                          "C_GetSessionInfo", "C_GetTokenInfo",  // the session
                          "C_Login", "C_GetSessionInfo"));
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, LeavesErrorsAloneWhenAllIsWell) {
  std::optional<TKError> none;
  EXPECT_TRUE(login(u"123456", &none));
  EXPECT_EQ(none, std::nullopt);
  std::optional<TKError> earlier = kEarlierError;
  EXPECT_TRUE(login(u"123456", &earlier));
  EXPECT_EQ(earlier, kEarlierError);
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2});
}

TEST_F(FinishAuth, LogsNothingOfALogin) {
  const auto operation = pinOperation(*session, u"123456");
  log->allLines.clear();
  EXPECT_TRUE(operation->finishWithError(nullptr));
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, MarksTheCardAgainOnASecondLogin) {
  EXPECT_TRUE(login());
  base->card->setSensitive(false);
  base->card->setContext(std::nullopt);
  EXPECT_TRUE(login());
  EXPECT_EQ(session->authState(), 1);
  EXPECT_TRUE(base->card->sensitive());
  EXPECT_EQ(base->card->context(), true);
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2});
}

TEST_F(FinishAuth, TakesAUserWhoIsLoggedInAlreadyForASuccess) {
  script.card().loggedIn = true;
  EXPECT_TRUE(login(u"000000"));
  EXPECT_EQ(session->authState(), 1);
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, AuthenticatesASessionInTheUsedState) {
  session->setAuthState(2);
  EXPECT_TRUE(login());
  EXPECT_EQ(session->authState(), 1);
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, LogsInToTheReaderOfItsOwnCardAndMarksTheSessions) {
  const CK_SLOT_ID otherSlot = script.addSlot("Reader B 00", script.card());
  script.card(otherSlot).pin = "87654321";
  const auto operation = pinOperation(*session, u"87654321");
  const auto otherCard = std::make_shared<FakeSmartCard>(Text{u"Reader B 00"});
  operation->setSmartCard(otherCard);
  EXPECT_TRUE(operation->finishWithError(nullptr));
  EXPECT_TRUE(script.card(otherSlot).loggedIn);
  EXPECT_FALSE(script.card().loggedIn);
  EXPECT_EQ(base->card->context(), true);
  EXPECT_TRUE(base->card->sensitive());
  EXPECT_EQ(otherCard->context(), std::nullopt);
  EXPECT_FALSE(otherCard->sensitive());
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, AuthenticatesASessionThatHasLostItsCard) {
  const auto operation = pinOperation(*session, u"123456");
  base->card = nullptr;
  EXPECT_TRUE(operation->finishWithError(nullptr));
  EXPECT_EQ(session->authState(), 1);
  leavesOpen({kCardSession, kLoginSession});
}

// ---- Every session for itself ----

TEST_F(FinishAuth, AuthenticatesNoOtherSessionOfTheToken) {
  const Client other = newClient();
  EXPECT_TRUE(login());
  EXPECT_EQ(other.session->authState(), 0);
  EXPECT_EQ(other.base->card->context(), std::nullopt);
  EXPECT_FALSE(other.base->card->sensitive());
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, AuthenticatesEachSessionOfTheTokenByItsOwnPin) {
  const Client other = newClient();
  EXPECT_FALSE(pinOperation(*other.session, u"000000")->finishWithError(nullptr));
  EXPECT_TRUE(login());
  EXPECT_EQ(other.session->authState(), 0);
  EXPECT_TRUE(pinOperation(*other.session, u"123456")->finishWithError(nullptr));
  EXPECT_EQ(other.session->authState(), 1);
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2, kLoginSession + 4});
}

// ---- A PIN that is refused ----

TEST_F(FinishAuth, ReportsTheTriesLeftUntilThePinIsLocked) {
  const char16_t* const triesLeft[] = {u"2", u"1", u"0", u"0"};
  for (const char16_t* const left : triesLeft) {
    SCOPED_TRACE(Text{left}.toUtf8());
    std::optional<TKError> error;
    EXPECT_FALSE(failingLogin(&error));
    EXPECT_EQ(error, refusal(left));
    expectUntouched();
  }
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2, kLoginSession + 4, kLoginSession + 6});
}

TEST_F(FinishAuth, ReportsZeroTriesWhenTheModuleReportsNone) {
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"000000", &error));
  EXPECT_EQ(error, refusal(u"0"));
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, ReportsFiveTriesWhenNoCardWasThereToBeAsked) {
  script.pullCard();
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"123456", &error));
  EXPECT_EQ(error, refusal(u"5"));
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  expectUntouched();
  leavesOpen({});
}

TEST_F(FinishAuth, ReportsWhateverNumberTheModuleReports) {
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
    *out = {kSlot, 0, CKF_SERIAL_SESSION, CK_UNAVAILABLE_INFORMATION};
    return CKR_OK;
  });
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"000000", &error));
  EXPECT_EQ(error, refusal(u"18446744073709551615"));
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, SaysNothingWithoutAnErrorPointer) {
  const auto operation = pinOperation(*session, u"000000");
  log->allLines.clear();
  EXPECT_FALSE(operation->finishWithError(nullptr));
  expectUntouched();
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_THAT(strings->askedFor, IsEmpty());
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, ReplacesAnEarlierError) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_FALSE(failingLogin(&error));
  EXPECT_EQ(error, refusal(u"2"));
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, AsksForTheTextLetterForLetter) {
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"000000", &error));
  EXPECT_THAT(strings->askedFor, ElementsAre("VERIFY_TRY_LEFT"));
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, LeavesTheStateAsItWasAfterARefusal) {
  for (const std::int64_t state : {0, 1, 2}) {
    SCOPED_TRACE(state);
    startAnew();
    session->setAuthState(state);
    EXPECT_FALSE(login(u"000000"));
    EXPECT_EQ(session->authState(), state);
  }
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, LeavesTheMarksAsTheyWereAfterARefusal) {
  base->card->setContext(false);
  base->card->setSensitive(true);
  EXPECT_FALSE(login(u"000000"));
  EXPECT_EQ(base->card->context(), false);
  EXPECT_TRUE(base->card->sensitive());
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, DoesNotBelieveALoginThatLeavesNoUserLoggedIn) {
  script.deviations.silent = {"C_Login"};
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"123456", &error));
  EXPECT_EQ(error, refusal(u"0"));
  expectUntouched();
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, TakesADeviceErrorAfterTheLoginForARefusal) {
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
    *out = {kSlot, CKS_RO_USER_FUNCTIONS, CKF_SERIAL_SESSION, 3};
    return CKR_OK;
  });
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"123456", &error));
  EXPECT_EQ(error, refusal(u"3"));
  expectUntouched();
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, DoesNotBelieveALoginOfTheSecurityOfficer) {
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
    *out = {kSlot, CKS_RW_SO_FUNCTIONS, CKF_SERIAL_SESSION | CKF_RW_SESSION, 0};
    return CKR_OK;
  });
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"123456", &error));
  EXPECT_EQ(error, refusal(u"0"));
  expectUntouched();
  leavesOpen({kCardSession, kLoginSession});
}

TEST_F(FinishAuth, FailsForEveryOtherAnswerOfTheModule) {
  for (const CK_RV code : {CKR_PIN_LOCKED, CKR_PIN_EXPIRED, CKR_PIN_LEN_RANGE, CKR_DEVICE_REMOVED,
                           CKR_FUNCTION_CANCELED, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CK_RV{0x8000'0100}}) {
    SCOPED_TRACE(code);
    startAnew();
    script.failCallOf("C_Login", 0, code);
    std::optional<TKError> error;
    EXPECT_FALSE(login(u"123456", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, -5);
    expectUntouched();
  }
  leavesOpen({kCardSession, kLoginSession});
}

// ---- Without a provider ----

class FinishAuthWithoutProvider : public FinishAuth {
 protected:
  FinishAuthWithoutProvider() { session->setSp(nullptr); }
};

TEST_F(FinishAuthWithoutProvider, FailsAsALoginWithoutTriesLeft) {
  std::optional<TKError> error;
  EXPECT_FALSE(login(u"123456", &error));
  EXPECT_EQ(error, refusal(u"0"));
  EXPECT_FALSE(login(u"123456", nullptr));
  expectUntouched();
}

TEST_F(FinishAuthWithoutProvider, LogsThat) {
  const auto operation = pinOperation(*session, u"123456");
  log->allLines.clear();
  EXPECT_FALSE(operation->finishWithError(nullptr));
  EXPECT_THAT(log->allLines, ElementsAre("error: sp is nil"));
}

TEST_F(FinishAuthWithoutProvider, LeavesTheCardAlone) {
  EXPECT_FALSE(login());
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(FinishAuthWithoutProvider, GoesByTheSessionsProviderOfThatMoment) {
  const auto operation = pinOperation(*session, u"123456");
  session->setSp(token->sp());
  EXPECT_TRUE(operation->finishWithError(nullptr));
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace
}  // namespace mirel::test
