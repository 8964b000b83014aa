/// Watching the card.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using List = CK_FUNCTION_LIST;

// ---- IsCardStateChanged ----

class IsCardStateChanged : public FrameworkTest {
 protected:
  IsCardStateChanged() { openSession(); }

  /// Makes the record say something else about its slot.
  void setStoredDescription(std::string_view description) {
    CK_SLOT_INFO info = record().slotInfo();
    setField(info.slotDescription, description);
    record().setSlotInfo(info);
  }

  void setStoredFlags(CK_FLAGS flags) {
    CK_TOKEN_INFO info = record().tokenInfo();
    info.flags = flags;
    record().setTokenInfo(info);
  }
};

TEST_F(IsCardStateChanged, MakesExactlyTheseCallsForAnUnchangedCard) {
  EXPECT_FALSE(framework->IsCardStateChanged("Reader A 00"));
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetTokenInfo(1)",
                          "C_CloseSession(6)", "C_GetSessionInfo(5)"));
}

TEST_F(IsCardStateChanged, ComparesTheNameWithTheStartOfTheStoredDescription) {
  // The record's slot information from the front: 64 characters of description, 32 of manufacturer.
  const std::string full = "Reader A " + std::string(55, 'x');
  const std::string manufacturer = "Scripted readers                ";
  ASSERT_EQ(full.size(), 64U);
  ASSERT_EQ(manufacturer.size(), 32U);
  const struct {
    const char* what;
    std::string description;
    std::string name;
    bool changed;
  } kRows[] = {
      {"the same name", "Reader A 00", "Reader A 00", false},
      {"with padding", "Reader A 00", "Reader A 00  ", false},
      {"a prefix", "Reader A 00", "Read", false},
      {"an empty name", "Reader A 00", "", false},
      {"all 64 characters", full, full, false},
      {"the last of 64 characters differs", full, full.substr(0, 63) + "y", true},
      {"another name", "Reader A 00", "Reader B 00", true},
      {"another case", "Reader A 00", "reader A 00", true},
      {"one character too many", "Reader A 00", "Reader A 001", true},
      {"65 characters that go on as the manufacturer does", full, full + manufacturer.substr(0, 1), true},
      {"the description and the whole manufacturer", full, full + manufacturer, true},
      {"longer than the whole structure", full, full + manufacturer + std::string(40, ' '), true},
      {"very long", full, std::string(100000, 'R'), true},
      // The name's bytes are signed, those of the description are not.
      {"bytes above 0x7F, the same", "Lecteur \xE9", "Lecteur \xE9", true},
      {"the byte 0x80, the same", "\x80", "\x80", true},
      {"the byte 0xFF, the same", "\xFF", "\xFF", true},
      {"the byte 0x7F, the same", "\x7F", "\x7F", false},
      {"a different byte above 0x7F", "Lecteur \xE9", "Lecteur \xE8", true},
      {"up to a byte above 0x7F", "Lecteur \xE9", "Lecteur ", false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    setStoredDescription(row.description);
    script.forgetCalls();
    EXPECT_EQ(framework->IsCardStateChanged(row.name.c_str()), row.changed);
    // A name that differs is enough to know.
    EXPECT_EQ(script.calls().empty(), row.changed);
  }
}

TEST_F(IsCardStateChanged, TakesANullNameForAnEmptyOne) {
  EXPECT_FALSE(framework->IsCardStateChanged(nullptr));
}

TEST_F(IsCardStateChanged, MatchesNoNameThatRunsThroughTheWholeStructure) {
  // 113 characters that are what the structure holds, with no zero byte anywhere in it.
  CK_SLOT_INFO info{};
  setField(info.slotDescription, std::string(64, 'A'));
  setField(info.manufacturerID, std::string(32, 'A'));
  info.flags = 0x4141414141414141;
  info.hardwareVersion = {'A', 'A'};
  info.firmwareVersion = {'A', 'A'};
  record().setSlotInfo(info);
  for (const std::size_t length : {65U, 96U, 104U, 108U, 112U, 113U, 200U}) {
    SCOPED_TRACE(length);
    EXPECT_TRUE(framework->IsCardStateChanged(std::string(length, 'A').c_str()));
  }
  EXPECT_FALSE(framework->IsCardStateChanged(std::string(64, 'A').c_str()));
}

TEST_F(IsCardStateChanged, CannotTellWithoutARecord) {
  framework->setP11ServiceInfo(nullptr);
  EXPECT_TRUE(framework->IsCardStateChanged(""));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(IsCardStateChanged, SeesThatTheCardWasPulled) {
  script.pullCard();
  EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
  leavesOpen({});
}

TEST_F(IsCardStateChanged, SeesThatTheReaderIsGone) {
  script.pullCard();
  script.slots().clear();
  EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
  leavesOpen({});
}

TEST_F(IsCardStateChanged, SeesThatTheCardWasExchangedForOneLikeIt) {
  const Card same = script.card();
  script.pullCard();
  script.insertCard(same);
  EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
  EXPECT_THAT(script.callTexts("C_GetSessionInfo"), ElementsAre("C_GetSessionInfo(5)"));
  leavesOpen({});
}

TEST_F(IsCardStateChanged, GoesByTheStoredTokenFlags) {
  setStoredFlags(0x40C);  // the card says 0x40D
  EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
  // By then the card has been asked, its session has not.
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 1U);
  EXPECT_EQ(script.countOf("C_GetSessionInfo"), 0U);

  setStoredFlags(CKF_RNG);
  script.card().info.flags = 0;
  EXPECT_FALSE(framework->IsCardStateChanged("Reader A 00"));
}

TEST_F(IsCardStateChanged, NeedsAStoredSession) {
  for (const CK_SESSION_HANDLE none : {CK_SESSION_HANDLE{0}, kNoHandle}) {
    SCOPED_TRACE(none);
    record().setHSession(none);
    EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
    EXPECT_EQ(script.countOf("C_GetSessionInfo"), 0U);
  }
}

TEST_F(IsCardStateChanged, NeedsAStoredSlot) {
  record().setSlotID(kNoHandle);
  EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(IsCardStateChanged, LooksAtTheStoredSessionOnceMoreAtTheEnd) {
  for (const CK_SESSION_HANDLE none : {CK_SESSION_HANDLE{0}, kNoHandle}) {
    SCOPED_TRACE(none);
    record().setHSession(kFirstSession);
    script.hook<&List::C_GetSessionInfo>([&](auto real, CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
      record().setHSession(none);
      return real(session, info);
    });
    EXPECT_TRUE(framework->IsCardStateChanged("Reader A 00"));
  }
}

TEST_F(IsCardStateChanged, KeepsTheSessionThatTheModuleHandsOutAgain) {
  script.hook<&List::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) -> CK_RV {
        *session = kFirstSession;
        return CKR_OK;
      });
  EXPECT_FALSE(framework->IsCardStateChanged("Reader A 00"));
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(IsCardStateChanged, LeavesTheRecordAsItIs) {
  const auto stored = framework->p11ServiceInfo();
  script.card().info.flags |= CKF_USER_PIN_COUNT_LOW;
  setField(script.card().info.label, "RENAMED");
  setField(script.slot().info.manufacturerID, "Somebody else");
  script.card().loggedIn = true;
  EXPECT_FALSE(framework->IsCardStateChanged("Reader A 00"));
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(stored->tokenInfo().flags, 0x40DU);
  EXPECT_EQ(fieldText(stored->tokenInfo().label).substr(0, 8), "TESTCARD");
  EXPECT_EQ(fieldText(stored->slotInfo().manufacturerID).substr(0, 16), "Scripted readers");
  EXPECT_EQ(stored->hSessionInfo().state, CKS_RO_PUBLIC_SESSION);
}

TEST_F(IsCardStateChanged, CannotTellWhenACallFails) {
  constexpr std::size_t kOpenSession = 1;
  constexpr std::size_t kTokenInfo = 2;
  constexpr std::size_t kCloseSession = 3;
  constexpr std::size_t kNumCalls = 5;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    point.arm();
    const bool changed = framework->IsCardStateChanged("Reader A 00");

    const bool once = point.times() == Times::kOnce;
    const bool harmless =
        !point.fired() || (once && (point.n() == kOpenSession || point.n() == kCloseSession));
    EXPECT_EQ(changed, !harmless);
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    EXPECT_EQ(record().hSession(), kFirstSession);
    expectUntouched(retained);

    const bool left = point.n() == kCloseSession || (point.n() == kTokenInfo && !once);
    std::vector<CK_SESSION_HANDLE> expected{kFirstSession};
    if (left) expected.push_back(kFirstSession + 1);
    EXPECT_EQ(script.openSessions(), expected);
  });
}

TEST_F(IsCardStateChanged, CannotTellWithoutMemory) {
  failEachAllocation(1, [&](FailPoint& point) {
    newFramework();
    openSession();
    point.arm();
    EXPECT_EQ(framework->IsCardStateChanged("Reader A 00"), point.n() == 0);
  });
}

TEST_F(IsCardStateChanged, LogsNothing) {
  log->allLines.clear();
  EXPECT_FALSE(framework->IsCardStateChanged("Reader A 00"));
  EXPECT_TRUE(framework->IsCardStateChanged("Reader B 00"));
  EXPECT_THAT(log->allLines, IsEmpty());
}

// ---- CheckEvent ----

class CheckEvent : public FrameworkTest {
 protected:
  CheckEvent() { setTo(kSlot, kFirstSession, 0, 7); }

  void setTo(CK_SLOT_ID slot, CK_SESSION_HANDLE session, CK_ULONG deviceError, CK_FLAGS flags) {
    given->setSlotID(slot);
    given->setHSession(session);
    CK_SESSION_INFO sessionInfo{};
    sessionInfo.ulDeviceError = deviceError;
    given->setHSessionInfo(sessionInfo);
    CK_TOKEN_INFO tokenInfo{};
    tokenInfo.flags = flags;
    given->setTokenInfo(tokenInfo);
  }

  std::shared_ptr<PKCS11_SERVICE_INFO> given = std::make_shared<PKCS11_SERVICE_INFO>();
};

TEST_F(CheckEvent, PostsTokenNotifyWithTheObjectAtOnce) {
  EXPECT_FALSE(framework->CheckEvent(given, Text{u"some object"}));
  ASSERT_EQ(notifications->posted.size(), 1U);
  EXPECT_EQ(notifications->posted[0].name, Text{u"TokenNotify"});
  EXPECT_EQ(notifications->posted[0].object, Text{u"some object"});
  EXPECT_TRUE(notifications->posted[0].deliverImmediately);
}

TEST_F(CheckEvent, PassesANullObjectOn) {
  EXPECT_FALSE(framework->CheckEvent(given, Text{}));
  ASSERT_EQ(notifications->posted.size(), 1U);
  EXPECT_TRUE(notifications->posted[0].object.isNull());
}

TEST_F(CheckEvent, JudgesTheRecordAlone) {
  constexpr struct {
    const char* what;
    CK_SLOT_ID slot;
    CK_SESSION_HANDLE session;
    CK_ULONG deviceError;
    CK_FLAGS flags;
    bool posts;
  } kRows[] = {
      {"flags of exactly 7", 1, 5, 0, 7, true},
      {"slot 0 and session 0 are not none", 0, 0, 0, 7, true},
      {"no slot", kNoHandle, 5, 0, 7, false},
      {"no session", 1, kNoHandle, 0, 7, false},
      {"a device error", 1, 5, 1, 7, false},
      {"a device error in the upper half", 1, 5, CK_ULONG{1} << 32U, 7, false},
      {"a device error of all-ones", 1, 5, ~CK_ULONG{0}, 7, false},
      {"no flags", 1, 5, 0, 0, false},
      {"one flag missing", 1, 5, 0, 3, false},
      {"another one missing", 1, 5, 0, 5, false},
      {"the third one missing", 1, 5, 0, 6, false},
      {"one flag more", 1, 5, 0, 0xF, false},
      {"the default card's", 1, 5, 0, 0x40D, false},
      {"one flag more in the upper half", 1, 5, 0, 0x100000007, false},
      {"all flags", 1, 5, 0, ~CK_FLAGS{0}, false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    notifications->posted.clear();
    setTo(row.slot, row.session, row.deviceError, row.flags);
    EXPECT_FALSE(framework->CheckEvent(given, Text{u"object"}));
    EXPECT_EQ(notifications->posted.size(), row.posts ? 1U : 0U);
  }
}

TEST_F(CheckEvent, PostsNothingForNoRecord) {
  EXPECT_FALSE(framework->CheckEvent(nullptr, Text{u"object"}));
  EXPECT_THAT(notifications->posted, IsEmpty());
}

TEST_F(CheckEvent, PostsNothingForANewRecord) {
  EXPECT_FALSE(framework->CheckEvent(std::make_shared<PKCS11_SERVICE_INFO>(), Text{u"object"}));
  EXPECT_THAT(notifications->posted, IsEmpty());
}

TEST_F(CheckEvent, PostsEachTime) {
  EXPECT_FALSE(framework->CheckEvent(given, Text{u"first"}));
  EXPECT_FALSE(framework->CheckEvent(given, Text{u"second"}));
  ASSERT_EQ(notifications->posted.size(), 2U);
  EXPECT_EQ(notifications->posted[1].object, Text{u"second"});
}

TEST_F(CheckEvent, MakesNoCallAndDoesNotLookAtTheStoredRecord) {
  openSession();  // its card has other flags
  log->allLines.clear();
  EXPECT_FALSE(framework->CheckEvent(given, Text{u"object"}));
  EXPECT_EQ(notifications->posted.size(), 1U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(CheckEvent, WorksOnARecordAsItWasRead) {
  script.card().info.flags = 7;
  openSession();
  EXPECT_FALSE(framework->CheckEvent(framework->p11ServiceInfo(), Text{u"object"}));
  EXPECT_EQ(notifications->posted.size(), 1U);
}

}  // namespace
}  // namespace mirel::test
