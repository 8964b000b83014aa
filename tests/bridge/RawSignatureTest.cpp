/// Signing one block with raw RSA.

#include "PrivateKeyTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RawSignatureUnloaded : public UnloadedBridgeTest {};

TEST_F(RawSignatureUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_genSignaturePKCS1(0, 0, nullptr, 0, nullptr, nullptr, 0), CK_RV{0x190});
}

class RawSignature : public PrivateKeyTest {
 protected:
  RawSignature() { length = 256; }

  CK_RV sign(ResultBuffer& output) {
    return bridge.pkcs11_genSignaturePKCS1(session, kPrivateKey, block.data(), block.size(), output.data(),
                                           &length, output.capacity());
  }
  CK_RV askForTheLength(CK_ULONG entry) {
    length = entry;
    return bridge.pkcs11_genSignaturePKCS1(session, kPrivateKey, block.data(), block.size(), nullptr, &length,
                                           512);
  }

  Value block = {0x00, 0x01, 0xFE};
};

TEST_F(RawSignature, RefusesNullAndNoneWithoutACall) {
  CK_BYTE output[512];
  const CK_BYTE* const bytes = block.data();
  const auto refused = [&](CK_SESSION_HANDLE inSession, CK_OBJECT_HANDLE key, const CK_BYTE* of, CK_ULONG len,
                           CK_ULONG* outLen, CK_ULONG capacity) {
    EXPECT_EQ(bridge.pkcs11_genSignaturePKCS1(inSession, key, of, len, output, outLen, capacity), CK_RV{7});
    // The check for the output comes later.
    EXPECT_EQ(bridge.pkcs11_genSignaturePKCS1(inSession, key, of, len, nullptr, outLen, capacity), CK_RV{7});
  };
  for (const CK_ULONG none : kNoHandles) {
    SCOPED_TRACE(none);
    refused(none, kPrivateKey, bytes, 3, &length, 512);
    refused(session, none, bytes, 3, &length, 512);
  }
  refused(session, kPrivateKey, nullptr, 3, &length, 512);
  refused(session, kPrivateKey, bytes, 0, &length, 512);
  refused(session, kPrivateKey, bytes, 3, nullptr, 512);
  refused(session, kPrivateKey, bytes, 3, &length, 0);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(length, 256U);
}

TEST_F(RawSignature, HasNoSizeQuery) {
  const struct {
    CK_ULONG entry;
    CK_RV expected;
  } rows[] = {{0, 0x60}, {kAllOnes, 0x60}, {1, 6}, {256, 6}, {kAllOnes - 1, 6}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.entry);
    EXPECT_EQ(askForTheLength(row.entry), row.expected);
    EXPECT_EQ(length, row.entry);
  }
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(RawSignature, MakesExactlyTheseCalls) {
  ResultBuffer output{512};
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_SignInit(5, CKM 3 null 0, 22)", "C_Sign(5, 0001FE, room 256)"));
}

TEST_F(RawSignature, WritesTheSignatureAndItsLength) {
  ResultBuffer output{512};
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_EQ(length, 256U);
  EXPECT_EQ(output.first(256), resultOf(3, block, 256));
  EXPECT_TRUE(output.untouchedFrom(256));
  EXPECT_THAT(memory->requests(), IsEmpty());
}

TEST_F(RawSignature, HandsTheWholeBlockOnAsItIs) {
  block = patternValue(256, 0);
  ResultBuffer output{256};
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_EQ(script.callTexts().back(), "C_Sign(5, " + hexText(block) + ", room 256)");
}

TEST_F(RawSignature, UsesTheKeyGivenAndLooksForNoOther) {
  ResultBuffer output{512};
  // The public key is an object of the pair, but not the one that signs.
  EXPECT_EQ(bridge.pkcs11_genSignaturePKCS1(session, kPublicKey, block.data(), block.size(), output.data(),
                                            &length, output.capacity()),
            CKR_KEY_HANDLE_INVALID);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_SignInit(5, CKM 3 null 0, 21)"));
}

TEST_F(RawSignature, AnnouncesTheCallersLengthAsTheRoom) {
  const struct {
    CK_ULONG room;
    CK_RV expected;
  } rows[] = {{0, 0x150}, {255, 0x150}, {256, 0}, {257, 0}, {512, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.room);
    ResultBuffer output{512};
    script.reset();
    prepareAgain();
    length = row.room;
    EXPECT_EQ(sign(output), row.expected);
    EXPECT_EQ(script.callTexts().back(), "C_Sign(5, 0001FE, room " + std::to_string(row.room) + ")");
    EXPECT_EQ(length, 256U);
    EXPECT_EQ(output.untouched(), row.expected != CKR_OK);
    // The standard keeps the operation open for another try.
    EXPECT_EQ(script.openOperations().empty(), row.expected == CKR_OK);
  }
}

TEST_F(RawSignature, AnswersThatItIsLongerThanTheCapacity) {
  ResultBuffer output{128};
  EXPECT_EQ(sign(output), CK_RV{0xC0});
  EXPECT_EQ(length, 256U);
}

TEST_F(RawSignature, FitsExactly) {
  ResultBuffer output{256};
  EXPECT_EQ(sign(output), CKR_OK);
  EXPECT_EQ(output.all(), resultOf(3, block, 256));
}

TEST_F(RawSignature, AnswersAFailureUnchanged) {
  ResultBuffer output{512};
  for (const CK_RV code : {CK_RV{0x101}, CK_RV{0x21}, CKR_DEVICE_REMOVED, CK_RV{0x80000099}}) {
    for (const std::size_t n : {std::size_t{0}, std::size_t{1}}) {
      SCOPED_TRACE(code);
      SCOPED_TRACE(n);
      script.reset();
      prepareAgain();
      script.failCall(n, code);
      EXPECT_EQ(sign(output), code);
      EXPECT_EQ(script.calls().size(), n + 1);
      EXPECT_EQ(length, 256U);
    }
  }
  EXPECT_TRUE(output.untouched());
}

TEST_F(RawSignature, AnswersWhatARealModuleAnswers) {
  ResultBuffer output{512};
  script.card().loggedIn = false;
  EXPECT_EQ(sign(output), CK_RV{0x101});
  script.card().loggedIn = true;
  block = patternValue(257, 0);
  EXPECT_EQ(sign(output), CK_RV{0x21});
  script.pullCard(kSlot, CKR_DEVICE_REMOVED);
  EXPECT_EQ(sign(output), CKR_DEVICE_REMOVED);
  leavesOpen({});
}

TEST_F(RawSignature, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{512};
    length = 256;
    point.arm();
    const CK_RV rv = sign(output);
    EXPECT_EQ(rv, point.fired() ? kSomeFailure : CKR_OK);
    EXPECT_EQ(script.calls().size(), point.fired() ? point.n() + 1 : 2U);
    EXPECT_EQ(output.untouched(), point.fired());
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(RawSignature, LeavesTheLengthThatAFailingModuleWrote) {
  ResultBuffer output{512};
  script.deviations.lengthsOnFailure["C_Sign"] = 1024;
  script.failCallOf("C_Sign", 0, kSomeFailure);
  EXPECT_EQ(sign(output), kSomeFailure);
  EXPECT_EQ(length, 1024U);
  EXPECT_TRUE(output.untouched());
}

TEST_F(RawSignature, IsRefusedOnAModuleThatLacksAFunction) {
  for (const char* function : {"C_SignInit", "C_Sign"}) {
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
