/// Reading what a slot and its token say about themselves.

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

class GetTokenInfo : public BridgeTest {
 protected:
  CK_RV read() { return bridge.pkcs11_GetTokenInfo(kSlot, &record); }

  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

TEST_F(GetTokenInfo, LooksAtThePointerThenForMemoryThenAtTheSlot) {
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, &record), CKR_SLOT_ID_INVALID);
  memory->failAllocation(0, Times::kFromThenOn);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, &record), CKR_HOST_MEMORY);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(record, nullptr);
}

TEST_F(GetTokenInfo, MakesANewRecordWhereThereIsNone) {
  EXPECT_EQ(read(), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->slotID(), kSlot);
  CK_SLOT_INFO slotInfo = script.slot().info;
  slotInfo.flags |= CKF_TOKEN_PRESENT;
  EXPECT_EQ(membersOf(record->slotInfo()), membersOf(slotInfo));
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(script.card().info));
  EXPECT_EQ(fieldText(record->tokenInfo().serialNumber), "1234567890ABCDEF");
  EXPECT_EQ(record->hSession(), 0U);
  EXPECT_EQ(membersOf(record->hSessionInfo()), membersOf(CK_SESSION_INFO{}));
  EXPECT_EQ(record->m_keyIndex(), 0);
  EXPECT_EQ(record->m_certIndex(), 0);
  EXPECT_EQ(record->pAsymKeys(), nullptr);
  EXPECT_EQ(record->pCerts(), nullptr);
}

TEST_F(GetTokenInfo, RefreshesOnlySlotAndTokenInformationOfARecordGiven) {
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  given->setSlotID(99);
  given->setHSession(88);
  given->setHSessionInfo({1, 2, 3, 4});
  given->setM_keyIndex(6);
  given->setM_certIndex(7);
  given->setPAsymKeys(std::make_shared<KeyRecords>());
  const auto keys = given->pAsymKeys();
  record = given;

  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(record, given);
  EXPECT_EQ(fieldText(given->slotInfo().slotDescription).substr(0, 11), "Reader A 00");
  EXPECT_EQ(membersOf(given->tokenInfo()), membersOf(script.card().info));
  EXPECT_EQ(given->slotID(), 99U);
  EXPECT_EQ(given->hSession(), 88U);
  EXPECT_EQ(given->hSessionInfo().ulDeviceError, 4U);
  EXPECT_EQ(given->m_keyIndex(), 6);
  EXPECT_EQ(given->m_certIndex(), 7);
  EXPECT_EQ(given->pAsymKeys(), keys);
  EXPECT_EQ(given->pCerts(), nullptr);
}

TEST_F(GetTokenInfo, LeavesARecordGivenAsItIsWhenItFails) {
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  record = given;
  for (const char* function : {"C_GetSlotInfo", "C_GetTokenInfo"}) {
    SCOPED_TRACE(function);
    script.failCallOf(function, 0, kSomeFailure);
    EXPECT_EQ(read(), kSomeFailure);
    EXPECT_EQ(record, given);
    EXPECT_EQ(given->slotInfo().flags, 0U);
    EXPECT_EQ(given->tokenInfo().flags, 0U);
  }
}

TEST_F(GetTokenInfo, TriesAgainOnceAfterDeviceRemovedAndAfterNothingElse) {
  const struct {
    const char* what;
    std::vector<CK_RV> answers;
    CK_RV answer;
    std::size_t numCalls;
  } rows[] = {
      {"removed once", {CKR_DEVICE_REMOVED}, CKR_OK, 2},
      {"removed twice", {CKR_DEVICE_REMOVED, CKR_DEVICE_REMOVED}, CKR_DEVICE_REMOVED, 2},
      {"removed, then another failure",
       {CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_RECOGNIZED},
       CKR_TOKEN_NOT_RECOGNIZED,
       2},
      {"device error", {CKR_DEVICE_ERROR}, CKR_DEVICE_ERROR, 1},
      {"not present", {CKR_TOKEN_NOT_PRESENT}, CKR_TOKEN_NOT_PRESENT, 1},
      {"device memory", {CKR_DEVICE_MEMORY}, CKR_DEVICE_MEMORY, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    startAnew();
    record = nullptr;
    for (std::size_t n = 0; n < row.answers.size(); ++n) {
      script.failCallOf("C_GetTokenInfo", n, row.answers[n]);
    }
    EXPECT_EQ(read(), row.answer);
    EXPECT_EQ(script.countOf("C_GetTokenInfo"), row.numCalls);
    EXPECT_EQ(record != nullptr, row.answer == CKR_OK);
  }
}

TEST_F(GetTokenInfo, ForgetsWhatATryWroteThatFailed) {
  int numCalls = 0;
  script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([&](auto, CK_SLOT_ID, CK_TOKEN_INFO* info) -> CK_RV {
    if (++numCalls == 2) return CKR_OK;
    setField(info->label, "LEFT BEHIND");
    return CKR_DEVICE_REMOVED;
  });
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(CK_TOKEN_INFO{}));
}

TEST_F(GetTokenInfo, ClosesNoSessionThatWasNotOpenedOrNotNamed) {
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) {
        *session = 4711;
        return kSomeFailure;
      });
  EXPECT_EQ(read(), CKR_OK);
  script.deviations.silent = {"C_OpenSession"};
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(GetTokenInfo, NeverClosesTheSessionThatARecordHolds) {
  record = std::make_shared<PKCS11_SERVICE_INFO>();
  record->setHSession(kFirstSession);  // which the module hands out once more
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  leavesOpen({kFirstSession});
}

TEST_F(GetTokenInfo, DoesNotEndALogin) {
  const CK_SESSION_HANDLE loggedIn = script.openSession(kSlot, CKF_SERIAL_SESSION);
  script.card().loggedIn = true;
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({loggedIn});
}

TEST_F(GetTokenInfo, GivesZerosWhereTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetSlotInfo", "C_GetTokenInfo"};
  EXPECT_EQ(read(), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(membersOf(record->slotInfo()), membersOf(CK_SLOT_INFO{}));
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(CK_TOKEN_INFO{}));
}

TEST_F(GetTokenInfo, LeavesOtherSlotsToTheModule) {
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(9, &record), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(0, &record), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(script.calls().size(), 2U);
}

}  // namespace
}  // namespace mirel::test
