/// Operations that fill a record: asking a slot and its token, opening, asking and closing sessions. Logging
/// in.

#include <ostream>

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

// ---- What pkcs11_GetTokenInfo and pkcs11_OpenReadOnlySession have in common ----

struct Filling {
  const char* name;
  CK_RV (P11Bridge::*run)(CK_SLOT_ID, std::shared_ptr<PKCS11_SERVICE_INFO>*) noexcept;
  CK_SESSION_HANDLE session;  ///< of a new record
  CK_SESSION_INFO info;       ///< the same
  std::vector<CK_SESSION_HANDLE> open;
  /// Calls whose failure ends it.
  std::vector<const char*> needs;
};

const Filling kFillings[] = {
    {"TokenInfo", &P11Bridge::pkcs11_GetTokenInfo, 0, {}, {}, {"C_GetSlotInfo", "C_GetTokenInfo"}},
    {"Session",
     &P11Bridge::pkcs11_OpenReadOnlySession,
     kFirstSession,
     kPublicSession,
     {kFirstSession},
     {"C_GetSlotInfo", "C_OpenSession", "C_GetSessionInfo", "C_GetTokenInfo"}},
};

void PrintTo(const Filling& filling, std::ostream* out) { *out << filling.name; }

class FilledRecord : public BridgeTest, public ::testing::WithParamInterface<Filling> {
 protected:
  CK_RV fill() { return (bridge.*GetParam().run)(kSlot, &record); }

  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

INSTANTIATE_TEST_SUITE_P(Of, FilledRecord, ::testing::ValuesIn(kFillings),
                         [](const auto& row) { return row.param.name; });

TEST_P(FilledRecord, IsANewOneWithAllThatWasReadWhereThereIsNone) {
  EXPECT_EQ(fill(), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->slotID(), kSlot);
  CK_SLOT_INFO slotInfo = script.slot().info;
  slotInfo.flags |= CKF_TOKEN_PRESENT;
  EXPECT_EQ(membersOf(record->slotInfo()), membersOf(slotInfo));
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(script.card().info));
  EXPECT_EQ(fieldText(record->tokenInfo().serialNumber), "1234567890ABCDEF");
  EXPECT_EQ(record->hSession(), GetParam().session);
  expectInfo(*record, GetParam().info);
  EXPECT_EQ(record->m_keyIndex(), 0);
  EXPECT_EQ(record->m_certIndex(), 0);
  EXPECT_EQ(record->pAsymKeys(), nullptr);
  EXPECT_EQ(record->pCerts(), nullptr);
  leavesOpen(GetParam().open);
}

TEST_P(FilledRecord, HoldsZerosWhereTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetSlotInfo", "C_GetSessionInfo", "C_GetTokenInfo"};
  EXPECT_EQ(fill(), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(membersOf(record->slotInfo()), membersOf(CK_SLOT_INFO{}));
  EXPECT_EQ(membersOf(record->tokenInfo()), membersOf(CK_TOKEN_INFO{}));
  expectInfo(*record, {});
  leavesOpen(GetParam().open);
}

TEST_P(FilledRecord, IsLeftAsItIsWhenACallFails) {
  for (const char* function : GetParam().needs) {
    SCOPED_TRACE(function);
    const auto given = recordWith(77, 42);
    record = given;
    script.failCallOf(function, 0, kSomeFailure);
    EXPECT_EQ(fill(), kSomeFailure);
    EXPECT_EQ(record, given);
    expectInfo(*given, kUnwritten);
    EXPECT_EQ(given->slotInfo().flags, 0U);
    EXPECT_EQ(given->tokenInfo().flags, 0U);
    EXPECT_THAT(script.openSessions(), IsEmpty());
  }
}

TEST_P(FilledRecord, KeepsTheSessionThatItHoldsOpen) {
  record = recordWith(kSlot, kFirstSession);  // which the module hands out once more
  EXPECT_EQ(fill(), CKR_OK);
  EXPECT_EQ(record->hSession(), kFirstSession);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  leavesOpen({kFirstSession});
}

TEST_P(FilledRecord, HasNoSessionClosedThatCouldNotBeOpened) {
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) {
        *session = 4711;
        return kSomeFailure;
      });
  EXPECT_EQ(fill(), GetParam().open.empty() ? CKR_OK : kSomeFailure);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

// ---- pkcs11_GetTokenInfo ----

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

TEST_F(GetTokenInfo, RefreshesOnlySlotAndTokenInformationOfARecordGiven) {
  const auto given = recordWith(99, 88);
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
  expectInfo(*given, kUnwritten);
  EXPECT_EQ(given->m_keyIndex(), 6);
  EXPECT_EQ(given->m_certIndex(), 7);
  EXPECT_EQ(given->pAsymKeys(), keys);
  EXPECT_EQ(given->pCerts(), nullptr);
}

TEST_F(GetTokenInfo, TriesAgainOnceAfterDeviceRemovedAndAfterNothingElse) {
  // What the module answers; the operation answers the last of it.
  const std::vector<CK_RV> rows[] = {{CKR_DEVICE_REMOVED, CKR_OK},
                                     {CKR_DEVICE_REMOVED, CKR_DEVICE_REMOVED},
                                     {CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_RECOGNIZED},
                                     {CKR_DEVICE_ERROR},
                                     {CKR_TOKEN_NOT_PRESENT},
                                     {CKR_DEVICE_MEMORY}};
  for (const auto& answers : rows) {
    SCOPED_TRACE(::testing::PrintToString(answers));
    startAnew();
    record = nullptr;
    for (std::size_t n = 0; n < answers.size(); ++n) {
      if (answers[n] != CKR_OK) script.failCallOf("C_GetTokenInfo", n, answers[n]);
    }
    EXPECT_EQ(read(), answers.back());
    EXPECT_EQ(script.countOf("C_GetTokenInfo"), answers.size());
    EXPECT_EQ(record != nullptr, answers.back() == CKR_OK);
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

TEST_F(GetTokenInfo, ClosesNoSessionThatWasNotNamedAndLeavesOtherSlotsToTheModule) {
  script.deviations.silent = {"C_OpenSession"};
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
  script.forgetCalls();
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(9, &record), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(0, &record), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(script.calls().size(), 2U);
}

TEST_F(GetTokenInfo, DoesNotEndALogin) {
  const CK_SESSION_HANDLE loggedIn = script.openSession(kSlot, CKF_SERIAL_SESSION);
  script.card().loggedIn = true;
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({loggedIn});
}

// ---- pkcs11_OpenReadOnlySession ----

class OpenReadOnlySession : public BridgeTest {
 protected:
  CK_RV open() { return bridge.pkcs11_OpenReadOnlySession(kSlot, &record); }

  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

TEST_F(OpenReadOnlySession, NeedsASlotAndARecordPointerAndDoesNotTryAgainAfterDeviceRemoved) {
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kAllOnes, &record), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED);
  EXPECT_EQ(open(), CKR_DEVICE_REMOVED);
  EXPECT_EQ(record, nullptr);
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

// ---- pkcs11_GetSessionInfo ----

class AskSession : public SessionTest {
 protected:
  std::shared_ptr<PKCS11_SERVICE_INFO> record = recordWith(77, 42);
};

TEST_F(AskSession, StoresTheInformationAndNothingElseOrZerosWhenTheModuleWritesNothing) {
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  expectInfo(*record, kUserSession);
  EXPECT_EQ(record->hSession(), 42U);
  EXPECT_EQ(record->slotID(), 77U);
  script.deviations.silent = {"C_GetSessionInfo"};
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, &record), CKR_OK);
  expectInfo(*record, {});
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

// ---- pkcs11_CloseSession ----

class CloseSession : public SessionTest {};

TEST_F(CloseSession, RefusesTheSlotNoneAndANullRecordWithoutACallAndLeavesTheHandleToTheModule) {
  EXPECT_EQ(bridge.pkcs11_CloseSession(kAllOnes, recordWith(kAllOnes, session)), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    EXPECT_EQ(bridge.pkcs11_CloseSession(kSlot, recordWith(kSlot, none)), CKR_SESSION_HANDLE_INVALID);
  }
  EXPECT_THAT(script.callTexts(), ElementsAre("C_CloseSession(0)", "C_CloseSession(none)"));
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

// ---- pkcs11_UserLogin ----

const CK_BYTE* pinBytes(std::string_view pin) { return reinterpret_cast<const CK_BYTE*>(pin.data()); }

class UserLogin : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    script.card().loggedIn = false;
  }

  [[nodiscard]] CK_RV login(std::string_view pin = "123456") {
    return bridge.pkcs11_UserLogin(session, pinBytes(pin), pin.size());
  }
};

TEST_F(UserLogin, HandsPinsOfOneToEightBytesOnAsTheyAre) {
  const struct {
    const char* what;
    std::string_view pin;
    const char* call;
  } rows[] = {
      {"one byte", "1", "C_Login(5, 1, 31)"},
      {"eight bytes", "12345678", "C_Login(5, 1, 3132333435363738)"},
      {"a NUL within", {"12\00034", 5}, "C_Login(5, 1, 3132003334)"},
      {"a NUL at the end", {"1234\000", 5}, "C_Login(5, 1, 3132333400)"},
      {"no ASCII", "\xC3\xA4\xFF", "C_Login(5, 1, C3A4FF)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    script.card().pin = row.pin;
    script.card().loggedIn = false;
    EXPECT_EQ(login(row.pin), CKR_OK);
    EXPECT_EQ(script.callTexts().front(), row.call);
    EXPECT_TRUE(script.card().loggedIn);
  }
}

TEST_F(UserLogin, RefusesOtherPinsWithoutACallAndLeavesTheHandleToTheModule) {
  script.card().info.ulMaxPinLen = 64;
  script.card().pin = "123456789";
  EXPECT_EQ(login("123456789"), CKR_ARGUMENTS_BAD) << "though the token would take it";
  EXPECT_EQ(login(""), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_UserLogin(session, nullptr, 6), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_UserLogin(session, pinBytes("123456"), kAllOnes), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_UserLogin(session, pinBytes("123456"), 0x100000006), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    EXPECT_EQ(bridge.pkcs11_UserLogin(none, pinBytes("123456"), 6), CKR_SESSION_HANDLE_INVALID);
  }
}

TEST_F(UserLogin, JudgesWhatTheSessionReportsAfterwards) {
  constexpr CK_FLAGS kSerial = CKF_SERIAL_SESSION;
  const struct {
    const char* what;
    CK_SESSION_INFO info;
    CK_RV answer;
  } rows[] = {
      {"read-only user", {1, 1, kSerial, 0}, CKR_OK},
      {"read-write user", {1, 3, kSerial | 2, 0}, CKR_OK},
      {"user, with a device error", {1, 1, kSerial, 77}, 77},
      {"another slot than the card's", {9, 1, kSerial, 0}, CKR_OK},
      // It is bit 0 that counts, whatever else is set.
      {"a state of bits 0 and 2", {1, 5, kSerial, 0}, CKR_OK},
      {"every bit of the state", {1, kAllOnes, kSerial, 0}, CKR_OK},
      // Not serial.
      {"no flags", {1, 1, 0, 0}, kSessionReadOnlyExists},
      {"every flag but serial", {1, 1, ~kSerial, 0}, kSessionReadOnlyExists},
      {"no flags, no slot, no user", {kAllOnes, 0, 0, 5}, kSessionReadOnlyExists},
      // No slot.
      {"no slot", {kAllOnes, 1, kSerial, 0}, CKR_SLOT_ID_INVALID},
      {"no slot, no user", {kAllOnes, 0, kSerial, 5}, CKR_SLOT_ID_INVALID},
      // No user.
      {"read-only public", {1, 0, kSerial, 0}, kLoginDidNotTake},
      {"read-write public", {1, 2, kSerial, 0}, kLoginDidNotTake},
      {"security officer", {1, 4, kSerial, 0}, kLoginDidNotTake},
      {"every bit of the state but bit 0", {1, kAllOnes - 1, kSerial, 0}, kLoginDidNotTake},
      {"public, with a device error", {1, 0, kSerial, 77}, kLoginDidNotTake},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([&](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
      *out = row.info;
      return CKR_OK;
    });
    script.card().loggedIn = false;
    EXPECT_EQ(login(), row.answer);
  }
}

TEST_F(UserLogin, DoesNotBelieveALoginThatDidNothing) {
  script.deviations.silent = {"C_Login"};
  EXPECT_EQ(login(), kLoginDidNotTake);
  script.deviations.silent = {"C_GetSessionInfo"};
  EXPECT_EQ(login(), kSessionReadOnlyExists) << "zeros are no serial session";
}

TEST_F(UserLogin, KeepsThePinToItselfAndIsNoSuccessASecondTime) {
  EXPECT_EQ(login("000000"), CKR_PIN_INCORRECT);
  EXPECT_EQ(login("123456"), CKR_OK);
  EXPECT_EQ(login("123456"), CKR_USER_ALREADY_LOGGED_IN);
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_THAT(memory->requests(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
