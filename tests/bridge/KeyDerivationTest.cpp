/// Deriving a secret key by ECDH.

#include "PrivateKeyTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class KeyDerivationUnloaded : public UnloadedBridgeTest {};

TEST_F(KeyDerivationUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(0, 0, nullptr, kAllOnes, nullptr), CK_RV{0x190});
}

class KeyDerivation : public PrivateKeyTest {
 protected:
  CK_RV derive(CK_OBJECT_HANDLE baseKey = kEcPrivateKey) {
    return bridge.pkcs11_genSymKeyFromECDH(session, baseKey, point.data(), point.size(), &derived);
  }

  Value point = {0x04, 0xAA, 0xBB};
  CK_OBJECT_HANDLE derived = 77;
};

TEST_F(KeyDerivation, RefusesNullAndNoneWithoutACall) {
  const CK_BYTE* const bytes = point.data();
  // Whatever the base key: it is looked at last.
  for (const CK_OBJECT_HANDLE key : {kEcPrivateKey, CK_OBJECT_HANDLE{0}, kAllOnes}) {
    SCOPED_TRACE(key);
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(0, key, bytes, 3, &derived), CK_RV{7});
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(kAllOnes, key, bytes, 3, &derived), CK_RV{7});
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(session, key, nullptr, 3, &derived), CK_RV{7});
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(session, key, bytes, kAllOnes, &derived), CK_RV{7});
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(session, key, bytes, 3, nullptr), CK_RV{7});
  }
  EXPECT_EQ(derive(0), CK_RV{0x60});
  EXPECT_EQ(derive(kAllOnes), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(derived, 77U);
}

TEST_F(KeyDerivation, MakesExactlyThisCall) {
  EXPECT_EQ(derive(), CKR_OK);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_DeriveKey(5, CKM 4176 [kdf 1, shared null 0, public 04AABB] 1, 25, "
                          "[CKA_CLASS=0400000000000000, CKA_SENSITIVE=01, CKA_ENCRYPT=01, "
                          "CKA_KEY_TYPE=1000000000000000, CKA_TOKEN=00, CKA_VALUE_LEN=1000000000000000])"));
}

TEST_F(KeyDerivation, AnswersTheHandleOfASensitiveSessionKeyOf16Bytes) {
  EXPECT_EQ(derive(), CKR_OK);
  ASSERT_TRUE(script.card().objects.contains(derived));
  const Object& key = script.object(derived);
  EXPECT_EQ(key.attributes.at(CKA_VALUE).size(), 16U);
  EXPECT_TRUE(key.sensitive.contains(CKA_VALUE));
  EXPECT_EQ(script.countOf("C_GetAttributeValue"), 0U);
  script.closeSession(session);
  EXPECT_FALSE(script.card().objects.contains(derived));
  leavesOpen({});
}

TEST_F(KeyDerivation, LeavesAnEmptyPointToTheModule) {
  EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(session, kEcPrivateKey, point.data(), 0, &derived),
            CKR_MECHANISM_PARAM_INVALID);
  EXPECT_EQ(script.calls().size(), 1U);
}

TEST_F(KeyDerivation, AnswersWhatARealModuleAnswers) {
  EXPECT_EQ(derive(kPrivateKey), CK_RV{0x63});
  EXPECT_EQ(derive(kEcPublicKey), CK_RV{0x60});
  script.card().loggedIn = false;
  EXPECT_EQ(derive(), CK_RV{0x101});
  EXPECT_EQ(derived, 77U);
}

TEST_F(KeyDerivation, AnswersAFailureUnchanged) {
  for (const CK_RV code : {CK_RV{0x71}, CK_RV{0xD0}, CKR_DEVICE_REMOVED, CK_RV{0x80000099}}) {
    SCOPED_TRACE(code);
    script.failCall(0, code);
    EXPECT_EQ(derive(), code);
  }
  EXPECT_EQ(script.calls().size(), 4U);
  EXPECT_EQ(derived, 77U);
}

TEST_F(KeyDerivation, IsRefusedOnAModuleThatLacksTheFunction) {
  script.removeEntry("C_DeriveKey");
  EXPECT_EQ(derive(), CK_RV{0x54});
}

TEST_F(KeyDerivation, TakesNoMemory) {
  EXPECT_EQ(derive(), CKR_OK);
  EXPECT_THAT(memory->requests(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
