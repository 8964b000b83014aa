#include <string_view>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const CK_BYTE* pinBytes(std::string_view pin) { return reinterpret_cast<const CK_BYTE*>(pin.data()); }

class UserLoginUnloaded : public UnloadedBridgeTest {};

TEST_F(UserLoginUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_UserLogin(5, nullptr, 0), CK_RV{0x190});
}

class UserLogin : public SessionTest {
 protected:
  [[nodiscard]] CK_RV login(std::string_view pin = "123456") {
    return bridge.pkcs11_UserLogin(session, pinBytes(pin), pin.size());
  }

  /// Makes the module report that of every session.
  void sessionsReport(const CK_SESSION_INFO& info) {
    script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([info](auto, CK_SESSION_HANDLE, CK_SESSION_INFO* out) {
      *out = info;
      return CKR_OK;
    });
  }
};

TEST_F(UserLogin, LogsTheUserInAndLooksAtTheSession) {
  EXPECT_EQ(login(), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Login(5, 1, 313233343536)", "C_GetSessionInfo(5)"));
  EXPECT_TRUE(script.card().loggedIn);
}

TEST_F(UserLogin, HandsPinsOfOneToEightBytesOnAsTheyAre) {
  const struct {
    const char* name;
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
    SCOPED_TRACE(row.name);
    script.forgetCalls();
    script.card().pin = row.pin;
    script.card().loggedIn = false;
    EXPECT_EQ(login(row.pin), CKR_OK);
    EXPECT_EQ(script.callTexts().front(), row.call);
  }
}

TEST_F(UserLogin, RefusesOtherPinsWithoutACall) {
  EXPECT_EQ(login("123456789"), CK_RV{7});
  EXPECT_EQ(login(""), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_UserLogin(session, nullptr, 6), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_UserLogin(session, pinBytes("123456"), kAllOnes), CK_RV{7});
  // A length whose low 32 bits are small.
  EXPECT_EQ(bridge.pkcs11_UserLogin(session, pinBytes("123456"), 0x100000006), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(UserLogin, RefusesALongPinThatTheTokenWouldTake) {
  script.card().info.ulMaxPinLen = 64;
  script.card().pin = "123456789";
  EXPECT_EQ(login("123456789"), CK_RV{7});
}

TEST_F(UserLogin, AnswersAFailureUnchangedAndDoesNotLookAtTheSession) {
  for (const CK_RV code :
       {CK_RV{0xA0}, CK_RV{0xA4}, CK_RV{0x100}, CKR_DEVICE_REMOVED, CKR_SESSION_HANDLE_INVALID}) {
    SCOPED_TRACE(code);
    script.forgetCalls();
    script.failCall(0, code);
    EXPECT_EQ(login(), code);
    EXPECT_EQ(script.calls().size(), 1U);
  }
}

TEST_F(UserLogin, AnswersWhatARealModuleAnswersToWrongPins) {
  EXPECT_EQ(login("000000"), CK_RV{0xA0});
  EXPECT_EQ(login("000000"), CK_RV{0xA0});
  EXPECT_EQ(login("000000"), CK_RV{0xA0});
  EXPECT_EQ(login("123456"), CK_RV{0xA4});
}

TEST_F(UserLogin, IsNoSuccessWhenTheUserIsLoggedInAlready) {
  ASSERT_EQ(login(), CKR_OK);
  EXPECT_EQ(login(), CK_RV{0x100});
}

TEST_F(UserLogin, JudgesWhatTheSessionReportsAfterwards) {
  constexpr CK_FLAGS kSerial = 4;
  const struct {
    const char* name;
    CK_SESSION_INFO info;
    CK_RV expected;
  } rows[] = {
      {"read-only user", {1, 1, kSerial, 0}, CKR_OK},
      {"read-write user", {1, 3, kSerial | 2, 0}, CKR_OK},
      {"user, with a device error", {1, 1, kSerial, 77}, 77},
      {"another slot than the card's", {9, 1, kSerial, 0}, CKR_OK},
      // It is bit 0 that counts, whatever else is set.
      {"a state of bits 0 and 2", {1, 5, kSerial, 0}, CKR_OK},
      {"a state of bits 0 to 2", {1, 7, kSerial, 0}, CKR_OK},
      {"every bit of the state", {1, kAllOnes, kSerial, 0}, CKR_OK},
      // Not serial.
      {"no flags", {1, 1, 0, 0}, 0xB4},
      {"every flag but serial", {1, 1, ~kSerial, 0}, 0xB4},
      {"no flags, no slot, no user", {kAllOnes, 0, 0, 5}, 0xB4},
      // No slot.
      {"no slot", {kAllOnes, 1, kSerial, 0}, 3},
      {"no slot, no user", {kAllOnes, 0, kSerial, 5}, 3},
      // No user.
      {"read-only public", {1, 0, kSerial, 0}, 0x800000B4},
      {"read-write public", {1, 2, kSerial, 0}, 0x800000B4},
      {"security officer", {1, 4, kSerial, 0}, 0x800000B4},
      {"a state of bits 1 and 2", {1, 6, kSerial, 0}, 0x800000B4},
      {"every bit of the state but bit 0", {1, kAllOnes - 1, kSerial, 0}, 0x800000B4},
      {"public, with a device error", {1, 0, kSerial, 77}, 0x800000B4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    sessionsReport(row.info);
    script.card().loggedIn = false;
    EXPECT_EQ(login(), row.expected);
  }
}

TEST_F(UserLogin, DoesNotBelieveALoginThatDidNothing) {
  script.deviations.silent = {"C_Login"};
  EXPECT_EQ(login(), CK_RV{0x800000B4});
}

TEST_F(UserLogin, SeesZerosWhenTheModuleReportsNothing) {
  script.deviations.silent = {"C_GetSessionInfo"};
  EXPECT_EQ(login(), CK_RV{0xB4});
}

TEST_F(UserLogin, LeavesTheHandleToTheModule) {
  EXPECT_EQ(bridge.pkcs11_UserLogin(0, pinBytes("123456"), 6), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(bridge.pkcs11_UserLogin(kAllOnes, pinBytes("123456"), 6), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(UserLogin, KeepsThePinToItself) {
  (void)login("123456");
  (void)login("000000");
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_THAT(memory->requests(), IsEmpty());
}

TEST_F(UserLogin, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    openAgain();
    point.arm();
    const CK_RV rv = login();
    EXPECT_EQ(rv, point.fired() ? kSomeFailure : CKR_OK);
    EXPECT_EQ(script.calls().size(), point.fired() ? point.n() + 1 : 2U);
    EXPECT_THAT(script.openSessions(), ElementsAre(session));
  });
}

}  // namespace
}  // namespace mirel::test
