/// Opening and closing the card's session.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using List = CK_FUNCTION_LIST;

// ---- OpenCardSession ----

class OpenCardSession : public FrameworkTest {
 protected:
  OpenCardSession() { openService(); }
};

TEST_F(OpenCardSession, MakesExactlyTheseCalls) {
  EXPECT_TRUE(framework->OpenCardSession(reader(), framework->p11ServiceInfo()));
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)",
                          "C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetSessionInfo(5)",
                          "C_GetTokenInfo(1)"));
  leavesOpen({kFirstSession});
}

TEST_F(OpenCardSession, StoresTheSessionAndAllAboutTheCard) {
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("OTHER", "0000000000000002"));
  EXPECT_TRUE(framework->OpenCardSession(Text{u"Reader B"}, nullptr));
  EXPECT_EQ(record().slotID(), second);
  EXPECT_EQ(record().hSession(), kFirstSession);
  expectSessionInfo(record().hSessionInfo(), {second, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0});
  expectSlotInfo(record().slotInfo(), script.slot(second));
  expectTokenInfo(record().tokenInfo(), script.card(second).info);
  EXPECT_FALSE(record().pAsymKeys());
  EXPECT_FALSE(record().pCerts());
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_EQ(record().m_certIndex(), 0);
  leavesOpen({kFirstSession});
}

TEST_F(OpenCardSession, DoesNotLookAtTheRecordGiven) {
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  given->setSlotID(77);
  given->setHSession(kNoHandle);
  EXPECT_TRUE(framework->OpenCardSession(reader(), given));
  EXPECT_NE(framework->p11ServiceInfo(), given);
  EXPECT_EQ(record().slotID(), kSlot);
  EXPECT_EQ(given->slotID(), 77U);
  EXPECT_EQ(given->hSession(), kNoHandle);
  leavesOpen({kFirstSession});
}

TEST_F(OpenCardSession, OpensTheFirstCardForAnEmptyName) {
  EXPECT_TRUE(framework->OpenCardSession(Text{}, nullptr));
  EXPECT_EQ(record().slotID(), kSlot);
  EXPECT_TRUE(framework->OpenCardSession(Text{u""}, nullptr));
  EXPECT_EQ(record().slotID(), kSlot);
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(OpenCardSession, ReplacesTheRecordAndLeavesTheOlderSessionOpen) {
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  ASSERT_TRUE(framework->EnumCardKeys(reader()));
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_TRUE(framework->OpenCardSession(reader(), nullptr));
  EXPECT_EQ(record().hSession(), kFirstSession + 1);
  EXPECT_FALSE(record().pAsymKeys());
  EXPECT_FALSE(record().pCerts());
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  expectUntouched(retained);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(OpenCardSession, KeepsTheRecordForAReaderThatIsNotThere) {
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  ASSERT_TRUE(framework->EnumCardKeys(reader()));
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_FALSE(framework->OpenCardSession(Text{u"Reader C"}, nullptr));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  expectUntouched(retained);
  leavesOpen({kFirstSession});
}

TEST_F(OpenCardSession, KeepsTheRecordWhenTheCardIsGone) {
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  const auto stored = framework->p11ServiceInfo();
  script.pullCard();
  EXPECT_FALSE(framework->OpenCardSession(reader(), nullptr));
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(stored->hSession(), kFirstSession);
}

TEST_F(OpenCardSession, FailsWithAnyCallAndKeepsTheRecord) {
  constexpr std::size_t kSessionInfo = 5;
  constexpr std::size_t kNumCalls = 7;
  failEachCall(CKR_DEVICE_REMOVED, kNumCalls, [&](FailPoint& point) {
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    point.arm();
    const bool succeeded = framework->OpenCardSession(reader(), nullptr);
    EXPECT_EQ(succeeded, !point.fired());
    expectUntouched(retained);
    if (point.fired()) {
      EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
      EXPECT_EQ(retained.record->hSession(), kFirstSession);
      expectSessionInfo(retained.record->hSessionInfo(),
                        {kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0});

      // A session that no record got to hold is closed, as far as the module lets it be.
      const bool wasOpened = point.n() >= kSessionInfo;
      EXPECT_EQ(script.callTexts("C_CloseSession"),
                wasOpened ? std::vector<std::string>{"C_CloseSession(6)"} : std::vector<std::string>{});
      const bool left = wasOpened && point.times() == Times::kFromThenOn;
      std::vector<CK_SESSION_HANDLE> expected{kFirstSession};
      if (left) expected.push_back(kFirstSession + 1);
      EXPECT_EQ(script.openSessions(), expected);
    }
  });
}

TEST_F(OpenCardSession, FailsWithoutMemoryForTheSlots) {
  failEachAllocation(1, [&](FailPoint& point) {
    newFramework();
    openSession();
    const auto stored = framework->p11ServiceInfo();
    point.arm();
    const bool succeeded = framework->OpenCardSession(reader(), nullptr);
    EXPECT_EQ(succeeded, !point.fired());
    if (point.fired()) {
      EXPECT_EQ(framework->p11ServiceInfo(), stored);
    }
  });
}

TEST_F(OpenCardSession, TakesNothingThatWasNotWritten) {
  const auto stored = framework->p11ServiceInfo();
  const std::set<std::string> kRows[] = {
      {"C_GetSlotList"},
      {"C_GetSlotInfo"},
      {"C_OpenSession"},
      // A session whose handle was never written is none, whatever is said about it.
      {"C_OpenSession", "C_GetSessionInfo"},
  };
  for (const auto& silent : kRows) {
    SCOPED_TRACE(::testing::PrintToString(silent));
    script.deviations.silent = silent;
    EXPECT_FALSE(framework->OpenCardSession(reader(), nullptr));
    EXPECT_EQ(framework->p11ServiceInfo(), stored);
    EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  }
}

TEST_F(OpenCardSession, NeverOpensTheSlotThatMeansNone) {
  script.hook<&List::C_GetSlotList>([](auto, CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count) -> CK_RV {
    *count = 2;
    if (list) list[0] = kSlot, list[1] = kNoHandle;
    return CKR_OK;
  });
  script.hook<&List::C_GetSlotInfo>([](auto real, CK_SLOT_ID slot, CK_SLOT_INFO* info) -> CK_RV {
    if (slot != kNoHandle) return real(slot, info);
    setField(info->slotDescription, "Reader Z");
    return CKR_OK;
  });
  EXPECT_FALSE(framework->OpenCardSession(Text{u"Reader Z"}, nullptr));
  EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
}

TEST_F(OpenCardSession, LogsNothing) {
  log->allLines.clear();
  EXPECT_TRUE(framework->OpenCardSession(reader(), nullptr));
  EXPECT_FALSE(framework->OpenCardSession(Text{u"Reader C"}, nullptr));
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen({kFirstSession});
}

// ---- CloseCardSession ----

class CloseCardSession : public FrameworkTest {};

TEST_F(CloseCardSession, MakesExactlyTheseCalls) {
  openSession();
  EXPECT_TRUE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)",
                                              "C_GetSlotInfo(1)", "C_CloseSession(5)"));
  leavesOpen({});
}

TEST_F(CloseCardSession, LeavesARecordWithoutASession) {
  openSessionAndEnumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_TRUE(framework->CloseCardSession(reader(), this));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(record().hSession(), kNoHandle);
  expectSessionInfo(record().hSessionInfo(), {});
  // All else stays.
  EXPECT_EQ(record().slotID(), kSlot);
  expectTokenInfo(record().tokenInfo(), script.card().info);
  expectUntouched(retained);
  leavesOpen({});
}

TEST_F(CloseCardSession, ClosesTheSessionOfAnotherReadersCardAndFails) {
  openSessionAndEnumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  script.addSlot("Reader B 01", emptyCard("OTHER", "2"));
  EXPECT_FALSE(framework->CloseCardSession(Text{u"Reader B 01"}, nullptr));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(record().hSession(), kFirstSession);
  expectSessionInfo(record().hSessionInfo(), {kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0});
  expectUntouched(retained);
  leavesOpen({});
}

TEST_F(CloseCardSession, DoesNotCloseForAReaderThatIsNotThere) {
  openSession();
  EXPECT_FALSE(framework->CloseCardSession(Text{u"Reader C"}, nullptr));
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  EXPECT_EQ(record().hSession(), kFirstSession);
}

TEST_F(CloseCardSession, FailsWithoutARecord) {
  openSession();
  framework->setP11ServiceInfo(nullptr);
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(CloseCardSession, LeavesItToTheModuleToRefuseWhatIsNoSession) {
  openSession();
  ASSERT_TRUE(framework->CloseCardSession(reader(), nullptr));
  script.forgetCalls();
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_THAT(script.callTexts("C_CloseSession"), ElementsAre("C_CloseSession(none)"));

  ASSERT_TRUE(framework->EnumCards(reader()));
  script.forgetCalls();
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_THAT(script.callTexts("C_CloseSession"), ElementsAre("C_CloseSession(0)"));
  EXPECT_EQ(record().hSession(), 0U);
  leavesOpen({});
}

TEST_F(CloseCardSession, EndsTheLoginWithTheLastSession) {
  openSession();
  const Value pin = bytesOf("123456");
  ASSERT_EQ(framework->p11Bridge()->pkcs11_UserLogin(record().hSession(), pin.data(), pin.size()), CKR_OK);
  ASSERT_TRUE(script.card().loggedIn);
  EXPECT_TRUE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_FALSE(script.card().loggedIn);
  leavesOpen({});
}

TEST_F(CloseCardSession, LeavesOlderSessionsOpen) {
  openSession();
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  EXPECT_TRUE(framework->CloseCardSession(reader(), nullptr));
  leavesOpen({kFirstSession});
}

TEST_F(CloseCardSession, FailsWithAnyCallAndKeepsTheRecord) {
  constexpr std::size_t kNumCalls = 4;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    point.arm();
    const bool succeeded = framework->CloseCardSession(reader(), nullptr);
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    expectUntouched(retained);
    if (point.fired()) {
      EXPECT_EQ(record().hSession(), kFirstSession);
      EXPECT_EQ(script.openSessions(), only(kFirstSession));
    }
  });
}

TEST_F(CloseCardSession, FailsWithoutMemoryForTheSlots) {
  openSession();
  memory->failAllocation(0);
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_TRUE(memory->fired());
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

}  // namespace
}  // namespace mirel::test
