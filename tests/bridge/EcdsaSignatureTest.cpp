/// Signing a hash with ECDSA.

#include "PrivateKeyTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

class EcdsaSignatureUnloaded : public UnloadedBridgeTest {};

TEST_F(EcdsaSignatureUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_genECDSA(0, 0, 0, nullptr, 0, nullptr, nullptr, 0), CK_RV{0x190});
}

class EcdsaSignature : public PrivateKeyTest {
 protected:
  EcdsaSignature() { length = 64; }

  CK_RV sign(ResultBuffer& output, CK_OBJECT_HANDLE object = kEcPublicKey, std::uint32_t keySize = 256) {
    return bridge.pkcs11_genECDSA(session, object, keySize, data.data(), data.size(), output.data(), &length,
                                  output.capacity());
  }
};

TEST_F(EcdsaSignature, RefusesNullAndNoneWithoutACall) {
  CK_BYTE output[64];
  const CK_BYTE* const bytes = data.data();
  const auto refused = [&](CK_SESSION_HANDLE inSession, CK_OBJECT_HANDLE object, const CK_BYTE* of,
                           CK_ULONG len, CK_ULONG* outLen, CK_ULONG capacity) {
    // Also with a curve that is refused on its own: that check comes later.
    for (const std::uint32_t keySize : {256U, 521U}) {
      EXPECT_EQ(bridge.pkcs11_genECDSA(inSession, object, keySize, of, len, output, outLen, capacity),
                CK_RV{7});
    }
  };
  for (const CK_ULONG none : kNoHandles) {
    SCOPED_TRACE(none);
    refused(none, kEcPublicKey, bytes, 32, &length, 64);
    refused(session, none, bytes, 32, &length, 64);
  }
  refused(session, kEcPublicKey, nullptr, 32, &length, 64);
  refused(session, kEcPublicKey, bytes, 0, &length, 64);
  refused(session, kEcPublicKey, bytes, 32, nullptr, 64);
  refused(session, kEcPublicKey, bytes, 32, &length, 0);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(length, 64U);
}

TEST_F(EcdsaSignature, RefusesOtherCurvesWithoutACall) {
  const struct {
    std::uint32_t keySize;
    CK_RV expected;
  } rows[] = {{0, 7},       {522, 7},     {1024, 7},    {~std::uint32_t{0}, 7}, {1, 0x140},   {192, 0x140},
              {224, 0x140}, {255, 0x140}, {257, 0x140}, {383, 0x140},           {385, 0x140}, {521, 0x140}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.keySize);
    ResultBuffer output{64};
    EXPECT_EQ(sign(output, kEcPublicKey, row.keySize), row.expected);
    EXPECT_TRUE(output.untouched());
  }
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(EcdsaSignature, MakesExactlyTheseCalls) {
  ResultBuffer output{64};
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAreArray(joined({lookUpCalls(kEcPublicKey, "3032"),
                                                           {"C_SignInit(5, CKM 4161 null 0, 25)",
                                                            "C_Sign(5, " + hexText(data) + ", room 64)"}})));
}

TEST_F(EcdsaSignature, WritesTheSignatureAndItsLength) {
  for (const std::uint32_t keySize : {256U, 384U}) {
    SCOPED_TRACE(keySize);
    const std::size_t expected = keySize / 4;
    script.object(kEcPrivateKey).attributes[CKA_EC_PARAMS] = keySize == 256 ? p256Params() : p384Params();
    ResultBuffer output{512};
    length = 512;
    EXPECT_EQ(sign(output, kEcPublicKey, keySize), CKR_OK);
    EXPECT_EQ(length, expected);
    EXPECT_EQ(output.first(expected), resultOf(0x1041, data, expected));
    EXPECT_TRUE(output.untouchedFrom(expected));
  }
}

TEST_F(EcdsaSignature, DoesNotCompareTheKeySizeWithTheKey) {
  ResultBuffer output{96};
  length = 96;
  EXPECT_EQ(sign(output, kEcPublicKey, 384), CKR_OK);
  EXPECT_EQ(length, 64U);
}

TEST_F(EcdsaSignature, KeepsTheCallersLengthWithoutAnOutput) {
  const struct {
    CK_ULONG entry;
    CK_RV expected;
  } rows[] = {{0, 0x60}, {kAllOnes, 0x60}, {1, 0}, {64, 0}, {kAllOnes - 1, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.entry);
    script.forgetCalls();
    length = row.entry;
    EXPECT_EQ(
        bridge.pkcs11_genECDSA(session, kEcPublicKey, 256, data.data(), data.size(), nullptr, &length, 64),
        row.expected);
    EXPECT_EQ(length, row.entry);
    // The key is looked for, but not used.
    EXPECT_THAT(script.callTexts(), ElementsAreArray(lookUpCalls(kEcPublicKey, "3032")));
  }
}

TEST_F(EcdsaSignature, LooksForTheKeyBeforeItLooksAtTheOutput) {
  script.card().loggedIn = false;
  EXPECT_EQ(
      bridge.pkcs11_genECDSA(session, kEcPublicKey, 256, data.data(), data.size(), nullptr, &length, 64),
      CK_RV{0x60});
  script.card().loggedIn = true;
  script.object(kEcPublicKey).attributes.erase(CKA_ID);
  length = 0;
  EXPECT_EQ(
      bridge.pkcs11_genECDSA(session, kEcPublicKey, 256, data.data(), data.size(), nullptr, &length, 64),
      CK_RV{0x12});
}

TEST_F(EcdsaSignature, AnnouncesTheCallersLengthAsTheRoom) {
  const struct {
    CK_ULONG room;
    CK_RV expected;
  } rows[] = {{0, 0x150}, {63, 0x150}, {64, 0}, {72, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.room);
    script.reset();
    prepareAgain();
    ResultBuffer output{72};
    length = row.room;
    EXPECT_EQ(sign(output), row.expected);
    EXPECT_EQ(script.callTexts().back(),
              "C_Sign(5, " + hexText(data) + ", room " + std::to_string(row.room) + ")");
    EXPECT_EQ(output.untouched(), row.expected != CKR_OK);
  }
}

TEST_F(EcdsaSignature, AnswersThatItIsLongerThanTheCapacity) {
  ResultBuffer output{63};
  EXPECT_EQ(sign(output), CK_RV{0xC1});
  EXPECT_EQ(length, 64U);
}

TEST_F(EcdsaSignature, IsNotMadeByAnRsaKey) {
  ResultBuffer output{64};
  EXPECT_EQ(sign(output, kPublicKey), CK_RV{0x63});
  EXPECT_TRUE(output.untouched());
}

TEST_F(EcdsaSignature, SurvivesEveryFailingCall) {
  constexpr std::size_t kNumCalls = kNumLookUpCalls + 2;
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{64};
    length = 64;
    point.arm();
    const CK_RV rv = sign(output);
    CK_RV expected = CKR_OK;
    const bool endOfSearchAlone = point.n() == 5 && point.times() == Times::kOnce;
    if (point.fired() && !endOfSearchAlone) {
      expected = point.n() == 1 ? CK_RV{0x80000000} | kSomeFailure : kSomeFailure;
    }
    EXPECT_EQ(rv, expected);
    EXPECT_EQ(output.untouched(), rv != CKR_OK);
    EXPECT_EQ(script.countOf("C_Sign"), rv == CKR_OK || point.n() == kNumCalls - 1 ? 1U : 0U);
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(EcdsaSignature, SurvivesEveryFailingAllocation) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{63};
    length = 64;
    point.arm();
    const CK_RV rv = sign(output);
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CK_RV{0xC1});
    EXPECT_EQ(script.countOf("C_SignInit"), point.fired() ? 0U : 1U);
  });
}

TEST_F(EcdsaSignature, IsRefusedOnAModuleThatLacksAFunction) {
  for (const char* function :
       {"C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects", "C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    script.reset();
    prepareAgain();
    script.removeEntry(function);
    ResultBuffer output{64};
    EXPECT_EQ(sign(output), CK_RV{0x54});
    EXPECT_TRUE(output.untouched());
  }
  // The signature that could be begun but not made.
  leavesActive({session});
}

}  // namespace
}  // namespace mirel::test
