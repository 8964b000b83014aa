/// Modules that end the login of all keys when one that wants the PIN for each use is used without.

#include "host/ConformanceTest.h"
#include "host/DoctorTrialsTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;

/// The card of that test with one more key that signs, which wants the PIN for each use.
template <typename Test>
class WithSuchAKey : public Test {
 protected:
  WithSuchAKey() {
    const Value id = bytesOf("05");
    const SoftwareKey& own = SoftwareKey::rsa(this->kBits, "one more");
    this->script.addObject(rsaPublicKey(id, id, own.modulus()));
    const CK_OBJECT_HANDLE privateKey = this->script.addObject(
        rsaPrivateKey(id, id, own.modulus()).with(CKA_ALWAYS_AUTHENTICATE, boolValue(true)));
    this->script.addObject(certificate(id, id, own.certificate(kForSigning)));
    this->script.template hook<&CK_FUNCTION_LIST::C_SignInit>(
        [this, privateKey](auto real, auto session, auto* mechanism, auto used) {
          if (used != privateKey) return real(session, mechanism, used);
          this->script.card().loggedIn = false;
          return CK_RV{CKR_USER_NOT_LOGGED_IN};
        });
  }
};

class PinForEachUseInTrials : public WithSuchAKey<DoctorTrials> {};

TEST_F(PinForEachUseInTrials, KeepsNoOtherKeyFromBeingTried) {
  const Diagnosis found = diagnosis();
  EXPECT_EQ(checkIn(found, "signatures").evidence,
            "key 3031 \"Signer\" signs RSA-PSS, not PKCS #1 v1.5; key 3033 \"Curve\" never signs here, not "
            "tried; key 3035 \"05\" wants the PIN right before its use, and another use came before");
  EXPECT_EQ(checkIn(found, "decryption").evidence, "key 3032 \"Vault\" decrypts PKCS #1 v1.5");
  EXPECT_THAT(codesOf(found), Not(Contains("MT-C10")));
}

TEST_F(PinForEachUseInTrials, LeavesOpenWhatTheLostLoginHides) {
  for (auto& [handle, object] : script.card().objects) {
    if (object.attributes[CKA_ID] == bytesOf("02") &&
        object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
      object = object.with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
  }
  const Diagnosis found = diagnosis();
  EXPECT_EQ(checkIn(found, "decryption").evidence, "key 3032 \"Vault\" could not be tried");
  EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre("MT-T05"));
  EXPECT_THAT(findingIn(found, FindingID::kTrialDisturbed).evidence,
              EndsWith(": it was seen after the login, which may have ended since"));
}

TEST_F(PinForEachUseInTrials, AreSkippedWhereEachKeyWasUsedTooLate) {
  for (auto& [handle, object] : script.card().objects) {
    if (object.attributes[CKA_ID] == bytesOf("02") &&
        object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
      object = object.with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
  }
  script.failCallOf("C_Decrypt", 0, CKR_USER_NOT_LOGGED_IN, Times::kFromThenOn);
  script.hook<&CK_FUNCTION_LIST::C_SignInit>(
      [](auto real, auto session, auto* mechanism, auto used) { return real(session, mechanism, used); });
  EXPECT_EQ(checkIn(diagnosis(), "decryption").severity, Severity::kSkipped);
}

TEST_F(PinForEachUseInTrials, CountAsAUseAlsoOneThatGaveAWrongResult) {
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [](auto real, auto session, auto* data, auto size, auto* out, auto* outSize) {
        const CK_RV rv = real(session, data, size, out, outSize);
        if (rv == CKR_OK && out) out[0] ^= 1;
        return rv;
      });
  script.hook<&CK_FUNCTION_LIST::C_Decrypt>(
      [](auto real, auto session, auto* data, auto size, auto* out, auto* outSize) {
        const CK_RV rv = real(session, data, size, out, outSize);
        if (rv == CKR_OK && out) out[0] ^= 1;
        return rv;
      });
  const Diagnosis found = diagnosis();
  EXPECT_THAT(checkIn(found, "signatures").evidence, ::testing::HasSubstr("3031 \"Signer\" does not sign"));
  EXPECT_THAT(checkIn(found, "signatures").evidence, EndsWith("another use came before"));
  EXPECT_EQ(findingIn(found, FindingID::kPinForEachUse).severity, Severity::kWarning);
}

class PinForEachUseInConformance : public WithSuchAKey<ConformanceTest> {};

TEST_F(PinForEachUseInConformance, BreaksNoRuleButItsOwn) {
  EXPECT_THAT(numbersWith(RuleVerdict::kFail, tested()), ElementsAre("CR-41"));
}

}  // namespace
}  // namespace mirel::test
