/// Decrypting by PKCS #1 v1.5, under both of its names.

#include "PrivateKeyTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr std::size_t kNumCalls = kNumLookUpCalls + kNumModulusCalls + 2;

class DecryptionUnloaded : public UnloadedBridgeTest {};

TEST_F(DecryptionUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_genDecryptPKCS1(0, 0, nullptr, 0, nullptr, nullptr, 0), CK_RV{0x190});
  EXPECT_EQ(bridge.pkcs11_genDecryptOAEP(0, 0, nullptr, 0, 0, nullptr, nullptr, 0), CK_RV{0x190});
}

enum class Kind { kPKCS1, kOAEP };

class Decryption : public PrivateKeyTest, public ::testing::WithParamInterface<Kind> {
 protected:
  CK_RV decryptTo(CK_BYTE* output, CK_ULONG capacity, CK_OBJECT_HANDLE object = kPublicKey) {
    return decrypt(session, object, cipher.data(), cipher.size(), output, &length, capacity);
  }
  CK_RV decrypt(ResultBuffer& output, CK_OBJECT_HANDLE object = kPublicKey) {
    return decryptTo(output.data(), output.capacity(), object);
  }
  CK_RV decrypt(CK_SESSION_HANDLE inSession, CK_OBJECT_HANDLE object, const CK_BYTE* of, CK_ULONG len,
                CK_BYTE* output, CK_ULONG* outLen, CK_ULONG capacity) {
    if (GetParam() == Kind::kPKCS1) {
      return bridge.pkcs11_genDecryptPKCS1(inSession, object, of, len, output, outLen, capacity);
    }
    return bridge.pkcs11_genDecryptOAEP(inSession, object, of, len, hash, output, outLen, capacity);
  }

  CK_MECHANISM_TYPE hash = CKM_SHA384;
  const Value plain = bytesOf("the plain text");
  Value cipher = cipherOf(plain);
};

INSTANTIATE_TEST_SUITE_P(Kinds, Decryption, ::testing::Values(Kind::kPKCS1, Kind::kOAEP),
                         [](const auto& kind) { return kind.param == Kind::kPKCS1 ? "PKCS1" : "OAEP"; });

TEST_P(Decryption, RefusesNullAndNoneWithoutACall) {
  CK_BYTE output[512];
  const CK_BYTE* const bytes = cipher.data();
  // Also with a hash that is refused on its own: that check comes later.
  for (const CK_MECHANISM_TYPE of : {CKM_SHA256, CK_MECHANISM_TYPE{0x210}}) {
    hash = of;
    for (const CK_ULONG none : kNoHandles) {
      SCOPED_TRACE(none);
      EXPECT_EQ(decrypt(none, kPublicKey, bytes, 256, output, &length, 512), CK_RV{7});
      EXPECT_EQ(decrypt(session, none, bytes, 256, output, &length, 512), CK_RV{7});
    }
    EXPECT_EQ(decrypt(session, kPublicKey, nullptr, 256, output, &length, 512), CK_RV{7});
    EXPECT_EQ(decrypt(session, kPublicKey, bytes, 0, output, &length, 512), CK_RV{7});
    EXPECT_EQ(decrypt(session, kPublicKey, bytes, 256, output, nullptr, 512), CK_RV{7});
    EXPECT_EQ(decrypt(session, kPublicKey, bytes, 256, output, &length, 0), CK_RV{7});
    EXPECT_EQ(decrypt(session, kPublicKey, bytes, 256, nullptr, &length, 0), CK_RV{7});
  }
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(length, 0U);
}

TEST_P(Decryption, MakesExactlyTheseCalls) {
  ResultBuffer output{512};
  EXPECT_EQ(decrypt(output), CKR_OK);
  // OAEP too: the mechanism is CKM_RSA_PKCS.
  EXPECT_THAT(script.callTexts(),
              ElementsAreArray(joined({lookUpCalls(kPublicKey, "3031"),
                                       modulusCalls(),
                                       {"C_DecryptInit(5, CKM 1 null 0, 22)",
                                        "C_Decrypt(5, " + hexText(cipher) + ", room 256)"}})));
  EXPECT_EQ(script.calls().size(), kNumCalls);
}

TEST_P(Decryption, WritesThePlainTextAndItsLength) {
  ResultBuffer output{512};
  length = 3;  // on entry of no account
  EXPECT_EQ(decrypt(output), CKR_OK);
  EXPECT_EQ(length, plain.size());
  EXPECT_EQ(output.first(length), plain);
  EXPECT_TRUE(output.untouchedFrom(length));
}

TEST_P(Decryption, DecryptsForEveryObjectOfTheKeyPair) {
  for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate}) {
    SCOPED_TRACE(object);
    ResultBuffer output{256};
    EXPECT_EQ(decrypt(output, object), CKR_OK);
    EXPECT_EQ(output.first(length), plain);
  }
}

TEST_P(Decryption, AnnouncesTheModulusOfThePrivateKey) {
  script.object(kPrivateKey).attributes[CKA_MODULUS] = patternValue(384, 1);
  cipher = cipherOf(plain, 384);
  ResultBuffer output{384};
  EXPECT_EQ(decrypt(output), CKR_OK);
  EXPECT_EQ(script.callTexts().back(), "C_Decrypt(5, " + hexText(cipher) + ", room 384)");
}

TEST_P(Decryption, DecryptsWithKeysOfEveryLength) {
  for (const std::size_t size : {128U, 256U, 384U, 512U, 640U, 1024U}) {
    SCOPED_TRACE(size);
    setModulusLen(size);
    cipher = cipherOf(plain, size);
    ResultBuffer output{2000};
    EXPECT_EQ(decrypt(output), CKR_OK);
    EXPECT_EQ(output.first(length), plain);
    EXPECT_TRUE(output.untouchedFrom(length));
  }
}

TEST_P(Decryption, HandsANullOutputOn) {
  EXPECT_EQ(decryptTo(nullptr, 512), CKR_OK);
  EXPECT_EQ(length, plain.size());
  EXPECT_EQ(script.callTexts().back(), "C_Decrypt(5, " + hexText(cipher) + ", null 256)");
  // The module has only told the length, and keeps the operation open.
  EXPECT_EQ(decryptTo(nullptr, 512), CKR_OPERATION_ACTIVE);
  leavesActive({session});
}

TEST_P(Decryption, HandsANullOutputOnWhateverTheCapacity) {
  EXPECT_EQ(decryptTo(nullptr, 3), CK_RV{0x41});
  EXPECT_EQ(length, plain.size());
  EXPECT_EQ(script.callTexts().back(), "C_Decrypt(5, " + hexText(cipher) + ", null 256)");
  leavesActive({session});
}

TEST_P(Decryption, HandsACipherTextOfEveryLengthOn) {
  for (const std::size_t size : {1U, 255U, 257U, 5000U}) {
    SCOPED_TRACE(size);
    script.forgetCalls();
    cipher = patternValue(size, 3);
    ResultBuffer output{512};
    EXPECT_EQ(decrypt(output), CK_RV{0x41});  // the module's
    EXPECT_EQ(script.callTexts().back(), "C_Decrypt(5, " + hexText(cipher) + ", room 256)");
    EXPECT_TRUE(output.untouched());
  }
}

TEST_P(Decryption, AnswersThatItIsLongerThanTheCapacity) {
  const struct {
    std::size_t capacity;
    CK_RV expected;
  } rows[] = {{1, 0x41}, {13, 0x41}, {14, 0}, {15, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.capacity);
    ResultBuffer output{row.capacity};
    EXPECT_EQ(decrypt(output), row.expected);
    EXPECT_EQ(length, 14U);
  }
}

TEST_P(Decryption, WritesAnEmptyPlainText) {
  cipher = cipherOf({});
  ResultBuffer output{512};
  EXPECT_EQ(decrypt(output), CKR_OK);
  EXPECT_EQ(length, 0U);
  EXPECT_TRUE(output.untouched());
}

TEST_P(Decryption, NeedsAPrivateKeyWithAModulus) {
  ResultBuffer output{512};
  EXPECT_EQ(decrypt(output, kEcPublicKey), CK_RV{0x12});
  script.object(kPublicKey).attributes[CKA_ID] = bytesOf("77");
  EXPECT_EQ(decrypt(output), CK_RV{0x60});
  script.object(kPublicKey).attributes[CKA_ID] = {};
  EXPECT_EQ(decrypt(output), CK_RV{0x13});
  script.object(kPublicKey).attributes[CKA_ID] = bytesOf("01");
  script.deviations.claimedLengths[CKA_MODULUS] = {0};
  EXPECT_EQ(decrypt(output), CK_RV{0x13});
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
  EXPECT_TRUE(output.untouched());
}

TEST_P(Decryption, AnswersWhatARealModuleAnswers) {
  ResultBuffer output{512};
  cipher = patternValue(256, 3);
  EXPECT_EQ(decrypt(output), CK_RV{0x40});
  script.card().privateObjectsNeedLogin = false;
  script.card().loggedIn = false;
  EXPECT_EQ(decrypt(output), CK_RV{0x101});
  script.card().loggedIn = true;
  script.object(kPrivateKey).attributes.erase(CKA_DECRYPT);
  EXPECT_EQ(decrypt(output), CK_RV{0x68});
  EXPECT_TRUE(output.untouched());
}

TEST_P(Decryption, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{512};
    point.arm();
    const CK_RV rv = decrypt(output);
    CK_RV expected = CKR_OK;
    const bool endOfSearchAlone = point.n() == 5 && point.times() == Times::kOnce;
    if (point.fired() && !endOfSearchAlone) {
      expected = point.n() == 1 || point.n() == 8 ? CK_RV{0x80000000} | kSomeFailure : kSomeFailure;
    }
    EXPECT_EQ(rv, expected);
    EXPECT_EQ(output.untouched(), rv != CKR_OK);
    EXPECT_EQ(script.countOf("C_Decrypt"), rv == CKR_OK || point.n() == kNumCalls - 1 ? 1U : 0U);
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_P(Decryption, SurvivesEveryFailingAllocation) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{14};  // less than the room, so that the bridge needs room of its own
    point.arm();
    const CK_RV rv = decrypt(output);
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
    EXPECT_EQ(output.untouched(), point.fired());
    EXPECT_EQ(script.countOf("C_DecryptInit"), point.fired() ? 0U : 1U);
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_P(Decryption, IsRefusedOnAModuleThatLacksAFunction) {
  for (const char* function :
       {"C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects", "C_DecryptInit", "C_Decrypt"}) {
    SCOPED_TRACE(function);
    script.reset();
    prepareAgain();
    script.removeEntry(function);
    ResultBuffer output{512};
    EXPECT_EQ(decrypt(output), CK_RV{0x54});
    EXPECT_TRUE(output.untouched());
  }
  // The decryption that could be begun but not made.
  leavesActive({session});
}

// ---- What only OAEP looks at ----

using OAEPDecryption = Decryption;
INSTANTIATE_TEST_SUITE_P(Kinds, OAEPDecryption, ::testing::Values(Kind::kOAEP));

TEST_P(OAEPDecryption, AcceptsFiveHashesAndDecryptsWithNone) {
  for (const CK_MECHANISM_TYPE of : {0x220U, 0x255U, 0x250U, 0x260U, 0x270U}) {
    SCOPED_TRACE(of);
    hash = of;
    script.forgetCalls();
    ResultBuffer output{512};
    EXPECT_EQ(decrypt(output), CKR_OK);
    EXPECT_EQ(script.callTexts("C_DecryptInit"),
              std::vector<std::string>{"C_DecryptInit(5, CKM 1 null 0, 22)"});
  }
}

TEST_P(OAEPDecryption, RefusesOtherHashesWithoutACall) {
  for (const CK_MECHANISM_TYPE of :
       {CK_MECHANISM_TYPE{0}, CK_MECHANISM_TYPE{0x210}, CK_MECHANISM_TYPE{0x21F}, CK_MECHANISM_TYPE{0x221},
        CK_MECHANISM_TYPE{0x251}, CK_MECHANISM_TYPE{0x2B0}, CK_MECHANISM_TYPE{0x100000260}, kAllOnes}) {
    SCOPED_TRACE(of);
    hash = of;
    ResultBuffer output{512};
    EXPECT_EQ(decrypt(output), CK_RV{0x70});
    EXPECT_TRUE(output.untouched());
  }
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(length, 0U);
}

}  // namespace
}  // namespace mirel::test
