/// Signing a hash with RSASSA-PSS.

#include "PrivateKeyTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr std::size_t kNumCalls = kNumLookUpCalls + kNumModulusCalls + 2;

class PssSignatureUnloaded : public UnloadedBridgeTest {};

TEST_F(PssSignatureUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_genSignaturePSS(0, 0, 0, nullptr, 0, nullptr, nullptr, 0), CK_RV{0x190});
}

class PssSignature : public PrivateKeyTest {
 protected:
  CK_RV sign(ResultBuffer& output, CK_OBJECT_HANDLE object = kPublicKey) {
    return bridge.pkcs11_genSignaturePSS(session, object, CKM_SHA256, data.data(), data.size(), output.data(),
                                         &length, output.capacity());
  }
  CK_RV askForTheLength() {
    return bridge.pkcs11_genSignaturePSS(session, kPublicKey, CKM_SHA256, data.data(), data.size(), nullptr,
                                         &length, 512);
  }
};

TEST_F(PssSignature, RefusesNullAndNoneWithoutACall) {
  CK_BYTE output[512];
  const CK_BYTE* const bytes = data.data();
  const auto refused = [&](CK_SESSION_HANDLE inSession, CK_OBJECT_HANDLE object, const CK_BYTE* of,
                           CK_ULONG len, CK_ULONG* outLen, CK_ULONG capacity) {
    // Also with a hash that is refused on its own: that check comes later.
    for (const CK_MECHANISM_TYPE hash : {CK_MECHANISM_TYPE{0x250}, CK_MECHANISM_TYPE{0x210}}) {
      EXPECT_EQ(bridge.pkcs11_genSignaturePSS(inSession, object, hash, of, len, output, outLen, capacity),
                CK_RV{7});
    }
  };
  for (const CK_ULONG none : kNoHandles) {
    SCOPED_TRACE(none);
    refused(none, kPublicKey, bytes, 32, &length, 512);
    refused(session, none, bytes, 32, &length, 512);
  }
  refused(session, kPublicKey, nullptr, 32, &length, 512);
  refused(session, kPublicKey, bytes, 0, &length, 512);
  refused(session, kPublicKey, bytes, 32, nullptr, 512);
  refused(session, kPublicKey, bytes, 32, &length, 0);
  EXPECT_EQ(bridge.pkcs11_genSignaturePSS(session, kPublicKey, kAllOnes, bytes, 32, output, &length, 512),
            CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(length, 0U);
}

TEST_F(PssSignature, RefusesOtherHashesWithoutACall) {
  CK_BYTE output[512];
  const struct {
    const char* name;
    CK_MECHANISM_TYPE hash;
  } rows[] = {
      {"none", 0},
      {"MD2", 0x200},
      {"MD5", 0x210},
      {"just below SHA-1", 0x21F},
      {"just above SHA-1", 0x221},
      {"RIPEMD-160", 0x240},
      {"just below SHA-256", 0x24F},
      {"HMAC with SHA-224", 0x256},
      {"SHA-512/224", 0x48},
      {"SHA3-256", 0x2B0},
      {"PSS itself", 0x0D},
      {"low 32 bits of SHA-256", 0x100000250},
      {"vendor defined", 0x80000250},
      {"nearly all-ones", kAllOnes - 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(bridge.pkcs11_genSignaturePSS(session, kPublicKey, row.hash, data.data(), data.size(), output,
                                            &length, 512),
              CK_RV{0x70});
  }
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(PssSignature, MakesExactlyTheseCalls) {
  ResultBuffer output{512};
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAreArray(joined({lookUpCalls(kPublicKey, "3031"),
                                                           modulusCalls(),
                                                           {"C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)",
                                                            "C_Sign(5, " + hexText(data) + ", room 256)"}})));
  EXPECT_EQ(script.calls().size(), kNumCalls);
}

TEST_F(PssSignature, WritesTheSignatureAndItsLength) {
  ResultBuffer output{512};
  length = 3;  // on entry of no account
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_EQ(length, 256U);
  EXPECT_EQ(output.first(256), resultOf(13, data, 256));
  EXPECT_TRUE(output.untouchedFrom(256));
}

TEST_F(PssSignature, TakesItsParametersFromTheHash) {
  const struct {
    const char* name;
    CK_MECHANISM_TYPE hash;
    std::size_t hashLen;
    const char* call;
  } rows[] = {
      {"SHA-1", 0x220, 20, "C_SignInit(5, CKM 13 [544, 1, 20] 24, 22)"},
      {"SHA-224", 0x255, 28, "C_SignInit(5, CKM 13 [597, 5, 28] 24, 22)"},
      {"SHA-256", 0x250, 32, "C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)"},
      {"SHA-384", 0x260, 48, "C_SignInit(5, CKM 13 [608, 3, 48] 24, 22)"},
      {"SHA-512", 0x270, 64, "C_SignInit(5, CKM 13 [624, 4, 64] 24, 22)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Value hash = patternValue(row.hashLen, 7);
    ResultBuffer output{256};
    script.forgetCalls();
    EXPECT_EQ(bridge.pkcs11_genSignaturePSS(session, kPublicKey, row.hash, hash.data(), hash.size(),
                                            output.data(), &length, output.capacity()),
              CKR_OK);
    EXPECT_EQ(script.callTexts("C_SignInit"), std::vector<std::string>{row.call});
    EXPECT_EQ(output.all(), resultOf(13, hash, 256));
  }
}

TEST_F(PssSignature, SignsForEveryObjectOfTheKeyPair) {
  for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate}) {
    SCOPED_TRACE(object);
    ResultBuffer output{256};
    EXPECT_EQ(sign(output, object), CKR_OK);
    EXPECT_EQ(output.all(), resultOf(13, data, 256));
  }
}

TEST_F(PssSignature, AnswersTheLengthAlone) {
  EXPECT_EQ(askForTheLength(), CKR_OK);
  EXPECT_EQ(length, 256U);
  EXPECT_THAT(script.callTexts(),
              ElementsAreArray(joined({lookUpCalls(kPublicKey, "3031"), modulusCalls()})));
}

TEST_F(PssSignature, ReadsTheLengthFromThePrivateKey) {
  script.object(kPrivateKey).attributes[CKA_MODULUS] = patternValue(512, 1);
  EXPECT_EQ(askForTheLength(), CKR_OK);
  EXPECT_EQ(length, 512U);
}

TEST_F(PssSignature, IsMadeByKeysOfEveryLength) {
  for (const std::size_t size : {128U, 256U, 384U, 512U, 639U, 640U, 1024U}) {
    SCOPED_TRACE(size);
    setModulusLen(size);
    EXPECT_EQ(askForTheLength(), CKR_OK);
    EXPECT_EQ(length, size);
    ResultBuffer output{1024};
    EXPECT_EQ(sign(output), CKR_OK);
    EXPECT_EQ(output.first(size), resultOf(13, data, size));
    EXPECT_TRUE(output.untouchedFrom(size));
  }
}

TEST_F(PssSignature, AnswersThatItIsLongerThanTheCapacity) {
  for (const std::size_t capacity : {1U, 128U, 255U}) {
    SCOPED_TRACE(capacity);
    ResultBuffer output{capacity};
    EXPECT_EQ(sign(output), CK_RV{0xC1});
    EXPECT_EQ(length, 256U);
  }
}

TEST_F(PssSignature, NeedsAPrivateKey) {
  const Value noId;
  const struct {
    const char* name;
    Value id;
    CK_RV expected;
  } rows[] = {
      {"another ID", bytesOf("77"), 0x60},
      {"an empty ID", noId, 0x13},
      {"an ID that is too long", patternValue(255, 1), 0x60},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.object(kPublicKey).attributes[CKA_ID] = row.id;
    ResultBuffer output{256};
    EXPECT_EQ(sign(output), row.expected);
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_F(PssSignature, NeedsAModulus) {
  ResultBuffer output{256};
  EXPECT_EQ(sign(output, kEcPublicKey), CK_RV{0x12});
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  EXPECT_EQ(length, 0U);
}

TEST_F(PssSignature, RefusesAnEmptyModulusAlsoForTheLengthAlone) {
  for (const CK_ULONG claim : {CK_ULONG{0}, kAllOnes}) {
    SCOPED_TRACE(claim);
    script.deviations.claimedLengths[CKA_MODULUS] = {claim};
    EXPECT_EQ(askForTheLength(), CK_RV{0x13});
    ResultBuffer output{256};
    EXPECT_EQ(sign(output), CK_RV{0x13});
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  }
}

TEST_F(PssSignature, AnswersWhatARealModuleAnswers) {
  ResultBuffer output{256};
  script.card().loggedIn = false;
  EXPECT_EQ(sign(output), CK_RV{0x60});  // hidden
  script.card().privateObjectsNeedLogin = false;
  EXPECT_EQ(sign(output), CK_RV{0x101});  // found, but not to be used
  script.card().loggedIn = true;
  script.object(kPrivateKey).attributes.erase(CKA_SIGN);
  EXPECT_EQ(sign(output), CK_RV{0x68});
  EXPECT_TRUE(output.untouched());
}

TEST_F(PssSignature, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{512};
    point.arm();
    const CK_RV rv = sign(output);

    // The end of the search (5) is of no account; the first reads of the ID and of the modulus that offer
    // room for the value mark their failures.
    CK_RV expected = CKR_OK;
    const bool endOfSearchAlone = point.n() == 5 && point.times() == Times::kOnce;
    if (point.fired() && !endOfSearchAlone) {
      expected = point.n() == 1 || point.n() == 8 ? CK_RV{0x80000000} | kSomeFailure : kSomeFailure;
    }
    EXPECT_EQ(rv, expected);
    EXPECT_EQ(output.untouched(), rv != CKR_OK);
    EXPECT_EQ(script.countOf("C_Sign"), rv == CKR_OK || point.n() == kNumCalls - 1 ? 1U : 0U);
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(PssSignature, SurvivesEveryFailingAllocation) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{128};  // less than the room, so that the bridge needs room of its own
    point.arm();
    const CK_RV rv = sign(output);
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CK_RV{0xC1});
    EXPECT_EQ(script.countOf("C_SignInit"), point.fired() ? 0U : 1U);
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(PssSignature, IsRefusedOnAModuleThatLacksAFunction) {
  for (const char* function :
       {"C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects", "C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    script.reset();
    prepareAgain();
    script.removeEntry(function);
    ResultBuffer output{512};
    EXPECT_EQ(sign(output), CK_RV{0x54});
    EXPECT_TRUE(output.untouched());
  }
  // The signature that could be begun but not made.
  leavesActive({session});
}

}  // namespace
}  // namespace mirel::test
