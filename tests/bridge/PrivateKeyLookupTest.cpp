#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_RV kReread = 0x80000000;

class CorrespondingPrivateKeyUnloaded : public UnloadedBridgeTest {};

TEST_F(CorrespondingPrivateKeyUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(0, 0, nullptr), CK_RV{0x190});
}

class CorrespondingPrivateKey : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    logIn();
  }

  void logIn() { script.card().loggedIn = true; }

  CK_RV find(CK_OBJECT_HANDLE object = kPublicKey) {
    key = 0;
    return bridge.pkcs11_getCorrespondingPrivateKey(session, object, &key);
  }

  /// Gives the card's three objects that ID.
  void setId(const Value& id) {
    for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate}) {
      script.object(object).attributes[CKA_ID] = id;
    }
  }

  CK_OBJECT_HANDLE key = 0;
};

TEST_F(CorrespondingPrivateKey, RefusesNullAndNoneWithoutACall) {
  CK_OBJECT_HANDLE output = 0;
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(0, kPublicKey, &output), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(kAllOnes, kPublicKey, &output), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(session, kPublicKey, nullptr), CK_RV{7});
  output = kAllOnes;
  EXPECT_EQ(bridge.pkcs11_getCorrespondingPrivateKey(session, kPublicKey, &output), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(CorrespondingPrivateKey, LeavesTheObjectToTheModule) {
  EXPECT_EQ(find(0), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(find(kAllOnes), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(script.calls().size(), 2U);
}

TEST_F(CorrespondingPrivateKey, ReadsTheIdThenSearchesOnce) {
  EXPECT_EQ(find(), CKR_OK);
  EXPECT_EQ(key, kPrivateKey);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetAttributeValue(5, 21, [CKA_ID room 255])",
                          "C_GetAttributeValue(5, 21, [CKA_ID room 2])",
                          "C_FindObjectsInit(5, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=3031])",
                          "C_FindObjects(5, 1)", "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)"));
}

TEST_F(CorrespondingPrivateKey, IsFoundFromTheCertificateToo) {
  EXPECT_EQ(find(kCertificate), CKR_OK);
  EXPECT_EQ(key, kPrivateKey);
}

TEST_F(CorrespondingPrivateKey, IsFoundByEveryKindOfId) {
  const struct {
    const char* name;
    Value id;
  } rows[] = {
      {"one byte", {0x01}},       {"a NUL first", {0x00, 0x01}},
      {"only a NUL", {0x00}},     {"20 bytes, as of a SHA-1", patternValue(20, 0x80)},
      {"no ASCII", {0xFF, 0xFE}}, {"254 bytes", patternValue(254, 1)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    setId(row.id);
    EXPECT_EQ(find(), CKR_OK);
    EXPECT_EQ(key, kPrivateKey);
  }
}

TEST_F(CorrespondingPrivateKey, IsNotFoundWhenIdsDifferOnlyBehindANul) {
  setId({0x01, 0x00, 0x02});
  script.object(kPrivateKey).attributes[CKA_ID] = {0x01, 0x00, 0x03};
  EXPECT_EQ(find(), CK_RV{0x60});
}

TEST_F(CorrespondingPrivateKey, IsNotFoundWhereThereIsNone) {
  setId(patternValue(20, 0x80));
  script.object(kPrivateKey).attributes[CKA_ID] = patternValue(20, 0x81);
  EXPECT_EQ(find(), CK_RV{0x60});
  EXPECT_EQ(key, 0U);
}

TEST_F(CorrespondingPrivateKey, IsNotFoundBeforeTheLoginOfACardThatHidesIt) {
  script.card().loggedIn = false;
  EXPECT_EQ(find(), CK_RV{0x60});
}

TEST_F(CorrespondingPrivateKey, IsNotASessionObject) {
  script.object(kPrivateKey).attributes[CKA_TOKEN] = boolValue(false);
  EXPECT_EQ(find(), CK_RV{0x60});
}

TEST_F(CorrespondingPrivateKey, IsTheFirstOfTwoWithTheSameId) {
  script.addObject(rsaPrivateKey(bytesOf("01"), bytesOf("Other"), patternValue(256, 4)));
  EXPECT_EQ(find(), CKR_OK);
  EXPECT_EQ(key, kPrivateKey);
}

TEST_F(CorrespondingPrivateKey, JudgesTheLengthOfTheId) {
  const struct {
    const char* name;
    std::size_t size;
    CK_RV expected;
  } rows[] = {
      {"empty", 0, 0x13},
      {"the longest", 254, 0},
      {"one more", 255, 0x60},
      {"more than the buffer", 256, 0x150},
      {"much more than the buffer", 4000, 0x150},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    setId(patternValue(row.size, 1));
    script.forgetCalls();
    EXPECT_EQ(find(), row.expected);
    EXPECT_EQ(script.countOf("C_FindObjectsInit"), row.expected == CKR_OK ? 1U : 0U);
  }
}

TEST_F(CorrespondingPrivateKey, AnswersThatThereIsNoId) {
  script.object(kPublicKey).attributes.erase(CKA_ID);
  EXPECT_EQ(find(), CK_RV{0x12});
}

TEST_F(CorrespondingPrivateKey, NeverSearchesForMoreThanWasRead) {
  const struct {
    const char* name;
    std::vector<std::optional<CK_ULONG>> claims;
    CK_RV expected;
  } rows[] = {
      {"more than the buffer on the first read", {4000}, 0x150},
      {"one more than the buffer on the first read", {256}, 0x150},
      {"more than the buffer on the second read", {254, 4000}, 0x150},
      {"more than offered on the second read", {254, 255}, 0x150},
      {"low 32 bits small", {254, 0x100000010}, 0x150},
      {"huge", {254, 1UL << 40U}, 0x150},
      {"nearly all-ones", {254, kAllOnes - 1}, 0x150},
      {"all-ones on the first read", {kAllOnes}, 0x13},
      {"all-ones on the second read", {254, kAllOnes}, 0x80000013},
      {"nothing on the second read", {254, 0}, 0x80000013},
      {"255 in both", {255}, 0x60},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_ID] = row.claims;
    EXPECT_EQ(find(), row.expected);
    EXPECT_EQ(script.countOf("C_FindObjectsInit"), 0U);
  }
}

TEST_F(CorrespondingPrivateKey, SearchesForNothingThatTheModuleDidNotWrite) {
  // The bytes that are looked for are those of a zeroed buffer, not what lay there before.
  script.deviations.silent = {"C_GetAttributeValue"};
  EXPECT_EQ(find(), CK_RV{0x60});
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 0U);  // 255 bytes were "read"
}

TEST_F(CorrespondingPrivateKey, IsNotFoundWhenTheModuleReportsMoreThanOneAtOnce) {
  script.deviations.foundPerCall = 5;
  EXPECT_EQ(find(), CK_RV{0x60});
  EXPECT_EQ(key, 0U);
}

TEST_F(CorrespondingPrivateKey, IsFoundOnAModuleThatNeverEnds) {
  script.deviations.endlessSearches = true;
  EXPECT_EQ(find(), CKR_OK);
  EXPECT_EQ(key, kPrivateKey);
  EXPECT_EQ(script.countOf("C_FindObjects"), 2U);
}

TEST_F(CorrespondingPrivateKey, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    openAgain();
    logIn();
    point.arm();
    const CK_RV rv = find();

    // Two reads of the ID, C_FindObjectsInit, two C_FindObjects, C_FindObjectsFinal (ignored).
    CK_RV expected = CKR_OK;
    if (point.fired() && point.n() < 5) expected = point.n() == 1 ? kReread | kSomeFailure : kSomeFailure;
    EXPECT_EQ(rv, expected);
    if (rv == CKR_OK) {
      EXPECT_EQ(key, kPrivateKey);
    }
    const bool searches = !point.fired() || point.n() > 2;
    EXPECT_EQ(script.countOf("C_FindObjectsFinal"), searches ? 1U : 0U);
    const bool finalFails = point.fired() && (point.n() == 5 || point.times() == Times::kFromThenOn);
    EXPECT_EQ(script.openSearches().empty(), !searches || !finalFails);
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(CorrespondingPrivateKey, SurvivesEveryFailingAllocation) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    openAgain();
    logIn();
    point.arm();
    const CK_RV rv = find();
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
    EXPECT_EQ(memory->outstanding(), 0U);
    EXPECT_THAT(script.openSearches(), IsEmpty());
  });
}

}  // namespace
}  // namespace mirel::test
