/// Opening, asking and closing sessions.

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_SESSION_INFO kPublicSession{kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0};
constexpr CK_SESSION_INFO kUserSession{kSlot, CKS_RO_USER_FUNCTIONS, CKF_SERIAL_SESSION, 0};
/// What a record says that nobody has written to.
constexpr CK_SESSION_INFO kUnwritten{91, 92, 93, 94};

void expectInfo(const PKCS11_SERVICE_INFO& record, const CK_SESSION_INFO& expected) {
  EXPECT_EQ(membersOf(record.hSessionInfo()), membersOf(expected));
}

std::shared_ptr<PKCS11_SERVICE_INFO> recordWith(CK_SLOT_ID slot, CK_SESSION_HANDLE session) {
  auto record = std::make_shared<PKCS11_SERVICE_INFO>();
  record->setSlotID(slot);
  record->setHSession(session);
  record->setHSessionInfo(kUnwritten);
  return record;
}

// ---- pkcs11_OpenReadOnlySession ----

class OpenReadOnlySession : public BridgeTest {
 protected:
  CK_RV open() { return bridge.pkcs11_OpenReadOnlySession(kSlot, &record); }

  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

TEST_F(OpenReadOnlySession, RefusesTheSlotNoneAndANullRecordPointerWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kAllOnes, &record), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(record, nullptr);
}

TEST_F(OpenReadOnlySession, MakesARecordWithAllThatWasRead) {
  EXPECT_EQ(open(), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->hSession(), kFirstSession);
  EXPECT_EQ(record->slotID(), kSlot);
  expectInfo(*record, kPublicSession);
  CK_SLOT_INFO slotInfo = script.slot().info;
  slotInfo.flags |= CKF_TOKEN_PRESENT;
  EXPECT_EQ(membersOf(record->slotInfo()), membersOf(slotInfo));
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(script.card().info));
  EXPECT_EQ(record->pAsymKeys(), nullptr);
  EXPECT_EQ(record->pCerts(), nullptr);
  EXPECT_EQ(record->m_keyIndex(), 0);
  EXPECT_EQ(record->m_certIndex(), 0);
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, RefreshesOnlyTheSessionInformationOfARecordGivenAndClosesTheNewSession) {
  const struct {
    CK_SESSION_HANDLE held;
    CK_RV answer;
  } rows[] = {{42, CKR_OK}, {0, CKR_OK}, {kAllOnes, kSessionExists}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.held);
    const auto given = recordWith(77, row.held);
    record = given;
    EXPECT_EQ(open(), row.answer);
    EXPECT_EQ(record, given);
    expectInfo(*given, kPublicSession);
    EXPECT_EQ(given->hSession(), row.held);
    EXPECT_EQ(given->slotID(), 77U);
    EXPECT_EQ(given->slotInfo().flags, 0U);
    EXPECT_EQ(given->tokenInfo().flags, 0U);
    EXPECT_THAT(script.openSessions(), IsEmpty());
  }
}

TEST_F(OpenReadOnlySession, LeavesARecordGivenAsItIsWhenItFails) {
  for (const char* function : {"C_GetSlotInfo", "C_OpenSession", "C_GetSessionInfo", "C_GetTokenInfo"}) {
    SCOPED_TRACE(function);
    const auto given = recordWith(77, 42);
    record = given;
    script.failCallOf(function, 0, kSomeFailure);
    EXPECT_EQ(open(), kSomeFailure);
    EXPECT_EQ(record, given);
    expectInfo(*given, kUnwritten);
    EXPECT_THAT(script.openSessions(), IsEmpty());
  }
}

TEST_F(OpenReadOnlySession, NeverClosesTheSessionThatARecordHolds) {
  record = recordWith(kSlot, kFirstSession);  // which the module hands out once more
  EXPECT_EQ(open(), CKR_OK);
  EXPECT_EQ(record->hSession(), kFirstSession);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  leavesOpen({kFirstSession});
}

TEST_F(OpenReadOnlySession, DoesNotTryAgainAfterDeviceRemoved) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED);
  EXPECT_EQ(open(), CKR_DEVICE_REMOVED);
  EXPECT_EQ(record, nullptr);
}

TEST_F(OpenReadOnlySession, AnswersThatThereIsNoneWhenTheModuleNamesNoSession) {
  script.deviations.silent = {"C_OpenSession", "C_GetSessionInfo"};
  EXPECT_EQ(open(), kSessionExists);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->hSession(), kAllOnes);
  expectInfo(*record, {});
  record = nullptr;
  script.deviations.silent = {"C_OpenSession"};
  EXPECT_EQ(open(), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(OpenReadOnlySession, ClosesNothingWhenOpeningFails) {
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) {
        *session = 4711;
        return kSomeFailure;
      });
  EXPECT_EQ(open(), kSomeFailure);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(OpenReadOnlySession, GivesZerosWhereTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetSlotInfo", "C_GetSessionInfo", "C_GetTokenInfo"};
  EXPECT_EQ(open(), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(membersOf(record->slotInfo()), membersOf(CK_SLOT_INFO{}));
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(CK_TOKEN_INFO{}));
  expectInfo(*record, {});
  leavesOpen({kFirstSession});
}

// ---- pkcs11_GetSessionInfo ----

class AskSession : public SessionTest {
 protected:
  std::shared_ptr<PKCS11_SERVICE_INFO> record = recordWith(77, 42);
};

TEST_F(AskSession, StoresTheInformationAndNothingElse) {
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  expectInfo(*record, kUserSession);
  EXPECT_EQ(record->hSession(), 42U);
  EXPECT_EQ(record->slotID(), 77U);
}

TEST_F(AskSession, StoresNothingInAnEmptyReference) {
  record = nullptr;
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  EXPECT_EQ(record, nullptr);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSessionInfo(5)"));
}

TEST_F(AskSession, LeavesTheRecordWhenTheModuleFailsOrDoesNotKnowTheSession) {
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), kSomeFailure);
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    EXPECT_EQ(bridge.pkcs11_GetSessionInfo(none, &record), CKR_SESSION_HANDLE_INVALID);
  }
  expectInfo(*record, kUnwritten);
}

TEST_F(AskSession, GivesZerosWhenTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetSessionInfo"};
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  expectInfo(*record, {});
}

// ---- pkcs11_CloseSession ----

class CloseSession : public SessionTest {};

TEST_F(CloseSession, RefusesTheSlotNoneAndANullRecordWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_CloseSession(kAllOnes, recordWith(kAllOnes, session)), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(CloseSession, LeavesTheRecordWithoutSessionAndWithZeros) {
  const auto record = recordWith(kSlot, session);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, record), CKR_OK);
  EXPECT_EQ(record->hSession(), kAllOnes);
  expectInfo(*record, {});
  EXPECT_EQ(record->slotID(), kSlot);
  leavesOpen({});
}

TEST_F(CloseSession, ClosesBeforeComparingTheSlot) {
  const auto record = recordWith(2, session);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, record), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(record->hSession(), session);
  EXPECT_EQ(record->slotID(), 2U);
  expectInfo(*record, kUnwritten);
  leavesOpen({});
}

TEST_F(CloseSession, AnswersAFailureBeforeComparingTheSlotAndLeavesTheRecord) {
  for (const CK_SLOT_ID slot : {kSlot, CK_SLOT_ID{2}}) {
    SCOPED_TRACE(slot);
    const auto record = recordWith(kSlot, session);
    script.failCall(0, kSomeFailure);
    EXPECT_EQ(bridge.pkcs11_CloseSession(slot, record), kSomeFailure);
    EXPECT_EQ(record->hSession(), session);
    expectInfo(*record, kUnwritten);
  }
}

TEST_F(CloseSession, LeavesTheHandleToTheModule) {
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, recordWith(kSlot, none)), CKR_SESSION_HANDLE_INVALID);
  }
  EXPECT_THAT(script.callTexts(), ElementsAre("C_CloseSession(0)", "C_CloseSession(none)"));
}

}  // namespace
}  // namespace mirel::test
