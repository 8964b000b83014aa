#pragma once

#include "BridgeTest.h"
#include "support/ResultBuffer.h"

namespace mirel::test {

/// The objects that PrivateKeyTest adds: a P-256 key pair with the ID "02".
inline constexpr CK_OBJECT_HANDLE kEcPublicKey = 24;
inline constexpr CK_OBJECT_HANDLE kEcPrivateKey = 25;

/// How the private key of `object`, one with an ID of two bytes, is looked up: the calls.
[[nodiscard]] inline std::vector<std::string> lookUpCalls(CK_OBJECT_HANDLE object, const std::string& id) {
  const std::string read = "C_GetAttributeValue(5, " + std::to_string(object) + ", [CKA_ID room ";
  return {read + "255])",
          read + "2])",
          "C_FindObjectsInit(5, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=" + id + "])",
          "C_FindObjects(5, 1)",
          "C_FindObjects(5, 1)",
          "C_FindObjectsFinal(5)"};
}
/// How the length of the modulus of the private key is read.
[[nodiscard]] inline std::vector<std::string> modulusCalls() {
  const std::string read = "C_GetAttributeValue(5, 22, [CKA_MODULUS ";
  return {read + "null 0])", read + "room 256])", read + "room 256])"};
}
[[nodiscard]] inline std::vector<std::string> joined(
    std::initializer_list<std::vector<std::string>> sequences) {
  std::vector<std::string> all;
  for (const auto& sequence : sequences) all.insert(all.end(), sequence.begin(), sequence.end());
  return all;
}

/// As the script writes data down.
[[nodiscard]] inline std::string hexText(const Value& value) {
  std::string text;
  for (const CK_BYTE byte : value) {
    for (const unsigned digit : {byte / 16U, byte % 16U}) text += "0123456789ABCDEF"[digit];
  }
  return text;
}

/// The number of those calls.
inline constexpr std::size_t kNumLookUpCalls = 6;
inline constexpr std::size_t kNumModulusCalls = 3;

/// Handles that never are anything.
inline constexpr CK_ULONG kNoHandles[] = {0, kAllOnes};

/// A test of a bridge on an open session whose user is logged in, with the default RSA key and an EC key.
/// At its end nothing may be left signing or decrypting, unless the test says so.
class PrivateKeyTest : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    prepareAgain();
  }
  void TearDown() override {
    EXPECT_EQ(script.openOperations(), leftActive_);
    SessionTest::TearDown();
  }

  /// What a reset of the script undoes.
  void prepareAgain() {
    if (script.openSessions().empty()) openAgain();
    script.card().loggedIn = true;
    ASSERT_EQ(script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Curve"), p256Params(), p256Point(3))),
              kEcPublicKey);
    ASSERT_EQ(script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params())), kEcPrivateKey);
    forgetAll();
  }

  /// Gives the default card's RSA key that many bytes.
  void setModulusLen(std::size_t size) {
    for (const CK_OBJECT_HANDLE key : {kPublicKey, kPrivateKey}) {
      script.object(key).attributes[CKA_MODULUS] = patternValue(size, 0xC5);
    }
  }

  void leavesActive(std::vector<CK_SESSION_HANDLE> sessions) { leftActive_ = std::move(sessions); }

  const Value data = patternValue(32, 0x41);
  CK_ULONG length = 0;

 private:
  std::vector<CK_SESSION_HANDLE> leftActive_;
};

}  // namespace mirel::test
