/// Logging the user in.

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

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
