/// Selecting the card of a named reader, opening and closing its session.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- EnumCards ----

class EnumCards : public FrameworkTest {
 protected:
  void expectFails(const Text& readerName = reader()) {
    EXPECT_FALSE(framework->EnumCards(readerName));
    EXPECT_FALSE(framework->p11ServiceInfo());
  }
};

TEST_F(EnumCards, MakesExactlyTheseCallsAndLogsNothing) {
  openService();
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_THAT(
      script.callTexts(),
      ElementsAre(
          // Is there a card at all?
          "C_GetSlotList(1, list, 10)",
          // Which slot is the reader's?
          "C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)",
          // What is in it? The session that it takes is given back.
          "C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetTokenInfo(1)", "C_CloseSession(5)"));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(EnumCards, StoresTheCardOfTheReaderNamedWithoutSessionAndLists) {
  const RetainedRecord retained = openAndList();
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("OTHER", "0000000000000002"));
  EXPECT_TRUE(framework->EnumCards(Text{u"Reader B"}));
  expectNewRecord(second, 0, {});
  // The old record is left to its holder.
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  expectUntouched(retained);
}

TEST_F(EnumCards, ReleasesTheRecordForAnUnknownReader) {
  const RetainedRecord retained = openAndList();
  expectFails(Text{u"Reader C"});
  expectReleased(retained);
  expectFails(Text{u"Reader C"});  // nor does it need a record to release
  expectUsableAgain();
}

TEST_F(EnumCards, AsksNoFurtherWhereTheFirstListFailsAndHasRoomForWhatAHostileModuleLists) {
  openService();
  for (int i = 2; i <= 11; ++i) script.addSlot("Reader N", emptyCard("N", "N"));
  expectFails();  // it has room for ten
  script.slots().clear();
  expectFails();
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, list, 10)", "C_GetSlotList(1, list, 10)"));
  startAnew();
  script.deviations.slotCountOnList = ~CK_ULONG{0};
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(record().slotID(), kSlot);
  script.deviations.slotCountOnList = 0;
  expectFails();
}

TEST_F(EnumCards, FailsWithAnyCallButThoseForTheSession) {
  constexpr std::size_t kOpenSession = 5;
  constexpr std::size_t kTokenInfo = 6;
  constexpr std::size_t kCloseSession = 7;
  failEachCall(8, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    const bool harmless = point.n() >= kCloseSession || (point.n() == kOpenSession && point.once());
    EXPECT_EQ(framework->EnumCards(reader()), harmless);
    EXPECT_EQ(framework->p11ServiceInfo() != nullptr, harmless);
    harmless ? expectUntouched(retained) : expectReleased(retained);
    // The session for the token information is closed, unless that fails. The one that the old record holds
    // is not.
    const bool left = point.n() == kCloseSession || (point.n() == kTokenInfo && !point.once());
    EXPECT_EQ(script.openSessions().size(), left ? 2U : 1U);
    EXPECT_EQ(script.openSessions().front(), kFirstSession);
  });
}

TEST_F(EnumCards, KeepsALoginEvenWhenItFails) {
  openSession();
  script.card().loggedIn = true;
  EXPECT_TRUE(framework->EnumCards(reader()));
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  expectFails();
  EXPECT_TRUE(script.card().loggedIn);
}

constexpr CK_SESSION_INFO kPublicSession{kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0};

// ---- OpenCardSession ----

using OpenCardSession = FrameworkTest;

TEST_F(OpenCardSession, MakesExactlyTheseCallsAndLogsNothing) {
  openService();
  EXPECT_TRUE(framework->OpenCardSession(reader(), framework->p11ServiceInfo()));
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)",
                          "C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetSessionInfo(5)",
                          "C_GetTokenInfo(1)"));
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen({kFirstSession});
}

TEST_F(OpenCardSession, StoresTheSessionAndAllAboutTheCardInPlaceOfTheRecord) {
  const RetainedRecord retained = openAndList();
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("OTHER", "0000000000000002"));
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  EXPECT_TRUE(framework->OpenCardSession(Text{u"Reader B"}, given));
  expectNewRecord(second, kFirstSession + 1, {second, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0});
  // The record given is not looked at, and the older session stays open.
  EXPECT_NE(framework->p11ServiceInfo(), given);
  EXPECT_EQ(given->slotID(), 0U);
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  expectUntouched(retained);
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(OpenCardSession, KeepsTheRecordForAReaderThatIsNotThere) {
  const RetainedRecord retained = openAndList();
  EXPECT_FALSE(framework->OpenCardSession(Text{u"Reader C"}, nullptr));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
  expectUntouched(retained);
}

TEST_F(OpenCardSession, FailsWithAnyCallAndKeepsTheRecord) {
  constexpr std::size_t kSessionInfo = 5;
  failEachCall(7, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    const bool succeeded = framework->OpenCardSession(reader(), nullptr);
    EXPECT_EQ(succeeded, !point.fired());
    expectUntouched(retained);
    if (!point.fired()) return;
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    EXPECT_EQ(retained.record->hSession(), kFirstSession);
    EXPECT_EQ(membersOf(retained.record->hSessionInfo()), membersOf(kPublicSession));
    // A session that no record got to hold is closed, as far as the module lets it be.
    EXPECT_EQ(script.countOf("C_CloseSession"), point.n() >= kSessionInfo ? 1U : 0U);
    EXPECT_EQ(script.openSessions().size(), point.n() >= kSessionInfo && !point.once() ? 2U : 1U);
  });
}

// ---- CloseCardSession ----

using CloseCardSession = FrameworkTest;

TEST_F(CloseCardSession, ClosesTheRecordsSessionAndLeavesARecordWithoutOne) {
  const RetainedRecord retained = openAndList();
  script.card().loggedIn = true;
  EXPECT_TRUE(framework->CloseCardSession(reader(), this));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)",
                                              "C_GetSlotInfo(1)", "C_CloseSession(5)"));
  EXPECT_FALSE(script.card().loggedIn) << "it ends with the last session";
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(record().hSession(), kNoHandle);
  EXPECT_EQ(membersOf(record().hSessionInfo()), membersOf(CK_SESSION_INFO{}));
  // All else stays.
  EXPECT_EQ(record().slotID(), kSlot);
  EXPECT_EQ(membersOf(record().tokenInfo()), membersOf(script.card().info));
  expectUntouched(retained);
  leavesOpen({});
}

TEST_F(CloseCardSession, ClosesTheSessionOfAnotherReadersCardAndFailsButNoOlderOne) {
  const RetainedRecord retained = openAndList();
  script.addSlot("Reader B 01", emptyCard("OTHER", "2"));
  EXPECT_FALSE(framework->CloseCardSession(Text{u"Reader B 01"}, nullptr));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(record().hSession(), kFirstSession);
  EXPECT_EQ(membersOf(record().hSessionInfo()), membersOf(kPublicSession));
  EXPECT_THAT(script.openSessions(), IsEmpty());
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  EXPECT_TRUE(framework->CloseCardSession(reader(), nullptr));
  leavesOpen({kFirstSession + 1});
}

TEST_F(CloseCardSession, NeedsThatReaderAndARecordAndLeavesItToTheModuleToRefuseWhatIsNoSession) {
  openSession();
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    record().setHSession(none);
    EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
    EXPECT_EQ(record().hSession(), none);
  }
  EXPECT_THAT(script.callTexts("C_CloseSession"), ElementsAre("C_CloseSession(0)", "C_CloseSession(none)"));
  script.forgetCalls();
  record().setHSession(kFirstSession);
  EXPECT_FALSE(framework->CloseCardSession(Text{u"Reader C"}, nullptr));
  EXPECT_EQ(record().hSession(), kFirstSession);
  framework->setP11ServiceInfo(nullptr);
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(CloseCardSession, FailsWithAnyCallAndKeepsTheRecord) {
  failEachCall(4, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    const bool succeeded = framework->CloseCardSession(reader(), nullptr);
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    EXPECT_EQ(record().hSession(), point.fired() ? kFirstSession : kNoHandle);
    expectUntouched(retained);
  });
}

}  // namespace
}  // namespace mirel::test
