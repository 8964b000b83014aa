#include <functional>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What the module reports of the only session it has, nobody being logged in.
constexpr CK_SESSION_INFO kPublicSession{kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0};

void expectInfo(const CK_SESSION_INFO& info, const CK_SESSION_INFO& expected) {
  EXPECT_EQ(info.slotID, expected.slotID);
  EXPECT_EQ(info.state, expected.state);
  EXPECT_EQ(info.flags, expected.flags);
  EXPECT_EQ(info.ulDeviceError, expected.ulDeviceError);
}

std::shared_ptr<PKCS11_SERVICE_INFO> recordWith(CK_SLOT_ID slot, CK_SESSION_HANDLE session) {
  auto record = std::make_shared<PKCS11_SERVICE_INFO>();
  record->setSlotID(slot);
  record->setHSession(session);
  record->setHSessionInfo({91, 92, 93, 94});
  return record;
}

// ---- pkcs11_OpenReadOnlySession ----

class OpenReadOnlySessionUnloaded : public UnloadedBridgeTest {};

TEST_F(OpenReadOnlySessionUnloaded, TestsTheFunctionListFirst) {
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kAllOnes, nullptr), CK_RV{0x190});
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CK_RV{0x190});
  EXPECT_EQ(record, nullptr);
}

class OpenReadOnlySession : public BridgeTest {
 protected:
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

TEST_F(OpenReadOnlySession, RefusesTheSlotNoneAndANullRecordPointerWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kAllOnes, &record), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(record, nullptr);
}

TEST_F(OpenReadOnlySession, AsksSlotThenSessionThenToken) {
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)",
                                              "C_GetSessionInfo(5)", "C_GetTokenInfo(1)"));
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, MakesARecordWithAllThatWasRead) {
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->hSession(), kFirstSession);
  EXPECT_EQ(record->slotID(), kSlot);
  expectInfo(record->hSessionInfo(), kPublicSession);
  EXPECT_EQ(record->slotInfo().slotDescription[0], 'R');
  EXPECT_EQ(record->slotInfo().flags, CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT);
  EXPECT_EQ(record->tokenInfo().label[0], 'T');
  EXPECT_EQ(record->tokenInfo().flags, 0x40DU);
  EXPECT_EQ(record->pAsymKeys(), nullptr);
  EXPECT_EQ(record->pCerts(), nullptr);
  EXPECT_EQ(record->m_keyIndex(), 0);
  EXPECT_EQ(record->m_certIndex(), 0);
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, RefreshesOnlyTheSessionInformationOfARecordWithoutSession) {
  const auto given = recordWith(77, kAllOnes);
  record = given;
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CK_RV{0xB3});
  EXPECT_EQ(record, given);
  expectInfo(given->hSessionInfo(), kPublicSession);
  EXPECT_EQ(given->hSession(), kAllOnes);
  EXPECT_EQ(given->slotID(), 77U);
  EXPECT_EQ(given->slotInfo().flags, 0U);
  EXPECT_EQ(given->tokenInfo().flags, 0U);
}

TEST_F(OpenReadOnlySession, KeepsTheSessionOfARecordThatHasOne) {
  for (const CK_SESSION_HANDLE held : {CK_SESSION_HANDLE{42}, CK_SESSION_HANDLE{0}}) {
    SCOPED_TRACE(held);
    const auto given = recordWith(77, held);
    record = given;
    EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
    EXPECT_EQ(record, given);
    expectInfo(given->hSessionInfo(), kPublicSession);
    EXPECT_EQ(given->hSession(), held);
    EXPECT_EQ(given->slotID(), 77U);
  }
}

TEST_F(OpenReadOnlySession, ClosesTheSessionThatAnExistingRecordDoesNotTake) {
  for (const CK_SESSION_HANDLE held : {CK_SESSION_HANDLE{42}, kAllOnes}) {
    SCOPED_TRACE(held);
    script.forgetCalls();
    record = recordWith(kSlot, held);
    (void)bridge.pkcs11_OpenReadOnlySession(kSlot, &record);
    const auto calls = script.callTexts();
    ASSERT_EQ(calls.size(), 5U);
    EXPECT_EQ(calls[3], "C_GetTokenInfo(1)");
    EXPECT_THAT(calls[4], ::testing::StartsWith("C_CloseSession("));
    EXPECT_THAT(script.openSessions(), IsEmpty());
  }
}

TEST_F(OpenReadOnlySession, NeverClosesTheSessionThatARecordHolds) {
  ASSERT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
  EXPECT_EQ(record->hSession(), kFirstSession);
  EXPECT_THAT(script.callTexts("C_CloseSession"), ElementsAre("C_CloseSession(6)"));
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, IgnoresAFailureToCloseTheSessionThatNobodyTakes) {
  record = recordWith(kSlot, 42);
  script.failCallOf("C_CloseSession", 0, kSomeFailure);
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
  EXPECT_TRUE(script.fired());
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, DoesNotTryAgainAfterDeviceRemoved) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED);
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_DEVICE_REMOVED);
  EXPECT_EQ(record, nullptr);
}

TEST_F(OpenReadOnlySession, AnswersThatThereIsNoneWhenTheModuleNamesNoSession) {
  script.deviations.silent = {"C_OpenSession", "C_GetSessionInfo"};
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CK_RV{0xB3});
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->hSession(), kAllOnes);
  expectInfo(record->hSessionInfo(), {0, 0, 0, 0});
}

TEST_F(OpenReadOnlySession, ClosesNothingWhenTheModuleNamesNoSession) {
  script.deviations.silent = {"C_OpenSession"};
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  EXPECT_EQ(record, nullptr);
}

TEST_F(OpenReadOnlySession, ClosesNothingWhenOpeningFails) {
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) {
        *session = 4711;
        return kSomeFailure;
      });
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), kSomeFailure);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(OpenReadOnlySession, GivesZerosWhereTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetSlotInfo", "C_GetSessionInfo", "C_GetTokenInfo"};
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->slotInfo().slotDescription[0], 0);
  EXPECT_EQ(record->slotInfo().flags, 0U);
  EXPECT_EQ(record->tokenInfo().label[0], 0);
  EXPECT_EQ(record->tokenInfo().flags, 0U);
  expectInfo(record->hSessionInfo(), {0, 0, 0, 0});
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, SurvivesEveryFailingCall) {
  const struct {
    const char* name;
    bool given;
    CK_SESSION_HANDLE held;
    CK_RV success;
  } rows[] = {
      {"new record", false, 0, CKR_OK},
      {"record with a session", true, 42, CKR_OK},
      {"record without a session", true, kAllOnes, 0xB3},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
      initialiseAgain();
      const auto given = row.given ? recordWith(77, row.held) : nullptr;
      auto current = given;
      point.arm();
      const CK_RV rv = bridge.pkcs11_OpenReadOnlySession(kSlot, &current);

      const bool closes = row.given || point.fired();  // what nobody can use any more
      const bool opened = !point.fired() || point.n() > 1;
      const bool onlyCloseFailed = point.fired() && point.n() == 4;
      EXPECT_EQ(rv, point.fired() && !onlyCloseFailed ? kSomeFailure : row.success);
      EXPECT_EQ(script.countOf("C_CloseSession"), opened && closes ? 1U : 0U);
      const bool closeFails = onlyCloseFailed || (point.fired() && point.times() == Times::kFromThenOn);
      const bool staysOpen = opened && (!closes || closeFails);
      EXPECT_EQ(script.openSessions().size(), staysOpen ? 1U : 0U);
      if (rv == kSomeFailure) {
        EXPECT_EQ(current, given);
        if (given) expectInfo(given->hSessionInfo(), {91, 92, 93, 94});
      } else if (given) {
        EXPECT_EQ(current, given);
        expectInfo(given->hSessionInfo(), kPublicSession);
        EXPECT_EQ(given->hSession(), row.held);
      } else {
        ASSERT_NE(current, nullptr);
        EXPECT_EQ(current->hSession(), kFirstSession);
      }
      if (!point.fired()) script.closeSessionsOf(kSlot);
    });
  }
}

TEST_F(OpenReadOnlySession, SurvivesEveryFailingAllocation) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    initialiseAgain();
    std::shared_ptr<PKCS11_SERVICE_INFO> current;
    point.arm();
    const CK_RV rv = bridge.pkcs11_OpenReadOnlySession(kSlot, &current);
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
    EXPECT_EQ(current == nullptr, point.fired());
    EXPECT_EQ(script.openSessions().empty(), point.fired());
    script.closeSessionsOf(kSlot);
  });
}

// ---- pkcs11_GetSessionInfo ----

class GetSessionInfoUnloaded : public UnloadedBridgeTest {};

TEST_F(GetSessionInfoUnloaded, TestsTheFunctionListFirst) {
  auto record = recordWith(kSlot, 5);
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(5, &record), CK_RV{0x190});
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(5, nullptr), CK_RV{0x190});
  expectInfo(record->hSessionInfo(), {91, 92, 93, 94});
}

class GetSessionInfo : public SessionTest {};

TEST_F(GetSessionInfo, StoresTheInformationAndNothingElse) {
  auto record = recordWith(77, 42);
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSessionInfo(5)"));
  expectInfo(record->hSessionInfo(), kPublicSession);
  EXPECT_EQ(record->hSession(), 42U);
  EXPECT_EQ(record->slotID(), 77U);
}

TEST_F(GetSessionInfo, StoresNothingInAnEmptyReference) {
  std::shared_ptr<PKCS11_SERVICE_INFO> none;
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &none), CKR_OK);
  EXPECT_EQ(none, nullptr);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSessionInfo(5)"));
}

TEST_F(GetSessionInfo, StoresNothingThroughANullPointer) {
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, nullptr), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSessionInfo(5)"));
}

TEST_F(GetSessionInfo, AnswersAFailureUnchangedAndLeavesTheRecord) {
  auto record = recordWith(kSlot, session);
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), kSomeFailure);
  expectInfo(record->hSessionInfo(), {91, 92, 93, 94});
}

TEST_F(GetSessionInfo, LeavesTheHandleToTheModule) {
  auto record = recordWith(kSlot, session);
  for (const CK_SESSION_HANDLE unknown : {CK_SESSION_HANDLE{0}, kAllOnes}) {
    EXPECT_EQ(bridge.pkcs11_GetSessionInfo(unknown, &record), CKR_SESSION_HANDLE_INVALID);
  }
  EXPECT_EQ(script.calls().size(), 2U);
}

TEST_F(GetSessionInfo, GivesZerosWhenTheModuleWritesNothing) {
  auto record = recordWith(kSlot, session);
  script.deviations.silent = {"C_GetSessionInfo"};
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  expectInfo(record->hSessionInfo(), {0, 0, 0, 0});
}

// ---- pkcs11_CloseSession ----

class CloseSessionUnloaded : public UnloadedBridgeTest {};

TEST_F(CloseSessionUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_CloseSession(kAllOnes, nullptr), CK_RV{0x190});
}

class CloseSession : public SessionTest {};

TEST_F(CloseSession, RefusesTheSlotNoneAndANullRecordWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_CloseSession(kAllOnes, recordWith(kAllOnes, session)), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(CloseSession, LeavesTheRecordWithoutSessionAndWithZeros) {
  const auto record = recordWith(kSlot, session);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, record), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_CloseSession(5)"));
  EXPECT_EQ(record->hSession(), kAllOnes);
  expectInfo(record->hSessionInfo(), {0, 0, 0, 0});
  EXPECT_EQ(record->slotID(), kSlot);
  leavesOpen({});
}

TEST_F(CloseSession, ClosesBeforeComparingTheSlot) {
  const auto record = recordWith(2, session);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, record), CK_RV{3});
  EXPECT_THAT(script.openSessions(), IsEmpty());
  EXPECT_EQ(record->hSession(), session);
  EXPECT_EQ(record->slotID(), 2U);
  expectInfo(record->hSessionInfo(), {91, 92, 93, 94});
  leavesOpen({});
}

TEST_F(CloseSession, AnswersAFailureBeforeComparingTheSlotAndLeavesTheRecord) {
  for (const CK_SLOT_ID slot : {kSlot, CK_SLOT_ID{2}}) {
    SCOPED_TRACE(slot);
    const auto record = recordWith(kSlot, session);
    script.failCall(0, kSomeFailure);
    EXPECT_EQ(bridge.pkcs11_CloseSession(slot, record), kSomeFailure);
    EXPECT_EQ(record->hSession(), session);
    expectInfo(record->hSessionInfo(), {91, 92, 93, 94});
  }
}

TEST_F(CloseSession, LeavesTheHandleToTheModule) {
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, recordWith(kSlot, kAllOnes)), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, recordWith(kSlot, 0)), CKR_SESSION_HANDLE_INVALID);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_CloseSession(none)", "C_CloseSession(0)"));
}

TEST_F(CloseSession, AnswersWhatTheModuleAnswersWhenTheCardWasPulled) {
  script.pullCard(kSlot, CKR_DEVICE_REMOVED);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, recordWith(kSlot, session)), CKR_DEVICE_REMOVED);
  leavesOpen({});
}

}  // namespace
}  // namespace mirel::test
