/// Opening the card session, and logging the user in.

#include "platform/SecretText.h"
#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What comes of the selection, the opening and the login when one call of theirs fails.
struct Ending {
  std::size_t firstCall;
  std::size_t lastCall;
  const char* what;
  CK_SESSION_HANDLE session;  ///< of the record; 0: none, or there is no record
  bool accepted = false;
  std::uint64_t remains = 0;
  std::vector<CK_SESSION_HANDLE> open{};
};

const Ending kOnce[] = {
    // The selection's result is not looked at: the session is opened all the same.
    {0, 5, "finding the slot for the selection, opening a session there", 5, true, 5, {5}},
    {6, 6, "reading the token information", 6, true, 5, {6}},
    {7, 7, "closing the session for the token information", 6, true, 5, {5, 6}},
    // The record is then that of the selection, which has no session to log in to or to ask.
    {8, 12, "finding the slot for the session and opening it", 0},
    {13, 14, "reading about the session", 0},
    {15, 16, "the login, reading the session's state", 6, false, 0, {6}},
    {17, 17, "nothing", 6, true, 5, {6}},
};
const Ending kFromThenOn[] = {
    // Nothing is selected, so there is nobody to ask for the tries.
    {0, 5, "finding the slot for the selection, opening a session there", 0, false, 5},
    {6, 6, "reading the token information", 0, false, 5, {5}},
    {7, 7, "closing the session for the token information", 0, false, 0, {5}},
    {8, 12, "finding the slot for the session and opening it", 0},
    {13, 14, "reading about the session", 0, false, 0, {6}},
    {15, 16, "the login, reading the session's state", 6, false, 0, {6}},
    {17, 17, "nothing", 6, true, 5, {6}},
};

const Ending& endingOf(const FailPoint& point) {
  const Ending* ending = point.once() ? kOnce : kFromThenOn;
  while (point.n() > ending->lastCall) ++ending;
  return *ending;
}

// ---- openTKSmartCardTokenSession ----

class TokenSession : public ProviderTest {
 protected:
  TokenSession() { init(); }
};

TEST_F(TokenSession, IsANewOneOnTheCardOfTheReaderNamedEachTime) {
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("SECOND", "2"));
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 6U);
  EXPECT_EQ(record().slotID(), kSlot);
  EXPECT_EQ(script.calls().size(), kNumSelectingCalls + kNumOpeningCalls);
  EXPECT_EQ(provider->openTKSmartCardTokenSession(Text{u"Reader B 01"}), 8U);
  EXPECT_EQ(record().slotID(), second);
  EXPECT_EQ(provider->openTKSmartCardTokenSession(Text{u"Reader C"}), 0U);
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen({6, 8});
}

TEST_F(TokenSession, IsReturnedInFullAndZeroWithAFrameworkWhoseServiceIsNotOpen) {
  constexpr CK_SESSION_HANDLE kLarge = 0xFEDCBA9876543210;
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) -> CK_RV {
        *session = kLarge;
        return CKR_OK;
      });
  script.deviations.silent = {"C_GetSessionInfo"};
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), kLarge);
  script.forgetCalls();
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(TokenSession, IsTheOneOfTheRecordWhateverCallFails) {
  failEachCall(kNumSelectingCalls + kNumOpeningCalls, [&](FailPoint& point) {
    newProvider();
    init();
    point.arm();
    const CK_SESSION_HANDLE returned = provider->openTKSmartCardTokenSession(reader());
    const Ending& ending = endingOf(point);
    SCOPED_TRACE(ending.what);
    EXPECT_EQ(returned, ending.session);
    EXPECT_EQ(script.openSessions(), ending.open);
  });
}

// ---- userLogin ----

struct Answer {
  bool accepted = false;
  std::optional<std::uint64_t> remains = 77;
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

TEST_F(ProviderLogin, SelectsTheCardOpensANewSessionAndLogsInWithoutAHolderForTheCountToo) {
  script.addSlot("Reader B 01", emptyCard("SECOND", "2"));
  script.card(kSlot + 1).pin = "654321";
  expectAccepted(login());
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre("C_Login(6, 1, 313233343536)"));
  EXPECT_TRUE(script.card().loggedIn);
  EXPECT_EQ(record().hSession(), 6U);
  // The user of a token is logged in for all its sessions at once.
  expectAccepted(login());
  EXPECT_EQ(script.calls().back().result, CKR_USER_ALREADY_LOGGED_IN);
  EXPECT_EQ(record().hSession(), 8U);
  expectAccepted(login(SecretText{u"654321"}, 6, Text{u"Reader B 01"}));
  EXPECT_TRUE(provider->userLogin(reader(), SecretText{u"123456"}, 6, nullptr));
  EXPECT_FALSE(provider->userLogin(reader(), SecretText{}, 6, nullptr));
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen({6, 8, 10, 12, 14});
}

TEST_F(ProviderLogin, HandsTheFirstBytesOnAsManyAsTheCallerSays) {
  const struct {
    const char* what;
    std::u16string_view pin;
    std::uint64_t pinLen;
    const char* bytes;
  } rows[] = {
      {"one digit", u"1", 1, "31"},
      {"eight digits", u"12345678", 8, "3132333435363738"},
      // A length that is not that of the text
      {"less", u"123456", 2, "3132"},
      {"more: zeros follow", u"12", 8, "3132000000000000"},
      {"the first eight of nine digits", u"123456789", 8, "3132333435363738"},
      {"an empty PIN", u"", 4, "00000000"},
      {"U+0000 within", {u"12\00034", 5}, 5, "3132003334"},
      // Characters outside ASCII, counted as such and as bytes
      {"three characters of two bytes", u"\u00E4\u00F6\u00FC", 3, "C3A4C3"},
      {"their six bytes", u"\u00E4\u00F6\u00FC", 6, "C3A4C3B6C3BC"},
      {"the first eight of nine bytes", u"\u20AC\u20AC\u20AC", 8, "E282ACE282ACE282"},
      {"two units, four bytes", u"\U0001F511", 2, "F09F"},
      {"an unpaired surrogate", std::u16string_view{u"\xD800", 1}, 3, "EFBFBD"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.reset();
    newProvider();
    init();
    EXPECT_FALSE(login(SecretText{row.pin}, row.pinLen).accepted) << "the card's PIN is another";
    EXPECT_THAT(script.callTexts("C_Login"), ElementsAre("C_Login(6, 1, " + std::string{row.bytes} + ")"));
  }
  leavesOpen({kCardSession});
}

TEST_F(ProviderLogin, RefusesOtherLengthsAndANullPinWithoutAskingTheCard) {
  script.deviations.triesLeftAsDeviceError = true;
  for (const std::uint64_t pinLen : {0UL, 9UL, 0x100000006UL, kAllOnes}) {
    SCOPED_TRACE(pinLen);
    expectRefused(login(SecretText{u"123456789"}, pinLen), 3);
  }
  expectRefused(login(SecretText{}, 6), 3);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  leavesOpen(script.openSessions());
}

TEST_F(ProviderLogin, TakesTheTriesLeftAsTheModuleReportsThem) {
  script.deviations.triesLeftAsDeviceError = true;
  for (const std::uint64_t left : {2U, 1U, 0U}) expectRefused(login(u"654321"), left);
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([](auto real, auto session, CK_SESSION_INFO* info) {
    const CK_RV rv = real(session, info);
    info->ulDeviceError = 0x10000000000;
    return rv;
  });
  expectRefused(login(u"654321"), 0x10000000000);
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen(script.openSessions());
}

TEST_F(ProviderLogin, LeavesTheCountWhereThereIsNobodyToAsk) {
  expectRefused(login(SecretText{u"123456"}, 6, Text{u"Reader C"}), 5);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  expectRefused(login(), 5);
  provider->setPCTKFramework(nullptr);
  expectRefused(login(), 5);
}

TEST_F(ProviderLogin, EndsAsTheFailingCallHasIt) {
  failEachCall(kNumSelectingCalls + kNumOpeningCalls + 2, [&](FailPoint& point) {
    newProvider();
    init();
    point.arm();
    const Answer answer = login();
    const Ending& ending = endingOf(point);
    SCOPED_TRACE(ending.what);
    EXPECT_EQ(answer.accepted, ending.accepted);
    EXPECT_EQ(answer.remains, ending.remains);
    EXPECT_EQ(script.openSessions(), ending.open);
    EXPECT_THAT(log->allLines, IsEmpty());
  });
}

}  // namespace
}  // namespace mirel::test
