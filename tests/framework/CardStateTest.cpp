/// Watching the card.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- IsCardStateChanged ----

class IsCardStateChanged : public FrameworkTest {
 protected:
  IsCardStateChanged() { openSession(); }

  bool isChanged() { return framework->IsCardStateChanged("Reader A 00"); }
  void setStoredFlags(CK_FLAGS flags) {
    CK_TOKEN_INFO info = record().tokenInfo();
    info.flags = flags;
    record().setTokenInfo(info);
  }
};

TEST_F(IsCardStateChanged, MakesExactlyTheseCallsForAnUnchangedCardAndLogsNothing) {
  EXPECT_FALSE(isChanged());
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetTokenInfo(1)",
                          "C_CloseSession(6)", "C_GetSessionInfo(5)"));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(IsCardStateChanged, CannotTellWithoutARecordOrASlot) {
  record().setSlotID(kNoHandle);
  EXPECT_TRUE(isChanged());
  framework->setP11ServiceInfo(nullptr);
  EXPECT_TRUE(framework->IsCardStateChanged(""));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(IsCardStateChanged, SeesThatTheCardWasExchangedForOneLikeIt) {
  const Card same = script.card();
  script.pullCard();
  script.insertCard(same);
  EXPECT_TRUE(isChanged());
  EXPECT_THAT(script.callTexts("C_GetSessionInfo"), ElementsAre("C_GetSessionInfo(5)"));
  leavesOpen({});
}

TEST_F(IsCardStateChanged, GoesByTheStoredTokenFlags) {
  setStoredFlags(0x40C);  // the card says 0x40D
  EXPECT_TRUE(isChanged());
  // By then the card has been asked, its session has not.
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 1U);
  EXPECT_EQ(script.countOf("C_GetSessionInfo"), 0U);
  setStoredFlags(CKF_RNG);
  script.card().info.flags = 0;
  EXPECT_FALSE(isChanged());
}

TEST_F(IsCardStateChanged, NeedsAStoredSessionBeforeAndAfterItIsAsked) {
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    SCOPED_TRACE(none);
    script.forgetCalls();
    record().setHSession(none);
    EXPECT_TRUE(isChanged());
    EXPECT_EQ(script.countOf("C_GetSessionInfo"), 0U);
    record().setHSession(kFirstSession);
    script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>(
        [&](auto real, CK_SESSION_HANDLE session, CK_SESSION_INFO* info) {
          record().setHSession(none);
          return real(session, info);
        });
    EXPECT_TRUE(isChanged());
  }
}

TEST_F(IsCardStateChanged, LeavesTheRecordAsItIs) {
  const auto stored = framework->p11ServiceInfo();
  const auto before = stored->mutableCopyWithZone();
  script.card().info.flags |= CKF_USER_PIN_COUNT_LOW;
  setField(script.card().info.label, "RENAMED");
  setField(script.slot().info.manufacturerID, "Somebody else");
  script.card().loggedIn = true;
  EXPECT_FALSE(isChanged());
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(membersOf(stored->tokenInfo()), membersOf(before->tokenInfo()));
  EXPECT_EQ(membersOf(stored->slotInfo()), membersOf(before->slotInfo()));
  EXPECT_EQ(membersOf(stored->hSessionInfo()), membersOf(before->hSessionInfo()));
}

TEST_F(IsCardStateChanged, CannotTellWhenACallFailsThatItNeeds) {
  constexpr std::size_t kOpenSession = 1;
  constexpr std::size_t kTokenInfo = 2;
  constexpr std::size_t kCloseSession = 3;
  failEachCall(5, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    const bool changed = isChanged();
    const bool harmless =
        !point.fired() || (point.once() && (point.n() == kOpenSession || point.n() == kCloseSession));
    EXPECT_EQ(changed, !harmless);
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    EXPECT_EQ(record().hSession(), kFirstSession);
    expectUntouched(retained);
    const bool left = point.n() == kCloseSession || (point.n() == kTokenInfo && !point.once());
    EXPECT_EQ(script.openSessions().size(), left ? 2U : 1U);
  });
}

// ---- CheckEvent ----

class CheckEvent : public FrameworkTest {
 protected:
  struct Row {
    const char* what;
    bool posts = false;
    CK_SLOT_ID slot = 1;
    CK_SESSION_HANDLE session = 5;
    CK_ULONG deviceError = 0;
    CK_FLAGS flags = 7;
  };

  static std::shared_ptr<PKCS11_SERVICE_INFO> recordOf(const Row& row) {
    auto given = std::make_shared<PKCS11_SERVICE_INFO>();
    given->setSlotID(row.slot);
    given->setHSession(row.session);
    given->setHSessionInfo({0, 0, 0, row.deviceError});
    CK_TOKEN_INFO tokenInfo{};
    tokenInfo.flags = row.flags;
    given->setTokenInfo(tokenInfo);
    return given;
  }
};

TEST_F(CheckEvent, PostsTokenNotifyWithTheObjectAtOnceEachTime) {
  openSession();  // the stored record has other flags
  for (const Text& object : {Text{u"some object"}, Text{}}) {
    EXPECT_FALSE(framework->CheckEvent(recordOf({}), object));
    EXPECT_EQ(notifications->posted.back().name, Text{u"TokenNotify"});
    EXPECT_EQ(notifications->posted.back().object, object);
    EXPECT_TRUE(notifications->posted.back().deliverImmediately);
  }
  EXPECT_EQ(notifications->posted.size(), 2U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(CheckEvent, JudgesTheRecordGivenAloneAndPostsNothingForNone) {
  EXPECT_FALSE(framework->CheckEvent(nullptr, Text{u"object"}));
  EXPECT_THAT(notifications->posted, IsEmpty());
  constexpr Row rows[] = {
      {.what = "flags of exactly 7", .posts = true},
      {.what = "slot 0 and session 0 are not none", .posts = true, .slot = 0, .session = 0},
      {.what = "no slot", .slot = kNoHandle},
      {.what = "no session", .session = kNoHandle},
      {.what = "a device error", .deviceError = 1},
      {.what = "a device error in the upper half", .deviceError = CK_ULONG{1} << 32U},
      {.what = "no flags", .flags = 0},
      {.what = "one flag missing", .flags = 3},
      {.what = "another one missing", .flags = 5},
      {.what = "the third one missing", .flags = 6},
      {.what = "one flag more", .flags = 0xF},
      {.what = "the default card's", .flags = 0x40D},
      {.what = "one flag more in the upper half", .flags = 0x100000007},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    notifications->posted.clear();
    EXPECT_FALSE(framework->CheckEvent(recordOf(row), Text{u"object"}));
    EXPECT_EQ(notifications->posted.size(), row.posts ? 1U : 0U);
  }
}

}  // namespace
}  // namespace mirel::test
