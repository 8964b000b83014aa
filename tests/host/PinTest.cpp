#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;

/// Entering the PIN, on its own and where a signature needs it.
class PinEntry : public KeyClientTest {
 protected:
  PinEntry() { strings->texts["VERIFY_TRY_LEFT"] = Text{u"Wrong, %lu left."}; }

  [[nodiscard]] bool logsIn(GivenPins& given) { return static_cast<bool>(client->logIn(given)); }

  /// Why the login failed; a login fails the test.
  [[nodiscard]] Failure loginFailure(GivenPins& given) { return failureOf(client->logIn(given)); }

  /// Has C_Login answer that, whatever the PIN.
  void answerLoginsWith(CK_RV code) { script.failCallOf("C_Login", 0, code, Times::kFromThenOn); }
};

// ---- The right PIN ----

/// Gives one PIN, and tells whether somebody has it still.
class FollowedPin final : public PinSource {
 public:
  [[nodiscard]] Result<std::shared_ptr<const SecretText>> askForPin(const std::string&) override {
    auto pin = std::make_shared<const SecretText>(u"123456");
    given_ = pin;
    return pin;
  }
  void showRefusal(const std::string&) override {}
  [[nodiscard]] bool canAskAgain() const override { return false; }

  [[nodiscard]] bool isKept() const { return !given_.expired(); }

 private:
  std::weak_ptr<const SecretText> given_;
};

TEST_F(PinEntry, IsOverBeforeTheCardIsLookedForBecauseThePinWasNotTaken) {
  script.failCallOf("C_Login", 0, CKR_GENERAL_ERROR);
  FollowedPin given;
  std::vector<bool> kept;
  client->whenItFails([&](const Failure&) { kept.push_back(given.isKept()); });
  (void)failureOf(client->logIn(given));
  EXPECT_THAT(kept, ElementsAre(false));
}

TEST_F(PinEntry, IsAllThereIsToALogin) {
  EXPECT_TRUE(logsIn(pins));
  EXPECT_THAT(secretCalls(), ElementsAre("C_Login"));
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre(HasSubstr(", 1, 313233343536)")));
  EXPECT_THAT(pins.cards, ElementsAre("\"TESTCARD\""));
  EXPECT_TRUE(script.card().loggedIn);
  EXPECT_EQ(signature(kSignByPss, {}).value.size(), key.blockSize());
  EXPECT_EQ(pins.timesAsked(), 1U);
}

TEST_F(PinEntry, FollowsOneLookAtTheCard) {
  // Each look asks the module for its slots twice, which takes it milliseconds with a card in a reader.
  const std::size_t before = script.countOf("C_GetSlotList");
  pins.whenAsked = [&] { EXPECT_EQ(script.countOf("C_GetSlotList") - before, 2U); };
  (void)signature(kSignByPss, {});
  EXPECT_EQ(pins.timesAsked(), 1U);
}

TEST_F(PinEntry, IsNotCheckedByAModuleThatIsLoggedIn) {
  EXPECT_TRUE(logsIn(pins));
  GivenPins wrong{{u"000000"}};
  const Failure failure = loginFailure(wrong);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_EQ(failure.what, "the PIN was not checked");
  EXPECT_EQ(
      failure.why,
      "the card's software was logged in already (C_Login answered CKR_USER_ALREADY_LOGGED_IN (0x100))");
  EXPECT_EQ(wrong.timesAsked(), 1U);
}

TEST_F(PinEntry, IsNotSaidToBeRefusedWhereItWasNotSent) {
  std::size_t numNotSent = 0;
  for (const char* function : {"C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo"}) {
    for (std::size_t n = 0; n < 6; ++n) {
      SCOPED_TRACE(std::string{function} + " " + std::to_string(n));
      script.reset();
      startAnew();
      GivenPins given{{u"123456"}};
      given.whenAsked = [&] { script.failCallOf(function, n, CKR_GENERAL_ERROR, Times::kFromThenOn); };
      const auto done = client->logIn(given);
      if (done || script.countOf("C_Login") > 0) continue;
      EXPECT_NE(done.failure().what, "the card did not take the PIN");
      if (done.failure().what == "the PIN was not sent to the card") ++numNotSent;
    }
  }
  EXPECT_GT(numNotSent, 0U);
}

TEST_F(PinEntry, GivesTheKeysOfAModuleThatIsLoggedIn) {
  EXPECT_TRUE(logsIn(pins));
  client = newClient();
  GivenPins wrong{{u"000000"}};
  GivenInput input{{Value{1}}};
  const auto made = client->sign(published(u"01"), kSignByPss, input, wrong);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->value.size(), key.blockSize());
}

TEST_F(PinEntry, ShowsTheLabelOfTheTokenWithoutWhatMisleadsATerminal) {
  card.reader.tokenLabel = Text{u"Evil\x1B[2J"};
  client = newClient();
  EXPECT_TRUE(logsIn(pins));
  EXPECT_THAT(pins.cards, ElementsAre("\"Evil\\x1B[2J\""));
}

TEST_F(PinEntry, TakesAPinOfEightCharacters) {
  script.card().pin = "12345678";
  GivenPins given{{u"12345678"}};
  EXPECT_TRUE(logsIn(given));
}

// ---- The wrong PIN ----

/// What becomes of a login with these PINs.
struct LoginRow {
  const char* name;
  std::deque<std::u16string> pins;
  unsigned triesLeft;
  std::optional<FailureKind> failure;  ///< nothing: it succeeds
  std::size_t timesAsked;
  std::size_t refusals;   ///< shown
  std::size_t timesSent;  ///< to the card
  bool again = true;      ///< whether the source can be asked again
};

TEST_F(PinEntry, IsAskedForAgainAFewTimes) {
  const LoginRow rows[] = {
      {"right the third time", {u"000000", u"111111", u"123456"}, 3, std::nullopt, 3, 2, 3},
      {"wrong three times", {u"0", u"1", u"2", u"123456"}, 10, FailureKind::kPinWrong, 3, 2, 3},
      {"wrong once, nobody to ask", {u"0", u"123456"}, 10, FailureKind::kPinWrong, 1, 0, 1, false},
      {"locked before", {u"123456", u"123456"}, 0, FailureKind::kPinLocked, 1, 0, 1},
      {"locked by a wrong one", {u"0", u"123456", u"123456"}, 1, FailureKind::kPinLocked, 2, 1, 2},
      {"cancelled", {}, 3, FailureKind::kCancelled, 1, 0, 0},
      {"cancelled after a wrong one", {u"000000"}, 3, FailureKind::kCancelled, 2, 1, 1},
      // Those that cannot be sent cost no try, but are no endless affair either.
      {"impossible twice", {u"123456789", u"", u"123456"}, 3, std::nullopt, 3, 2, 1},
      {"impossible three times",
       {u"", u"123456789", u"", u"123456"},
       3,
       FailureKind::kPinCannotBeEntered,
       3,
       2,
       0},
      {"impossible and wrong",
       {u"123456789", u"000000", u"", u"111111", u"123456"},
       10,
       std::nullopt,
       5,
       4,
       3},
  };
  for (const LoginRow& row : rows) {
    SCOPED_TRACE(row.name);
    script.reset();
    startAnew();
    script.card().triesLeft = row.triesLeft;
    GivenPins given{row.pins};
    given.again = row.again;
    if (row.failure) {
      EXPECT_EQ(loginFailure(given).kind, *row.failure);
    } else {
      EXPECT_TRUE(logsIn(given));
    }
    EXPECT_EQ(given.timesAsked(), row.timesAsked);
    EXPECT_EQ(given.refusals.size(), row.refusals);
    EXPECT_EQ(script.countOf("C_Login"), row.timesSent);
  }
}

TEST_F(PinEntry, TellsWhatTheTokenSaysOfAWrongPin) {
  script.deviations.triesLeftAsDeviceError = true;
  GivenPins given{{u"000000", u"111111"}};
  EXPECT_EQ(loginFailure(given).kind, FailureKind::kCancelled);
  EXPECT_THAT(given.refusals, ElementsAre("the PIN is wrong, the token says \"Wrong, 2 left\"",
                                          "the PIN is wrong, the token says \"Wrong, 1 left\""));
}

TEST_F(PinEntry, TellsWhyTheLastPinWasNotTaken) {
  GivenPins wrong{{u"000000"}};
  wrong.again = false;
  const Failure refused = loginFailure(wrong);
  EXPECT_EQ(refused.what, "the PIN is wrong, the token says \"Wrong, 0 left\"");
  EXPECT_THAT(refused.why, StartsWith("C_Login answered CKR_PIN_INCORRECT (0xA0)"));
  script.card().triesLeft = 0;
  GivenPins right{{u"123456"}};
  EXPECT_THAT(loginFailure(right).why, StartsWith("C_Login answered CKR_PIN_LOCKED (0xA4)"));
  GivenPins impossible{{u"", u"123456789"}};
  (void)loginFailure(impossible);
  EXPECT_THAT(impossible.refusals,
              ElementsAre("the PIN was not sent to the card: it is empty",
                          "the PIN was not sent to the card: it has more than 8 characters"));
}

TEST_F(PinEntry, EndsWhereASignatureNeedsIt) {
  GivenPins given{{u"000000", u"111111", u"222222"}};
  GivenInput input{{Value{1}}};
  const Failure failure = failureOf(client->sign(published(u"01"), kSignByPss, input, given));
  EXPECT_EQ(failure.kind, FailureKind::kPinWrong);
  EXPECT_THAT(secretCalls(), ElementsAre("C_Login", "C_Login", "C_Login"));
}

TEST_F(PinEntry, KeepsTheFullStopsOfOtherLanguagesOutOfTheMessage) {
  strings->texts["VERIFY_TRY_LEFT"] = Text{u"%lu \u56DE\u3002"};
  GivenPins given{{u"000000"}};
  given.again = false;
  EXPECT_THAT(loginFailure(given).what, HasSubstr("\"0 \xE5\x9B\x9E\""));
}

TEST_F(PinEntry, IsWrongForEachCodeThatSaysSo) {
  for (const CK_RV code : {CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE}) {
    SCOPED_TRACE(code);
    answerLoginsWith(code);
    GivenPins given{{u"1", u"2", u"3"}};
    EXPECT_EQ(loginFailure(given).kind, FailureKind::kPinWrong);
    EXPECT_EQ(given.timesAsked(), 3U);
    script.setInitialised(true);
  }
}

// ---- A PIN that the card is not asked about ----

TEST_F(PinEntry, DoesNotAskTheCardAboutAPinThatCannotBeSent) {
  const std::pair<const char16_t*, const char*> kRows[] = {
      {u"", "it is empty"},
      {u"123456789", "it has more than 8 characters"},
      {u"1234567890123456", "it has more than 8 characters"},
      {u"12345\u00E9", "it has characters that are not ASCII"},
      {u"\u0661\u0662\u0663\u0664", "it has characters that are not ASCII"},
      {u"1234567\U0001F511", "it has characters that are not ASCII"},
  };
  for (const auto& [pin, why] : kRows) {
    SCOPED_TRACE(why);
    GivenPins given{{pin}};
    given.again = false;
    const Failure failure = loginFailure(given);
    EXPECT_EQ(failure.kind, FailureKind::kPinCannotBeEntered);
    EXPECT_EQ(failure.what, "the PIN was not sent to the card");
    EXPECT_EQ(failure.why, why);
    EXPECT_THAT(std::string{failure.advice.words()},
                HasSubstr("this card's PIN cannot be entered here: change it to at most 8 ASCII characters"));
  }
  EXPECT_THAT(secretCalls(), IsEmpty());
  EXPECT_EQ(script.card().triesLeft, 3U);
}

TEST_F(PinEntry, PassesOnWhatIsWrongWithTheSource) {
  GivenPins given{{u"123456"}};
  given.failure = Failure{FailureKind::kFileFailure, "the PIN cannot be read", "others can", "protect it"};
  const Failure failure = loginFailure(given);
  EXPECT_EQ(failure.kind, FailureKind::kFileFailure);
  EXPECT_EQ(failure.what, "the PIN cannot be read");
  EXPECT_EQ(failure.why, "others can");
  EXPECT_EQ(failure.advice, "protect it");
  EXPECT_EQ(given.timesAsked(), 1U);
  EXPECT_THAT(secretCalls(), IsEmpty());
}

// ---- Cards and modules that do not play along ----

TEST_F(PinEntry, FailsOnACardThatGoesWithinItOrAfterIt) {
  for (const bool within : {true, false}) {
    SCOPED_TRACE(within);
    script.reset();
    startAnew();
    script.hook<&CK_FUNCTION_LIST::C_Login>([&](auto real, auto... args) {
      if (within) script.pullCard(kSlot, CKR_DEVICE_REMOVED);
      const CK_RV rv = real(args...);
      if (!within) script.pullCard(kSlot, CKR_DEVICE_REMOVED);
      return rv;
    });
    GivenPins given{{u"123456", u"123456"}};
    const Failure failure = loginFailure(given);
    EXPECT_EQ(failure.kind, FailureKind::kCardGone);
    EXPECT_THAT(failure.why, HasSubstr("CKR_DEVICE_REMOVED (0x32)"));
    EXPECT_EQ(failure.why.starts_with("C_Login answered"), within);
    EXPECT_EQ(given.timesAsked(), 1U);
  }
}

TEST_F(PinEntry, FailsWhenTheStateCannotBeRead) {
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>(
      [&](auto real, auto... args) { return script.card().loggedIn ? CKR_DEVICE_ERROR : real(args...); });
  const Failure failure = loginFailure(pins);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.why, HasSubstr("CKR_DEVICE_ERROR (0x30)"));
}

TEST_F(PinEntry, FailsWhenItLeavesNoUserLoggedIn) {
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([](auto real, auto session, auto* info) {
    const CK_RV rv = real(session, info);
    if (rv == CKR_OK) info->state = CKS_RO_PUBLIC_SESSION;
    return rv;
  });
  GivenPins given{{u"123456", u"123456"}};
  const Failure failure = loginFailure(given);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_EQ(failure.why, "the login left no user logged in");
  EXPECT_EQ(given.timesAsked(), 1U);
}

TEST_F(PinEntry, TellsTheCodeOfOtherErrors) {
  const std::pair<CK_RV, const char*> kRows[] = {
      {CKR_DEVICE_ERROR, "C_Login answered CKR_DEVICE_ERROR (0x30)"},
      {CKR_USER_PIN_NOT_INITIALIZED, "C_Login answered CKR_USER_PIN_NOT_INITIALIZED (0x102)"},
      {CKR_PIN_EXPIRED, "C_Login answered CKR_PIN_EXPIRED (0xA3)"},
      {CKR_USER_TOO_MANY_TYPES, "C_Login answered CKR_USER_TOO_MANY_TYPES (0x105)"},
      {CKR_VENDOR_DEFINED | 0x123, "C_Login answered 0x80000123"},
  };
  for (const auto& [code, why] : kRows) {
    SCOPED_TRACE(why);
    script.failCallOf("C_Login", 0, code);
    GivenPins given{{u"123456", u"123456"}};
    const Failure failure = loginFailure(given);
    EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
    EXPECT_THAT(failure.why, StartsWith(why));
    EXPECT_EQ(given.timesAsked(), 1U);
  }
}

TEST_F(PinEntry, TellsTheCodeOfASessionThatCannotBeOpened) {
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT, Times::kFromThenOn);
  const Failure failure = loginFailure(pins);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.why, StartsWith("C_OpenSession answered CKR_SESSION_COUNT (0xB1)"));
}

// ---- Where the PIN goes ----

TEST_F(PinEntry, LeavesNoPinInTheLog) {
  // The serial number of the card happens to begin with its PIN.
  log->allLines.clear();
  GivenPins given{{u"000000", u"987654321", u"123456"}};
  EXPECT_TRUE(logsIn(given));
  for (const std::string& line : log->allLines) {
    for (const char* pin : {"000000", "987654321", "123456", "313233"})
      EXPECT_EQ(line.find(pin), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace mirel::test
