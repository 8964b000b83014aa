/// The user's login, and what is told about the tries left.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_ULONG kUnwritten = 77;

class PerformUserLogin : public FrameworkTest {
 protected:
  PerformUserLogin() { prepare(); }

  void prepare() {
    script.reset();
    newFramework();
    openSession();
    script.deviations.triesLeftAsDeviceError = true;
    tries = kUnwritten;
  }

  bool login(std::string_view pin = "123456") { return loginWith(framework->p11ServiceInfo(), pin); }
  bool loginWith(const std::shared_ptr<PKCS11_SERVICE_INFO>& given, std::string_view pin) {
    return framework->PerformUserLogin(given, reinterpret_cast<const CK_BYTE*>(pin.data()), pin.size(),
                                       &tries);
  }
  void expectSessionInfo(const CK_SESSION_INFO& expected) {
    EXPECT_EQ(membersOf(record().hSessionInfo()), membersOf(expected));
  }

  CK_ULONG tries = kUnwritten;
};

TEST_F(PerformUserLogin, LogsInAndWritesNothingWhenItSucceeds) {
  const CK_SESSION_INFO before = record().hSessionInfo();
  EXPECT_TRUE(login());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(5, 1, 313233343536)", "C_GetSessionInfo(5)"));
  EXPECT_TRUE(script.card().loggedIn);
  EXPECT_EQ(tries, kUnwritten);
  expectSessionInfo(before);
  EXPECT_TRUE(login("000000")) << "nobody compares the PIN of a user who is logged in";
  EXPECT_EQ(tries, kUnwritten);
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(PerformUserLogin, SucceedsWithExactlyTwoCodes) {
  for (const CK_RV code :
       {CKR_OK, CKR_USER_ALREADY_LOGGED_IN, CKR_CANCEL, CKR_PIN_INCORRECT, CKR_USER_NOT_LOGGED_IN,
        CKR_USER_PIN_NOT_INITIALIZED, CK_RV{0x300}, CK_RV{0x80000100}, CK_RV{0x100000100}}) {
    SCOPED_TRACE(code);
    prepare();
    if (code != CKR_OK) script.failCallOf("C_Login", 0, code);
    const bool succeeds = code == CKR_OK || code == CKR_USER_ALREADY_LOGGED_IN;
    EXPECT_EQ(login(), succeeds);
    EXPECT_EQ(tries, succeeds ? kUnwritten : 3U);
  }
}

TEST_F(PerformUserLogin, TakesADeviceErrorAfterTheLoginForItsResult) {
  // The bridge answers the session's device error; one of 0x100 is masked off like the code of that value.
  for (const CK_ULONG deviceError : {0x0U, 0x100U, 0x1U, 0x101U, 0x200U}) {
    SCOPED_TRACE(deviceError);
    prepare();
    script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([=](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
      *out = {kSlot, CKS_RO_USER_FUNCTIONS, CKF_SERIAL_SESSION, deviceError};
      return CKR_OK;
    });
    const bool succeeds = deviceError == 0 || deviceError == 0x100;
    EXPECT_EQ(login(), succeeds);
    EXPECT_EQ(tries, succeeds ? kUnwritten : deviceError);
  }
}

TEST_F(PerformUserLogin, AnswersTheTriesLeftAndStoresTheSessionInformationAfterAWrongPin) {
  const auto stored = framework->p11ServiceInfo();
  for (const CK_ULONG left : {2U, 1U, 0U}) {
    SCOPED_TRACE(left);
    script.forgetCalls();
    EXPECT_FALSE(login("000000"));
    EXPECT_EQ(tries, left);
    EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(5, 1, 303030303030)", "C_GetSessionInfo(5)"));
    expectSessionInfo({kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, left});
  }
  EXPECT_FALSE(login()) << "it is locked";
  // In the same record, in which nothing else changes.
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(record().hSession(), kFirstSession);
  EXPECT_EQ(record().slotID(), kSlot);
  EXPECT_EQ(membersOf(record().slotInfo()), membersOf(slotInfo()));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(PerformUserLogin, AnswersZerosWhenTheSessionSaysNothing) {
  for (const bool fails : {true, false}) {
    SCOPED_TRACE(fails ? "the query writes and fails" : "the query does nothing");
    prepare();
    record().setHSessionInfo({1, 2, 3, 4});
    script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([=](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
      if (fails) *out = {9, 9, 9, 9};
      return fails ? CKR_DEVICE_ERROR : CKR_OK;
    });
    EXPECT_FALSE(login("000000"));
    EXPECT_EQ(tries, 0U);
    expectSessionInfo({0, 0, 0, 0});
  }
}

TEST_F(PerformUserLogin, AsksForTheTriesAlsoWhenTheCardWasNotAskedAndWhenNobodyWantsThem) {
  EXPECT_FALSE(login("123456789"));
  EXPECT_EQ(tries, 3U);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSessionInfo(5)"));
  const Value pin = bytesOf("000000");
  EXPECT_FALSE(framework->PerformUserLogin(framework->p11ServiceInfo(), pin.data(), pin.size(), nullptr));
  EXPECT_EQ(record().hSessionInfo().ulDeviceError, 2U);
}

TEST_F(PerformUserLogin, UsesTheSessionOfTheRecordGivenAndWritesToTheStoredOne) {
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  given->setHSession(script.openSession(kSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION));
  EXPECT_FALSE(loginWith(given, "000000"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(6, 1, 303030303030)", "C_GetSessionInfo(6)"));
  expectSessionInfo({kSlot, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION, 2});
  EXPECT_EQ(membersOf(given->hSessionInfo()), membersOf(CK_SESSION_INFO{}));
  EXPECT_EQ(record().hSession(), kFirstSession);
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(PerformUserLogin, TakesANullRecordForOneWithoutASession) {
  EXPECT_FALSE(loginWith(nullptr, "123456"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(0, 1, 313233343536)", "C_GetSessionInfo(0)"));
  EXPECT_EQ(tries, 0U);
  expectSessionInfo({0, 0, 0, 0});
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

TEST_F(PerformUserLogin, FailsWithAnyCall) {
  failEachCall(2, [&](FailPoint& point) {
    prepare();
    point.arm();
    const bool succeeded = login();
    EXPECT_EQ(succeeded, !point.fired());
    if (!point.fired()) return;
    // The session is asked once more for its tries. It tells them only if it is not the user's by then.
    EXPECT_EQ(tries, point.n() == 0 && point.once() ? 3U : 0U);
    EXPECT_EQ(script.calls().size(), point.n() + 2);
  });
}

using PerformGenSessionSymKey = FrameworkTest;

TEST_F(PerformGenSessionSymKey, NeverDoesAnything) {
  openSession();
  const int any = 1;
  EXPECT_FALSE(framework->PerformGenSessionSymKey(nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(framework->PerformGenSessionSymKey(&any, &any, &any, &any, &any));
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

}  // namespace
}  // namespace mirel::test
