/// The request for a PIN, the PIN as it is entered, and what comes of it.

#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// ---- The initialiser ----

constexpr const char* kStart = "default: CTK [MirelSCTokenSession-13] +++START+++";
constexpr const char* kEnd = "default: CTK [MirelSCTokenSession-24] ---END---";

class PinOperation : public ClientSessionTest {
 protected:
  [[nodiscard]] bool init(bool isTaken = true) {
    return operation.initWithSession(client->core, request, [&] {
      log->process("super");
      calls.emplace_back("super");
      return isTaken;
    });
  }

  FakePinRequest request{client->platform, &calls};
  MirelSCTokenAuth operation{services()};
};

TEST_F(PinOperation, SetsThePlatformsRequestUpInOrderWhenThePlatformHasInitialisedIt) {
  EXPECT_FALSE(init(false));
  EXPECT_FALSE(operation.session());
  EXPECT_THAT(calls, ElementsAre("super")) << "nothing is asked for when it refuses";
  EXPECT_THAT(log->allLines, ElementsAre(kStart, "process: super", kEnd));
  forget();
  EXPECT_TRUE(init());
  EXPECT_EQ(operation.session(), client->core);
  EXPECT_THAT(calls, ElementsAre("super", "sessionSmartCard", "setSmartCard", "card.cla", "setAPDUTemplate",
                                 "setPINFormat 40"));
  EXPECT_EQ(request.givenCard, &client->platform.card);
  EXPECT_THAT(log->allLines, ElementsAre(kStart, "process: super", kEnd));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(PinOperation, DescribesAVerifyCommandToTheSessionsCard) {
  const auto expectCommandWith = [&](std::uint8_t cla) {
    SCOPED_TRACE(int{cla});
    ASSERT_TRUE(init());
    EXPECT_EQ(request.APDUTemplate,
              (Bytes{Value{cla, 0x20, 0x00, 0x80, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}));
  };
  for (const std::uint8_t cla : Value{0x00, 0x0C, 0x80, 0xFF}) {
    client->platform.card.classByte = cla;
    expectCommandWith(cla);
  }
  client->platform.card.isConnected = false;
  expectCommandWith(0x00);
}

TEST_F(PinOperation, KeepsTheSessionAliveAsLongAsItLives) {
  const std::weak_ptr<MirelSCTokenSession> session = client->core;
  {
    MirelSCTokenAuth mine{services()};
    ASSERT_TRUE(mine.initWithSession(client->core, request, [] { return true; }));
    client->core.reset();
    EXPECT_FALSE(session.expired());
  }
  EXPECT_TRUE(session.expired());
}

TEST_F(PinOperation, CanBeMadeForNoSession) {
  EXPECT_TRUE(operation.initWithSession(nullptr, request, [] { return true; }));
  EXPECT_FALSE(operation.session());
  request.pin = std::make_shared<const SecretText>(std::u16string_view{u"123456"});
  log->allLines.clear();
  std::optional<TKError> error;
  EXPECT_FALSE(operation.finishWithError(request, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, -5);
  EXPECT_THAT(log->allLines, ElementsAre("error: sp is nil"));
}

// ---- The PIN as the user has entered it ----

class EnteredPin : public ClientSessionTest {
 protected:
  EnteredPin() { leavesOpen({kCardSession, kLoginSession}); }
};

TEST_F(EnteredPin, GoesToTheCardWithItsLengthInCharacters) {
  using namespace std::string_view_literals;
  const struct {
    const char* name;
    std::u16string_view pin;
    const char* call;
  } rows[] = {
      {"one digit", u"7", "C_Login(9, 1, 37)"},
      {"eight digits", u"12345678", "C_Login(9, 1, 3132333435363738)"},
      {"letters and signs", u"aZ %n", "C_Login(9, 1, 615A20256E)"},
      {"a NUL within", u"12\00034"sv, "C_Login(9, 1, 3132003334)"},
      // Oddity: as many bytes as there are characters, so the end of the PIN is missing.
      {"three characters of two bytes", u"\u00E4\u00F6\u00FC", "C_Login(9, 1, C3A4C3)"},
      {"digits and one character of three bytes", u"12\u20AC4", "C_Login(9, 1, 3132E282)"},
      {"eight characters of three bytes", u"\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC",
       "C_Login(9, 1, E282ACE282ACE282)"},
      // Characters outside the basic plane count twice.
      {"four astral characters", u"\U0001F511\U0001F511\U0001F511\U0001F511",
       "C_Login(9, 1, F09F9491F09F9491)"},
      {"half a character", u"1\xD83D", "C_Login(9, 1, 31EF)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    startAnew();
    (void)client->login(row.pin);
    EXPECT_THAT(script.callTexts("C_Login"), ElementsAre(row.call));
  }
}

TEST_F(EnteredPin, IsRefusedWithoutBeingTriedWhenThereIsNoneOrItIsEmptyOrTooLong) {
  const auto entered = [](std::u16string_view pin) { return std::make_shared<const SecretText>(pin); };
  // None and null; nine digits; nine characters of two bytes; eight for the user that are nine in UTF-16.
  for (const auto& pin :
       {std::shared_ptr<const SecretText>{}, std::make_shared<const SecretText>(), entered(u""),
        entered(u"123456789"), entered(u"\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4"),
        entered(u"1234567\U0001F511")}) {
    startAnew();
    script.card().info.ulMaxPinLen = 64;
    FakePinEntry entry = pinEntry();
    entry.request.pin = pin;
    std::optional<TKError> error;
    EXPECT_FALSE(entry.finish(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, -5);
    EXPECT_EQ(client->core->authState(), 0);
    EXPECT_EQ(script.countOf("C_Login"), 0U);
    EXPECT_EQ(script.card().triesLeft, 3U);
  }
}

TEST_F(EnteredPin, StandsInNoLine) {
  // Of digits that no address and no number of a line has in that order.
  constexpr std::u16string_view kPin = u"73918264";
  for (const bool isRight : {false, true}) {
    for (const bool hasProvider : {false, true}) {
      startAnew();
      if (isRight) script.card().pin = "73918264";
      if (!hasProvider) client->core->setSp(nullptr);
      std::optional<TKError> error;
      EXPECT_EQ(client->login(kPin, &error), isRight && hasProvider);
      (void)client->sign(Value(256, 1), &error);
      EXPECT_FALSE(log->allLines.empty());
      for (const std::string& line : log->allLines) {
        EXPECT_THAT(line, Not(HasSubstr("73918264")));
        EXPECT_THAT(line, Not(HasSubstr("3733393138323634")));
      }
      const Text told = error ? error->localizedDescription : Text{};
      EXPECT_THAT(told.toUtf8(), Not(HasSubstr("73918264")));
    }
  }
}

TEST_F(EnteredPin, StaysWithItsOwner) {
  const auto pin = std::make_shared<const SecretText>(u"123456");
  {
    FakePinEntry entry = pinEntry();
    entry.request.pin = pin;
    EXPECT_TRUE(entry.finish());
  }
  EXPECT_EQ(pin.use_count(), 1);
}

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
