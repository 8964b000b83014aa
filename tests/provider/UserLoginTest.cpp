/// Logging the user in.

#include "platform/SecretText.h"
#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kAllOnes = ~std::uint64_t{0};

struct Answer {
  bool accepted = false;
  std::optional<std::uint64_t> remains;
};

class ProviderLogin : public ProviderTest {
 protected:
  ProviderLogin() { init(); }

  Answer login(const SecretText& pin, std::uint64_t pinLen, const Text& tokenName = reader()) {
    Answer answer;
    answer.accepted = provider->userLogin(tokenName, pin, pinLen, &answer.remains);
    return answer;
  }
  Answer login(std::u16string_view pin = u"123456") { return login(SecretText{pin}, pin.size()); }

  /// Makes the module report that device error for every session.
  void sessionsReport(CK_ULONG deviceError) {
    script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>(
        [deviceError](auto real, CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
          const CK_RV rv = real(session, info);
          info->ulDeviceError = deviceError;
          return rv;
        });
  }
};

/// What an accepted PIN leaves: the count that the provider began with.
void expectAccepted(const Answer& answer) {
  EXPECT_TRUE(answer.accepted);
  EXPECT_EQ(answer.remains, 5U);
}

void expectRefused(const Answer& answer, std::uint64_t remains) {
  EXPECT_FALSE(answer.accepted);
  EXPECT_EQ(answer.remains, remains);
}

// ---- The way of a login ----

TEST_F(ProviderLogin, SelectsTheCardOpensASessionAndLogsIn) {
  expectAccepted(login());
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotList(1, list, 10)", "C_GetSlotList(1, null, 10)",
                          "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)", "C_GetSlotInfo(1)",
                          "C_OpenSession(1, 4, null, null)", "C_GetTokenInfo(1)", "C_CloseSession(5)",
                          // The selection ends here.
                          "C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)",
                          "C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetSessionInfo(6)",
                          "C_GetTokenInfo(1)",
                          // The session is open.
                          "C_Login(6, 1, 313233343536)", "C_GetSessionInfo(6)"));
  EXPECT_TRUE(script.card().loggedIn);
  EXPECT_EQ(record().hSession(), kCardSession);
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, OpensAnotherSessionEachTimeAndLeavesTheOldOnesOpen) {
  expectAccepted(login());
  // The user of a token is logged in for all its sessions at once.
  expectAccepted(login());
  EXPECT_EQ(script.calls().back().text, "C_Login(8, 1, 313233343536)");
  EXPECT_EQ(script.calls().back().result, CKR_USER_ALREADY_LOGGED_IN);
  EXPECT_EQ(record().hSession(), 8U);
  leavesOpen({6, 8});
}

TEST_F(ProviderLogin, IsOnTheCardOfTheReaderNamed) {
  script.addSlot("Reader B 01", emptyCard("SECOND", "2"));
  script.card(kSlot + 1).pin = "654321";
  const std::u16string_view pin = u"654321";
  expectAccepted(login(SecretText{pin}, pin.size(), Text{u"Reader B 01"}));
  EXPECT_TRUE(script.card(kSlot + 1).loggedIn);
  EXPECT_FALSE(script.card().loggedIn);
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, NeedsNoHolderForTheCount) {
  EXPECT_TRUE(provider->userLogin(reader(), SecretText{u"123456"}, 6, nullptr));
  EXPECT_FALSE(provider->userLogin(reader(), SecretText{}, 6, nullptr));
  leavesOpen({6, 8});
}

TEST_F(ProviderLogin, ReplacesWhatTheHolderHad) {
  std::optional<std::uint64_t> remains = 77;
  EXPECT_TRUE(provider->userLogin(reader(), SecretText{u"123456"}, 6, &remains));
  EXPECT_EQ(remains, 5U);
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, LogsNothing) {
  expectAccepted(login());
  script.card().loggedIn = false;
  EXPECT_FALSE(login(u"654321").accepted);
  EXPECT_FALSE(login(u"123456789").accepted);
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen(script.openSessions());
}

// ---- The length of the PIN ----

TEST_F(ProviderLogin, HandsTheFirstBytesOnAsManyAsTheCallerSays) {
  const struct {
    const char* description;
    std::u16string_view pin;
    std::uint64_t pinLen;
    const char* bytes;
  } rows[] = {
      {"one digit", u"1", 1, "31"},
      {"eight digits", u"12345678", 8, "3132333435363738"},
      // A length that is not that of the text
      {"less", u"123456", 2, "3132"},
      {"more: zeros follow", u"12", 8, "3132000000000000"},
      {"one more", u"1234567", 8, "3132333435363700"},
      {"the first eight of nine digits", u"123456789", 8, "3132333435363738"},
      {"an empty PIN", u"", 4, "00000000"},
      {"U+0000 within", {u"12\00034", 5}, 5, "3132003334"},
      // Characters outside ASCII, counted as such and as bytes
      {"three characters of two bytes", u"\u00E4\u00F6\u00FC", 3, "C3A4C3"},
      {"their six bytes", u"\u00E4\u00F6\u00FC", 6, "C3A4C3B6C3BC"},
      {"one character of two bytes", u"\u00E4", 1, "C3"},
      {"three characters of three bytes", u"\u20AC\u20AC\u20AC", 3, "E282AC"},
      {"the first eight of their nine bytes", u"\u20AC\u20AC\u20AC", 8, "E282ACE282ACE282"},
      {"two units, four bytes", u"\U0001F511", 2, "F09F"},
      {"an unpaired surrogate", std::u16string_view{u"\xD800", 1}, 3, "EFBFBD"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    script.reset();
    newProvider();
    init();
    EXPECT_FALSE(login(SecretText{row.pin}, row.pinLen).accepted) << "the card's PIN is another";
    EXPECT_THAT(script.callTexts("C_Login"), ElementsAre("C_Login(6, 1, " + std::string{row.bytes} + ")"));
  }
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, RefusesOtherLengthsWithoutAskingTheCard) {
  script.deviations.triesLeftAsDeviceError = true;
  const struct {
    const char* description;
    std::u16string_view pin;
    std::uint64_t pinLen;
  } rows[] = {
      {"none", u"", 0},
      {"none of six digits", u"123456", 0},
      {"nine digits", u"123456789", 9},
      {"nine of six digits", u"123456", 9},
      {"low 32 bits of 6", u"123456", 0x100000006},
      {"all-ones", u"123456", kAllOnes},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    expectRefused(login(SecretText{row.pin}, row.pinLen), 3);
    EXPECT_EQ(script.countOf("C_Login"), 0U);
  }
  EXPECT_FALSE(script.card().loggedIn);
  leavesOpen(script.openSessions());
}

TEST_F(ProviderLogin, RefusesANullPinWithoutAskingTheCard) {
  expectRefused(login(SecretText{}, 6), 0);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  EXPECT_EQ(script.calls().back().text, "C_GetSessionInfo(6)");
  leavesOpen({kCardSession});
}

// ---- The tries left ----

TEST_F(ProviderLogin, CountsTheTriesDownAsTheModuleReportsThem) {
  script.deviations.triesLeftAsDeviceError = true;
  for (const std::uint64_t left : {2U, 1U, 0U}) expectRefused(login(u"654321"), left);
  // The PIN is locked.
  expectRefused(login(), 0);
  EXPECT_FALSE(script.card().loggedIn);
  leavesOpen({6, 8, 10, 12});
}

TEST_F(ProviderLogin, LooksAtTheSessionAfterARefusal) {
  expectRefused(login(u"654321"), 0);
  ASSERT_EQ(script.calls().size(), 17U);
  EXPECT_EQ(script.calls()[15].text, "C_Login(6, 1, 363534333231)");
  EXPECT_EQ(script.calls()[15].result, CKR_PIN_INCORRECT);
  EXPECT_EQ(script.calls()[16].text, "C_GetSessionInfo(6)");
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, TakesAnyNumberForTheTriesLeft) {
  for (const CK_ULONG reported : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{5}, CK_ULONG{15}, CK_ULONG{256},
                                  CK_ULONG{0x10000000000}, CK_ULONG{kAllOnes}}) {
    SCOPED_TRACE(reported);
    script.reset();
    newProvider();
    init();
    sessionsReport(reported);
    expectRefused(login(u"654321"), reported);
    EXPECT_EQ(record().hSessionInfo().ulDeviceError, reported);
  }
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, CountsNoTriesWhenTheSessionCannotBeAskedEither) {
  // The first call is that of opening the session.
  script.failCallOf("C_GetSessionInfo", 1, CKR_DEVICE_ERROR);
  expectRefused(login(u"654321"), 0);
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, CountsForEveryRefusal) {
  script.deviations.triesLeftAsDeviceError = true;
  for (const CK_RV code : {CKR_PIN_INCORRECT, CKR_PIN_LOCKED, CKR_PIN_EXPIRED, CKR_DEVICE_REMOVED,
                           CKR_USER_TYPE_INVALID, CKR_USER_ANOTHER_ALREADY_LOGGED_IN}) {
    SCOPED_TRACE(code);
    script.failCallOf("C_Login", 0, code);
    expectRefused(login(), 3);
  }
  leavesOpen(script.openSessions());
}

TEST_F(ProviderLogin, IsRefusedWhenItLeavesNoUserState) {
  script.deviations.silent = {"C_Login"};
  script.deviations.triesLeftAsDeviceError = true;
  expectRefused(login(), 3);
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, IsRefusedWhenTheSessionReportsAnErrorAfterwards) {
  sessionsReport(7);
  expectRefused(login(), 7);
  leavesOpen({kCardSession});
}

// ---- Nothing to log in to ----

TEST_F(ProviderLogin, LeavesTheCountWithoutAFramework) {
  provider->setPCTKFramework(nullptr);
  expectRefused(login(), 5);
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(ProviderLogin, LeavesTheCountWithAFrameworkWhoseServiceIsNotOpen) {
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  expectRefused(login(), 5);
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(ProviderLogin, LeavesTheCountWithoutACard) {
  script.pullCard();
  expectRefused(login(), 5);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
}

TEST_F(ProviderLogin, LeavesTheCountForAReaderThatIsNotThere) {
  expectRefused(login(SecretText{u"123456"}, 6, Text{u"Reader C"}), 5);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
}

TEST_F(ProviderLogin, IsTriedWithoutASessionWhenNoneOpens) {
  script.failCallOf("C_OpenSession", 1, CKR_SESSION_COUNT);
  expectRefused(login(), 0);
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre("C_Login(0, 1, 313233343536)"));
  EXPECT_EQ(script.calls().back().text, "C_GetSessionInfo(0)");
}

TEST_F(ProviderLogin, GoesOnWhenTheSelectionFails) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  expectAccepted(login());
  leavesOpen(script.openSessions());
}

/// What comes of a login when one call fails, and which sessions stay open.
struct Ending {
  std::size_t firstCall;
  std::size_t lastCall;
  const char* what;
  bool accepted;
  std::uint64_t remains;
  std::vector<CK_SESSION_HANDLE> open;
};

void expectEnding(const std::vector<Ending>& endings, std::size_t n, const Answer& answer,
                  const std::vector<CK_SESSION_HANDLE>& open) {
  for (const Ending& ending : endings) {
    if (n < ending.firstCall || n > ending.lastCall) continue;
    SCOPED_TRACE(ending.what);
    EXPECT_EQ(answer.accepted, ending.accepted);
    EXPECT_EQ(answer.remains, ending.remains);
    EXPECT_EQ(open, ending.open);
    return;
  }
  ADD_FAILURE() << "call " << n << " was not expected";
}

TEST_F(ProviderLogin, EndsAsTheFailingCallHasIt) {
  constexpr std::size_t kNumCalls = 17;
  const std::vector<Ending> once{
      {0, 5, "finding the slot for the selection, opening a session there", true, 5, {5}},
      {6, 6, "reading the token information", true, 5, {6}},
      {7, 7, "closing the session for the token information", true, 5, {5, 6}},
      // The record is then that of the selection, which has no session to log in to or to ask.
      {8, 12, "finding the slot for the session and opening it", false, 0, {}},
      {13, 14, "reading about the session", false, 0, {}},
      {15, 15, "the login", false, 0, {6}},
      {16, 16, "reading the session's state", false, 0, {6}},
      {17, 17, "nothing", true, 5, {6}},
  };
  const std::vector<Ending> fromThenOn{
      // Nothing is selected.
      {0, 5, "finding the slot for the selection, opening a session there", false, 5, {}},
      {6, 6, "reading the token information", false, 5, {5}},
      {7, 7, "closing the session for the token information", false, 0, {5}},
      {8, 12, "finding the slot for the session and opening it", false, 0, {}},
      {13, 14, "reading about the session", false, 0, {6}},
      {15, 15, "the login", false, 0, {6}},
      {16, 16, "reading the session's state", false, 0, {6}},
      {17, 17, "nothing", true, 5, {6}},
  };
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newProvider();
    init();
    point.arm();
    const Answer answer = login();
    expectEnding(point.times() == Times::kOnce ? once : fromThenOn, point.n(), answer, script.openSessions());
    EXPECT_THAT(log->allLines, IsEmpty());
  });
}

}  // namespace
}  // namespace mirel::test
