/// The scripted module's private keys: honest when they are left alone, hostile exactly as told.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "module/Script.h"
#include "support/ScriptedModule.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ScriptedPrivateKeysTest : public ::testing::Test {
 protected:
  void SetUp() override {
    script.reset();
    script.setInitialised(true);
    ecKey = script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params()));
    session = script.openSession(kSlot, CKF_SERIAL_SESSION);
    script.card().loggedIn = true;
    ASSERT_NE(module, nullptr);
    script.forgetCalls();
  }
  void TearDown() override { script.reset(); }

  CK_RV signInit(CK_MECHANISM_TYPE type = CKM_RSA_X_509, CK_OBJECT_HANDLE key = kPrivateKey) {
    CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_MECHANISM mechanism{type, nullptr, 0};
    if (type == CKM_RSA_PKCS_PSS) mechanism = {type, &pss, sizeof pss};
    return module->C_SignInit(session, &mechanism, key);
  }
  CK_RV sign() { return module->C_Sign(session, data.data(), data.size(), output.data(), &length); }
  CK_RV decryptInit(CK_OBJECT_HANDLE key = kPrivateKey) {
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    return module->C_DecryptInit(session, &mechanism, key);
  }
  CK_RV decrypt(CK_BYTE* plain) {
    return module->C_Decrypt(session, data.data(), data.size(), plain, &length);
  }
  CK_RV derive(CK_OBJECT_HANDLE key, CK_ULONG valueLen = 16, CK_BBOOL onToken = CK_FALSE) {
    CK_ECDH1_DERIVE_PARAMS ecdh{CKD_NULL, 0, nullptr, data.size(), data.data()};
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &ecdh, 1};
    CK_BBOOL sensitive = CK_TRUE;
    CK_ATTRIBUTE secret[] = {{CKA_TOKEN, &onToken, sizeof onToken},
                             {CKA_SENSITIVE, &sensitive, sizeof sensitive},
                             {CKA_VALUE_LEN, &valueLen, sizeof valueLen}};
    return module->C_DeriveKey(session, &mechanism, key, secret, 3, &derived);
  }
  /// The first `size` bytes of the output.
  [[nodiscard]] Value written(std::size_t size) const { return Value(output.data(), output.data() + size); }

  Script& script = scriptedModule();
  CK_FUNCTION_LIST* module = scriptedFunctions();
  CK_SESSION_HANDLE session = 0;
  CK_OBJECT_HANDLE ecKey = 0;
  CK_OBJECT_HANDLE derived = 0;
  Value data = patternValue(32, 1);
  std::array<CK_BYTE, 600> output{};
  CK_ULONG length = 600;
};

// ---- What stands in for cryptography ----

TEST(ScriptedResult, FollowsMechanismAndData) {
  const Value data{0x10, 0x20};
  EXPECT_THAT(resultOf(3, data, 4), ElementsAre(0x13, 0x24, 0x15, 0x26));
  EXPECT_NE(resultOf(3, data, 64), resultOf(13, data, 64));
  EXPECT_NE(resultOf(3, data, 64), resultOf(3, {0x10, 0x21}, 64));
}

TEST(ScriptedCipher, IsThePaddedBlock) {
  EXPECT_THAT(cipherOf({0xAA, 0xBB}, 13),
              ElementsAre(0, 2, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0xAA, 0xBB));
}

// ---- Signing ----

TEST_F(ScriptedPrivateKeysTest, SignWithEachMechanismInTheLengthOfTheKey) {
  const CK_OBJECT_HANDLE wideEcKey =
      script.addObject(ecPrivateKey(bytesOf("03"), bytesOf("Wide"), p384Params()));
  const CK_OBJECT_HANDLE longKey =
      script.addObject(rsaPrivateKey(bytesOf("04"), bytesOf("Long"), patternValue(512, 9)));
  const struct {
    const char* name;
    CK_MECHANISM_TYPE mechanism;
    CK_OBJECT_HANDLE key;
    std::size_t length;
  } rows[] = {
      {"raw", CKM_RSA_X_509, kPrivateKey, 256}, {"PKCS #1", CKM_RSA_PKCS, kPrivateKey, 256},
      {"PSS", CKM_RSA_PKCS_PSS, longKey, 512},  {"raw, 4096 bits", CKM_RSA_X_509, longKey, 512},
      {"ECDSA, P-256", CKM_ECDSA, ecKey, 64},   {"ECDSA, P-384", CKM_ECDSA, wideEcKey, 96},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    length = output.size();
    EXPECT_EQ(signInit(row.mechanism, row.key), CKR_OK);
    EXPECT_EQ(sign(), CKR_OK);
    EXPECT_EQ(length, row.length);
    EXPECT_EQ(written(length), resultOf(row.mechanism, data, row.length));
    EXPECT_THAT(script.openOperations(), IsEmpty());
  }
}

TEST_F(ScriptedPrivateKeysTest, BeginOnlyWhatTheyCan) {
  script.addObject(rsaPrivateKey(bytesOf("03"), bytesOf("Idle"), patternValue(256, 9)).without(CKA_SIGN));
  CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA256, CKG_MGF1_SHA256, 32};
  CK_RSA_PKCS_PSS_PARAMS noHash{CKM_RSA_PKCS, CKG_MGF1_SHA256, 32};
  const struct {
    const char* name;
    CK_MECHANISM mechanism;
    CK_OBJECT_HANDLE key;
    CK_RV expected;
  } rows[] = {
      {"no such key", {CKM_RSA_X_509, nullptr, 0}, 99, CKR_KEY_HANDLE_INVALID},
      {"the public key", {CKM_RSA_X_509, nullptr, 0}, kPublicKey, CKR_KEY_HANDLE_INVALID},
      {"not for signing", {CKM_RSA_X_509, nullptr, 0}, ecKey + 1, CKR_KEY_FUNCTION_NOT_PERMITTED},
      {"an EC key", {CKM_RSA_X_509, nullptr, 0}, ecKey, CKR_KEY_TYPE_INCONSISTENT},
      {"an RSA key", {CKM_ECDSA, nullptr, 0}, kPrivateKey, CKR_KEY_TYPE_INCONSISTENT},
      {"no signature", {CKM_SHA256, nullptr, 0}, kPrivateKey, CKR_MECHANISM_INVALID},
      {"raw with parameters", {CKM_RSA_X_509, &pss, 24}, kPrivateKey, CKR_MECHANISM_PARAM_INVALID},
      {"PSS without", {CKM_RSA_PKCS_PSS, nullptr, 0}, kPrivateKey, CKR_MECHANISM_PARAM_INVALID},
      {"PSS with a part", {CKM_RSA_PKCS_PSS, &pss, 16}, kPrivateKey, CKR_MECHANISM_PARAM_INVALID},
      {"PSS without a hash", {CKM_RSA_PKCS_PSS, &noHash, 24}, kPrivateKey, CKR_MECHANISM_PARAM_INVALID},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    CK_MECHANISM mechanism = row.mechanism;
    EXPECT_EQ(module->C_SignInit(session, &mechanism, row.key), row.expected);
    EXPECT_THAT(script.openOperations(), IsEmpty());
  }
  EXPECT_EQ(module->C_SignInit(session, nullptr, kPrivateKey), CKR_ARGUMENTS_BAD);
  CK_MECHANISM mechanism{CKM_RSA_X_509, nullptr, 0};
  EXPECT_EQ(module->C_SignInit(99, &mechanism, kPrivateKey), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(ScriptedPrivateKeysTest, NeedTheLogin) {
  script.card().loggedIn = false;
  EXPECT_EQ(signInit(), CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(decryptInit(), CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(derive(ecKey), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(ScriptedPrivateKeysTest, KnowOneOperationOfAKindInASession) {
  EXPECT_EQ(sign(), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(decrypt(output.data()), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(signInit(), CKR_OK);
  EXPECT_EQ(signInit(), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(decryptInit(), CKR_OK);
  EXPECT_EQ(decryptInit(), CKR_OPERATION_ACTIVE);
  EXPECT_THAT(script.openOperations(), ElementsAre(session));
  EXPECT_EQ(sign(), CKR_OK);
  EXPECT_EQ(sign(), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(ScriptedPrivateKeysTest, TellTheLengthAndGoOn) {
  EXPECT_EQ(signInit(), CKR_OK);
  EXPECT_EQ(module->C_Sign(session, data.data(), data.size(), nullptr, &length), CKR_OK);
  EXPECT_EQ(length, 256U);
  length = 255;
  EXPECT_EQ(sign(), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 256U);
  EXPECT_EQ(output[0], 0);
  EXPECT_EQ(sign(), CKR_OK);
  EXPECT_NE(output[0], 0);
}

TEST_F(ScriptedPrivateKeysTest, RefuseDataOfTheWrongLengthAndEnd) {
  const struct {
    const char* name;
    CK_MECHANISM_TYPE mechanism;
    std::size_t size;
    CK_RV expected;
  } rows[] = {
      {"raw, as long as the key", CKM_RSA_X_509, 256, CKR_OK},
      {"raw, longer than the key", CKM_RSA_X_509, 257, CKR_DATA_LEN_RANGE},
      {"PKCS #1, with room for the padding", CKM_RSA_PKCS, 245, CKR_OK},
      {"PKCS #1, without", CKM_RSA_PKCS, 246, CKR_DATA_LEN_RANGE},
      {"PSS, as long as the hash", CKM_RSA_PKCS_PSS, 32, CKR_OK},
      {"PSS, longer than the hash", CKM_RSA_PKCS_PSS, 33, CKR_DATA_LEN_RANGE},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    data = patternValue(row.size, 1);
    length = output.size();
    EXPECT_EQ(signInit(row.mechanism), CKR_OK);
    EXPECT_EQ(sign(), row.expected);
    EXPECT_THAT(script.openOperations(), IsEmpty());
  }
}

// ---- Decrypting ----

TEST_F(ScriptedPrivateKeysTest, DecryptPaddedBlocks) {
  const Value plain = bytesOf("a message");
  data = cipherOf(plain);
  EXPECT_EQ(decryptInit(), CKR_OK);
  EXPECT_EQ(decrypt(nullptr), CKR_OK);
  EXPECT_EQ(length, plain.size());
  EXPECT_THAT(script.openOperations(), ElementsAre(session));
  length = 8;
  EXPECT_EQ(decrypt(output.data()), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(decrypt(output.data()), CKR_OK);
  EXPECT_EQ(written(length), plain);
  EXPECT_THAT(script.openOperations(), IsEmpty());
}

TEST_F(ScriptedPrivateKeysTest, RefuseOtherCipherTexts) {
  const struct {
    const char* name;
    Value cipher;
    CK_RV expected;
  } rows[] = {
      {"short", Value(255, 1), CKR_ENCRYPTED_DATA_LEN_RANGE},
      {"no padding", patternValue(256, 1), CKR_ENCRYPTED_DATA_INVALID},
      {"padding without an end", Value(256, 2), CKR_ENCRYPTED_DATA_INVALID},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    data = row.cipher;
    EXPECT_EQ(decryptInit(), CKR_OK);
    EXPECT_EQ(decrypt(output.data()), row.expected);
    EXPECT_THAT(script.openOperations(), IsEmpty());
  }
}

TEST_F(ScriptedPrivateKeysTest, DecryptEverythingToTheTextOfTheScript) {
  script.deviations.plainText = bytesOf("always this");
  EXPECT_EQ(decryptInit(), CKR_OK);
  EXPECT_EQ(decrypt(output.data()), CKR_OK);
  EXPECT_EQ(written(length), bytesOf("always this"));
}

// ---- Deriving ----

TEST_F(ScriptedPrivateKeysTest, DeriveKeysThatEndWithTheSession) {
  EXPECT_EQ(derive(ecKey), CKR_OK);
  const Object& object = script.object(derived);
  EXPECT_EQ(object.attributes.at(CKA_VALUE), resultOf(CKM_ECDH1_DERIVE, data, 16));
  EXPECT_TRUE(object.sensitive.contains(CKA_VALUE));
  script.closeSession(session);
  EXPECT_FALSE(script.card().objects.contains(derived));
}

TEST_F(ScriptedPrivateKeysTest, DeriveOnlyWhatTheyCan) {
  EXPECT_EQ(derive(99), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(derive(kPrivateKey), CKR_KEY_TYPE_INCONSISTENT);
  EXPECT_EQ(derive(ecKey, 0), CKR_TEMPLATE_INCOMPLETE);
  EXPECT_EQ(derive(ecKey, 67), CKR_TEMPLATE_INCOMPLETE);
  EXPECT_EQ(derive(ecKey, 16, CK_TRUE), CKR_SESSION_READ_ONLY);
  data.clear();
  EXPECT_EQ(derive(ecKey), CKR_MECHANISM_PARAM_INVALID);
  EXPECT_EQ(derived, 0U);
}

// ---- What is recorded ----

TEST_F(ScriptedPrivateKeysTest, ShowTheirMechanismsWithTheLengthGiven) {
  data = {0x01, 0xAB};
  (void)signInit(CKM_RSA_PKCS_PSS);
  (void)sign();
  CK_MECHANISM odd{CKM_RSA_X_509, data.data(), 2};
  (void)module->C_SignInit(session, &odd, 22);
  (void)module->C_SignInit(session, nullptr, 22);
  (void)module->C_Sign(session, nullptr, 3, nullptr, nullptr);
  (void)decryptInit();
  (void)decrypt(nullptr);
  (void)derive(ecKey);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)", "C_Sign(5, 01AB, room 600)",
                          "C_SignInit(5, CKM 3 01AB 2, 22)", "C_SignInit(5, null, 22)",
                          "C_Sign(5, null 3, null null)", "C_DecryptInit(5, CKM 1 null 0, 22)",
                          "C_Decrypt(5, 01AB, null 600)",
                          "C_DeriveKey(5, CKM 4176 [kdf 1, shared null 0, public 01AB] 1, 24, "
                          "[CKA_TOKEN=00, CKA_SENSITIVE=01, CKA_VALUE_LEN=1000000000000000])"));
}

// ---- Faults and deviations ----

TEST_F(ScriptedPrivateKeysTest, EndTheirOperationWhenTheyAreMadeToFail) {
  (void)signInit();
  script.failCall(0, CKR_DEVICE_ERROR);
  EXPECT_EQ(sign(), CKR_DEVICE_ERROR);
  EXPECT_EQ(length, 600U);
  EXPECT_EQ(sign(), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(ScriptedPrivateKeysTest, ClaimLengthsButStayInTheRoomAnnounced) {
  const struct {
    const char* name;
    Deviations::ClaimedResult claim;
    std::size_t written;
  } rows[] = {
      {"short", {3, std::nullopt}, 3},         {"nothing", {0, std::nullopt}, 0},
      {"beyond the room", {600, 301}, 300},    {"beyond any room", {1UL << 40U, std::nullopt}, 300},
      {"long, little written", {300, 10}, 10}, {"all-ones", {~CK_ULONG{0}, 0}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.deviations.claimedResults["C_Sign"] = row.claim;
    (void)signInit();
    output.fill(0x11);
    length = 300;
    EXPECT_EQ(sign(), CKR_OK);
    EXPECT_EQ(length, row.claim.length);
    Value expected = resultOf(CKM_RSA_X_509, data, std::min<std::size_t>(row.written, 256));
    expected.resize(row.written, 0xEE);
    expected.resize(output.size(), 0x11);
    EXPECT_EQ(written(output.size()), expected);
    EXPECT_THAT(script.openOperations(), IsEmpty());
  }
}

TEST_F(ScriptedPrivateKeysTest, OverwriteTheLengthWhenTheyFail) {
  script.deviations.lengthsOnFailure = {{"C_Sign", 1024}, {"C_Decrypt", 5000}};
  EXPECT_EQ(sign(), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(length, 1024U);
  script.failCall(0, CKR_DEVICE_ERROR);
  EXPECT_EQ(decrypt(output.data()), CKR_DEVICE_ERROR);
  EXPECT_EQ(length, 5000U);
  length = 600;
  (void)signInit();
  EXPECT_EQ(sign(), CKR_OK);
  EXPECT_EQ(length, 256U);
}

}  // namespace
}  // namespace mirel::test
