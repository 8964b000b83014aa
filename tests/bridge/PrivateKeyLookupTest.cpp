/// Finding the private key that belongs to an object.

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

class CorrespondingPrivateKey : public SessionTest {
 protected:
  CK_RV find(CK_OBJECT_HANDLE object = kPublicKey) {
    key = 0;
    return bridge.pkcs11_getCorrespondingPrivateKey(session, object, &key);
  }
  void expectFound(CK_OBJECT_HANDLE object = kPublicKey) {
    EXPECT_EQ(find(object), CKR_OK);
    EXPECT_EQ(key, kPrivateKey);
  }
  void expectNone() {
    EXPECT_EQ(find(), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(key, 0U);
  }

  /// Gives the card's three objects that ID.
  void setId(const Value& id) {
    for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate}) {
      script.object(object).attributes[CKA_ID] = id;
    }
  }

  CK_OBJECT_HANDLE key = 0;
};

TEST_F(CorrespondingPrivateKey, RefusesNullAndNoneWithoutACallAndLeavesTheObjectToTheModule) {
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(none, kPublicKey, &key), CKR_ARGUMENTS_BAD);
  }
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(session, kPublicKey, nullptr), CKR_ARGUMENTS_BAD);
  key = kAllOnes;
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(session, kPublicKey, &key), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  for (const CK_OBJECT_HANDLE none : kNoHandles) EXPECT_EQ(find(none), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(script.calls().size(), 2U);
}

TEST_F(CorrespondingPrivateKey, IsFoundByEveryKindOfIdFromTheCertificateToo) {
  const struct {
    const char* what;
    Value id;
  } rows[] = {
      {"one byte", {0x01}},       {"a NUL first", {0x00, 0x01}},
      {"only a NUL", {0x00}},     {"20 bytes, as of a SHA-1", patternValue(20, 0x80)},
      {"no ASCII", {0xFF, 0xFE}}, {"254 bytes", patternValue(254, 1)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    setId(row.id);
    expectFound();
    expectFound(kCertificate);
  }
}

TEST_F(CorrespondingPrivateKey, IsNotFoundWhereThereIsNone) {
  const struct {
    const char* what;
    std::function<void()> prepare;
  } rows[] = {
      {"IDs that differ in the last byte",
       [&] {
         setId(patternValue(20, 0x80));
         ++script.object(kPrivateKey).attributes[CKA_ID].back();
       }},
      {"IDs that differ only behind a NUL",
       [&] {
         setId({0x01, 0x00, 0x02});
         script.object(kPrivateKey).attributes[CKA_ID] = {0x01, 0x00, 0x03};
       }},
      {"a card that hides it before the login", [&] { script.card().loggedIn = false; }},
      {"a session object", [&] { script.object(kPrivateKey).attributes[CKA_TOKEN] = boolValue(false); }},
      {"a module that reports more than one at once", [&] { script.deviations.foundPerCall = 5; }},
      {"a module that writes no ID", [&] { script.deviations.silent = {"C_GetAttributeValue"}; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    startAnew();
    row.prepare();
    expectNone();
  }
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 0U) << "255 bytes that nobody wrote are no ID";
}

TEST_F(CorrespondingPrivateKey, IsTheFirstOfTwoWithTheSameIdAlsoOnAModuleThatNeverEnds) {
  script.addObject(rsaPrivateKey(bytesOf("01"), bytesOf("Other"), patternValue(256, 4)));
  expectFound();
  script.forgetCalls();
  script.deviations.endlessSearches = true;
  expectFound();
  EXPECT_EQ(script.countOf("C_FindObjects"), 2U);
}

TEST_F(CorrespondingPrivateKey, NeedsAnIdAndJudgesItsLength) {
  const struct {
    const char* what;
    std::size_t size;
    CK_RV answer;
  } rows[] = {
      {"empty", 0, CKR_ATTRIBUTE_VALUE_INVALID},
      {"the longest", 254, CKR_OK},
      {"one more", 255, CKR_KEY_HANDLE_INVALID},
      {"more than the buffer", 256, CKR_BUFFER_TOO_SMALL},
      {"much more than the buffer", 4000, CKR_BUFFER_TOO_SMALL},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    setId(patternValue(row.size, 1));
    script.forgetCalls();
    EXPECT_EQ(find(), row.answer);
    EXPECT_EQ(script.countOf("C_FindObjectsInit"), row.answer == CKR_OK ? 1U : 0U);
  }
  script.object(kPublicKey).attributes.erase(CKA_ID);
  EXPECT_EQ(find(), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(CorrespondingPrivateKey, NeverSearchesForMoreThanWasRead) {
  const struct {
    const char* what;
    std::vector<std::optional<CK_ULONG>> claims;
    CK_RV answer = CKR_BUFFER_TOO_SMALL;
  } rows[] = {
      {"one more than the buffer on the first read", {256}},
      {"more than the buffer on the second read", {254, 4000}},
      {"more than offered on the second read", {254, 255}},
      {"low 32 bits small", {254, 0x100000010}},
      {"all-ones on the second read", {254, kAllOnes}, kRereadFailed | CKR_ATTRIBUTE_VALUE_INVALID},
      {"255 in both", {255}, CKR_KEY_HANDLE_INVALID},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_ID] = row.claims;
    EXPECT_EQ(find(), row.answer);
    EXPECT_EQ(script.countOf("C_FindObjectsInit"), 0U);
  }
}

}  // namespace
}  // namespace mirel::test
