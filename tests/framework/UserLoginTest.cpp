/// The user's login, and what is told about the tries left.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using List = CK_FUNCTION_LIST;

constexpr CK_ULONG kUnwritten = 77;

class PerformUserLogin : public FrameworkTest {
 protected:
  PerformUserLogin() { openAndForget(); }

  void openAndForget() {
    openSessionAndEnumerate();
    script.deviations.triesLeftAsDeviceError = true;
    tries = kUnwritten;
  }

  bool login(std::string_view pin = "123456") { return loginWith(framework->p11ServiceInfo(), pin); }
  bool loginWith(const std::shared_ptr<PKCS11_SERVICE_INFO>& given, std::string_view pin) {
    return framework->PerformUserLogin(given, reinterpret_cast<const CK_BYTE*>(pin.data()), pin.size(),
                                       &tries);
  }

  /// Makes the module report that of every session.
  void sessionsReport(const CK_SESSION_INFO& info) {
    script.hook<&List::C_GetSessionInfo>([info](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
      *out = info;
      return CKR_OK;
    });
  }

  CK_ULONG tries = kUnwritten;
};

TEST_F(PerformUserLogin, MakesExactlyTheseCallsWithTheRightPin) {
  EXPECT_TRUE(login());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(5, 1, 313233343536)", "C_GetSessionInfo(5)"));
  EXPECT_TRUE(script.card().loggedIn);
}

TEST_F(PerformUserLogin, WritesNothingWhenItSucceeds) {
  script.card().triesLeft = 2;
  EXPECT_TRUE(login());
  EXPECT_EQ(tries, kUnwritten);
  expectSessionInfo(record().hSessionInfo(), {kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0});
}

TEST_F(PerformUserLogin, SucceedsForAUserWhoIsLoggedInAlready) {
  ASSERT_TRUE(login());
  script.forgetCalls();
  EXPECT_TRUE(login());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(5, 1, 313233343536)"));
  EXPECT_EQ(tries, kUnwritten);
  // Nobody compares the PIN then.
  EXPECT_TRUE(login("000000"));
}

TEST_F(PerformUserLogin, SucceedsWithExactlyTwoCodes) {
  const struct {
    CK_RV code;
    bool succeeds;
  } rows[] = {
      {0x100, true}, {0x101, false}, {0x1A0, false},      {0x102, false},       {0x300, false},
      {0x80, false}, {0xA0, false},  {0x80000100, false}, {0x100000100, false}, {1, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.code);
    tries = kUnwritten;
    script.failCallOf("C_Login", 0, row.code);
    EXPECT_EQ(login(), row.succeeds);
    EXPECT_EQ(tries, row.succeeds ? kUnwritten : 3U);
  }
}

TEST_F(PerformUserLogin, TakesADeviceErrorAfterTheLoginForItsResult) {
  // The bridge answers the session's device error; one of 0x100 is masked off like the code of that value.
  const struct {
    CK_ULONG deviceError;
    bool succeeds;
  } rows[] = {{0, true}, {0x100, true}, {1, false}, {0x101, false}, {0x200, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.deviceError);
    script.card().loggedIn = false;
    tries = kUnwritten;
    sessionsReport({kSlot, CKS_RO_USER_FUNCTIONS, CKF_SERIAL_SESSION, row.deviceError});
    EXPECT_EQ(login(), row.succeeds);
    EXPECT_EQ(tries, row.succeeds ? kUnwritten : row.deviceError);
  }
}

TEST_F(PerformUserLogin, AnswersTheTriesLeftAfterAWrongPin) {
  for (const CK_ULONG left : {2U, 1U, 0U}) {
    SCOPED_TRACE(left);
    script.forgetCalls();
    EXPECT_FALSE(login("000000"));
    EXPECT_EQ(tries, left);
    EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(5, 1, 303030303030)", "C_GetSessionInfo(5)"));
  }
  // Locked.
  tries = kUnwritten;
  EXPECT_FALSE(login("123456"));
  EXPECT_EQ(tries, 0U);
}

TEST_F(PerformUserLogin, StoresTheSessionInformationAfterAWrongPin) {
  const RetainedRecord retained{framework->p11ServiceInfo()};
  sessionsReport({9, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION, 1UL << 40U});
  EXPECT_FALSE(login("000000"));
  EXPECT_EQ(tries, 1UL << 40U);
  expectSessionInfo(record().hSessionInfo(),
                    {9, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION, 1UL << 40U});
  // In the same record, in which nothing else changes.
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(record().hSession(), kFirstSession);
  EXPECT_EQ(record().slotID(), kSlot);
  expectSlotInfo(record().slotInfo(), script.slot());
  expectUntouched(retained);
}

TEST_F(PerformUserLogin, AnswersZerosWhenTheSessionSaysNothing) {
  const struct {
    const char* name;
    std::function<void()> prepare;
  } rows[] = {
      {"the query fails", [&] { script.failCallOf("C_GetSessionInfo", 0, CKR_DEVICE_ERROR); }},
      {"the query writes and fails",
       [&] {
         script.hook<&List::C_GetSessionInfo>([](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) -> CK_RV {
           *out = {9, 9, 9, 9};
           return CKR_DEVICE_ERROR;
         });
       }},
      {"the query does nothing", [&] { script.deviations.silent = {"C_GetSessionInfo"}; }},
      {"the query is missing", [&] { script.removeEntry("C_GetSessionInfo"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.reset();
    newFramework();
    openAndForget();
    record().setHSessionInfo({1, 2, 3, 4});
    row.prepare();
    EXPECT_FALSE(login("000000"));
    EXPECT_EQ(tries, 0U);
    expectSessionInfo(record().hSessionInfo(), {0, 0, 0, 0});
  }
}

TEST_F(PerformUserLogin, RefusesOtherPinsAndAsksForTheTriesAllTheSame) {
  const CK_BYTE pin[9] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  const struct {
    const char* name;
    const CK_BYTE* pin;
    CK_ULONG pinLen;
  } rows[] = {
      {"null", nullptr, 6},
      {"empty", pin, 0},
      {"nine bytes", pin, 9},
      {"all-ones", pin, ~CK_ULONG{0}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.forgetCalls();
    tries = kUnwritten;
    EXPECT_FALSE(framework->PerformUserLogin(framework->p11ServiceInfo(), row.pin, row.pinLen, &tries));
    EXPECT_EQ(tries, 3U);
    EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSessionInfo(5)"));
  }
}

TEST_F(PerformUserLogin, HandsPinsOfOneToEightBytesOnAsTheyAre) {
  for (const std::string_view pin : {"1"sv, "12345678"sv, "1\0002"sv, "\xC3\xA4\xFF"sv}) {
    SCOPED_TRACE(pin);
    script.card().pin = pin;
    script.card().loggedIn = false;
    EXPECT_TRUE(login(pin));
  }
}

TEST_F(PerformUserLogin, IsNoneWhenTheUserIsNotInAfterwards) {
  script.deviations.silent = {"C_Login"};
  EXPECT_FALSE(login());
  EXPECT_EQ(tries, 3U);
}

TEST_F(PerformUserLogin, UsesTheSessionOfTheRecordGiven) {
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  given->setHSession(script.openSession(kSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION));
  EXPECT_FALSE(loginWith(given, "000000"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(6, 1, 303030303030)", "C_GetSessionInfo(6)"));
  // What that session tells goes into the stored record.
  expectSessionInfo(record().hSessionInfo(),
                    {kSlot, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION, 2});
  expectSessionInfo(given->hSessionInfo(), {0, 0, 0, 0});
  EXPECT_EQ(record().hSession(), kFirstSession);
  EXPECT_TRUE(loginWith(given, "123456"));
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(PerformUserLogin, TakesANullRecordForOneWithoutASession) {
  record().setHSessionInfo({1, 2, 3, 4});
  EXPECT_FALSE(loginWith(nullptr, "123456"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(0, 1, 313233343536)", "C_GetSessionInfo(0)"));
  EXPECT_EQ(tries, 0U);
  expectSessionInfo(record().hSessionInfo(), {0, 0, 0, 0});
}

TEST_F(PerformUserLogin, FailsWithoutARecordOrABridgeAndWritesNothing) {
  const auto given = framework->p11ServiceInfo();
  framework->setP11ServiceInfo(nullptr);
  EXPECT_FALSE(loginWith(given, "123456"));
  framework->setP11ServiceInfo(given);
  framework->setP11Bridge(nullptr);
  EXPECT_FALSE(loginWith(given, "123456"));
  EXPECT_EQ(tries, kUnwritten);
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(PerformUserLogin, SurvivesACallerWhoDoesNotWantTheTries) {
  const Value pin = bytesOf("000000");
  EXPECT_FALSE(framework->PerformUserLogin(framework->p11ServiceInfo(), pin.data(), pin.size(), nullptr));
  EXPECT_EQ(record().hSessionInfo().ulDeviceError, 2U);
}

TEST_F(PerformUserLogin, IsRefusedWhenTheCardIsGone) {
  script.pullCard(kSlot, CKR_DEVICE_REMOVED);
  EXPECT_FALSE(login());
  EXPECT_EQ(tries, 0U);
  leavesOpen({});
}

TEST_F(PerformUserLogin, LogsNothing) {
  log->allLines.clear();
  (void)login("000000");
  (void)login("123456");
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(PerformUserLogin, FailsWithAnyCall) {
  constexpr std::size_t kNumCalls = 2;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newFramework();
    openAndForget();
    point.arm();
    const bool succeeded = login();
    EXPECT_EQ(succeeded, !point.fired());
    if (!point.fired()) return;
    // The session is asked once more for its tries. It tells them only if it is not the user's by then.
    const bool tells = point.n() == 0 && point.times() == Times::kOnce;
    EXPECT_EQ(tries, tells ? 3U : 0U);
    EXPECT_EQ(script.callTexts().back(), "C_GetSessionInfo(5)");
    EXPECT_EQ(script.calls().size(), point.n() == 0 ? 2U : 3U);
  });
}

// ---- PerformGenSessionSymKey ----

class PerformGenSessionSymKey : public FrameworkTest {};

TEST_F(PerformGenSessionSymKey, NeverDoesAnything) {
  const int something = 1;
  EXPECT_FALSE(framework->PerformGenSessionSymKey(nullptr, nullptr, nullptr, nullptr, nullptr));
  openSessionAndEnumerate();
  log->allLines.clear();
  EXPECT_FALSE(framework->PerformGenSessionSymKey(nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(
      framework->PerformGenSessionSymKey(&something, &something, &something, &something, &something));
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

}  // namespace
}  // namespace mirel::test
