/// Signing, decrypting and deriving: arguments, keys, and what is particular to each operation.

#include "KeyOperations.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::IsEmpty;

INSTANTIATE_TEST_SUITE_P(All, KeyOperations, ::testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

// ---- Arguments ----

TEST_P(KeyOperations, RefuseNullAndNoneWithoutACall) {
  const struct {
    const char* what;
    void (*change)(Arguments&);
  } rows[] = {
      {"session 0", [](Arguments& a) { a.session = 0; }},
      {"session all-ones", [](Arguments& a) { a.session = kAllOnes; }},
      {"object 0", [](Arguments& a) { a.object = 0; }},
      {"object all-ones", [](Arguments& a) { a.object = kAllOnes; }},
      {"no data", [](Arguments& a) { a.data = nullptr; }},
      {"empty data", [](Arguments& a) { a.dataLen = 0; }},
      {"no length", [](Arguments& a) { a.length = nullptr; }},
      {"no capacity", [](Arguments& a) { a.capacity = 0; }},
  };
  ResultBuffer output{512};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Arguments with = arguments(output);
    row.change(with);
    EXPECT_EQ(run(with), CKR_ARGUMENTS_BAD);
    // What is refused on its own is looked at later.
    with.output = nullptr;
    with.hash = 0x210;
    with.keySize = 521;
    EXPECT_EQ(run(with), CKR_ARGUMENTS_BAD);
  }
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(length, 512U);
  EXPECT_TRUE(output.untouched());
}

TEST_P(KeyOperations, RefuseHashesAndCurvesThatTheyDoNotKnowWithoutACall) {
  ResultBuffer output{512};
  Arguments with = arguments(output);
  if (GetParam().looksAtHash) {
    // None, MD2, MD5, neighbours of SHA-1, RIPEMD-160, a neighbour of SHA-256, HMAC with SHA-224,
    // SHA-512/224, SHA3-256, PSS itself, the low 32 bits of SHA-256, vendor defined, nearly all-ones.
    for (const CK_MECHANISM_TYPE hash :
         {0x0UL, 0x200UL, 0x210UL, 0x21FUL, 0x221UL, 0x240UL, 0x24FUL, 0x256UL, 0x48UL, 0x2B0UL, 0x0DUL,
          0x100000250UL, 0x80000250UL, kAllOnes - 1}) {
      SCOPED_TRACE(hash);
      with.hash = hash;
      EXPECT_EQ(run(with), CKR_MECHANISM_INVALID);
    }
    with.hash = kAllOnes;
    EXPECT_EQ(run(with), GetParam().signs() ? CKR_ARGUMENTS_BAD : CKR_MECHANISM_INVALID);
  }
  if (GetParam().mechanism == CKM_ECDSA) {
    for (const std::uint32_t keySize : {0U, 522U, 1024U, ~0U, 1U, 192U, 224U, 255U, 257U, 383U, 385U, 521U}) {
      SCOPED_TRACE(keySize);
      with.keySize = keySize;
      const bool possible = keySize > 0 && keySize <= 521;
      EXPECT_EQ(run(with), possible ? CKR_CURVE_NOT_SUPPORTED : CKR_ARGUMENTS_BAD);
    }
  }
  EXPECT_TRUE(output.untouched());
  EXPECT_THAT(script.calls(), IsEmpty());
}

// ---- The key ----

TEST_P(KeyOperations, TakeEveryObjectOfTheKeyPairOrThePrivateKeyAlone) {
  const bool ec = GetParam().mechanism == CKM_ECDSA;
  for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate, kEcPublicKey, kEcPrivateKey}) {
    if (ec != (object == kEcPublicKey || object == kEcPrivateKey)) continue;
    SCOPED_TRACE(object);
    ResultBuffer output{512};
    Arguments with = arguments(output);
    with.object = object;
    const bool works = GetParam().looksKeyUp() || object == kPrivateKey;
    EXPECT_EQ(run(with), works ? CKR_OK : CKR_KEY_HANDLE_INVALID);
    if (works) {
      EXPECT_EQ(output.first(length), result());
    }
    EXPECT_EQ(script.countOf("C_FindObjectsInit") > 0, GetParam().looksKeyUp());
  }
}

TEST_P(KeyOperations, NeedAReadableModulusWhereTheyAnnounceItAndTakeThatOfThePrivateKey) {
  if (!GetParam().readsModulus) return;
  ResultBuffer output{512};
  Arguments with = arguments(output);
  with.object = kEcPublicKey;
  EXPECT_EQ(run(with), CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(length, 0U);
  with.object = kPublicKey;
  for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
    script.deviations.claimedLengths[CKA_MODULUS] = {claimed};
    for (CK_BYTE* const out : {output.data(), static_cast<CK_BYTE*>(nullptr)}) {
      with.output = out;
      EXPECT_EQ(run(with), CKR_ATTRIBUTE_VALUE_INVALID);
    }
  }
  EXPECT_EQ(numBegun(), 0U);
  startAnewWithPlainText();
  script.object(kPrivateKey).attributes[CKA_MODULUS] = patternValue(384, 1);
  EXPECT_EQ(run(output), CKR_OK);
  EXPECT_THAT(script.callTexts().back(), EndsWith(", room 384)"));
}

TEST_P(KeyOperations, WorkWithKeysOfEveryLength) {
  if (GetParam().mechanism == CKM_ECDSA) return;  // see below
  for (const std::size_t size : {128U, 256U, 384U, 512U, 639U, 640U, 1024U}) {
    SCOPED_TRACE(size);
    setModulusLen(size);
    length = size;
    ResultBuffer output{1024};
    EXPECT_EQ(run(output), CKR_OK);
    const Value expected = GetParam().signs() ? resultOf(GetParam().mechanism, data, size) : kPlain;
    EXPECT_EQ(output.first(length), expected);
    EXPECT_TRUE(output.untouchedFrom(expected.size()));
  }
}

// ---- A null output ----

TEST_P(KeyOperations, AnswerANullOutputEachInItsWay) {
  const CK_ULONG entries[] = {0, kAllOnes, 1, 64, 256, kAllOnes - 1};
  ResultBuffer unused{512};
  Arguments with = arguments(unused);
  with.output = nullptr;
  for (const CK_ULONG entry : entries) {
    SCOPED_TRACE(entry);
    startAnewWithPlainText();
    length = entry;
    const CK_RV rv = run(with);
    const bool none = entry == 0 || entry == kAllOnes;
    switch (GetParam().mechanism) {
      case CKM_RSA_X_509:  // there is no size query
        EXPECT_EQ(rv, none ? CKR_KEY_HANDLE_INVALID : CKR_FUNCTION_FAILED);
        EXPECT_EQ(length, entry);
        EXPECT_THAT(script.calls(), IsEmpty());
        break;
      case CKM_ECDSA:  // the key is looked for, but not used
        EXPECT_EQ(rv, none ? CKR_KEY_HANDLE_INVALID : CKR_OK);
        EXPECT_EQ(length, entry);
        EXPECT_THAT(script.callTexts(), ElementsAreArray(lookUpCalls(kEcPublicKey, "3032")));
        break;
      case CKM_RSA_PKCS_PSS:
        EXPECT_EQ(rv, CKR_OK);
        EXPECT_EQ(length, 256U);
        EXPECT_THAT(script.callTexts(),
                    ElementsAreArray(inOrder({lookUpCalls(kPublicKey), modulusCalls(kPrivateKey)})));
        break;
      default:  // the module is asked, and keeps the operation open
        EXPECT_EQ(rv, CKR_OK);
        EXPECT_EQ(length, kPlain.size());
        EXPECT_THAT(script.callTexts().back(), EndsWith(", null 256)"));
        EXPECT_EQ(run(with), CKR_OPERATION_ACTIVE);
        leavesActive({session});
    }
  }
  if (!GetParam().signs()) {
    startAnewWithPlainText();
    with.capacity = 3;
    EXPECT_EQ(run(with), GetParam().tooLong) << "the capacity counts without an output too";
    EXPECT_EQ(length, kPlain.size());
  }
}

// ---- What is particular to one of them ----

class OneKeyOperation : public SessionTest {
 protected:
  Arguments with(CK_OBJECT_HANDLE object, const Value& data, CK_MECHANISM_TYPE hash = CKM_SHA256) {
    return {.object = object,
            .hash = hash,
            .data = data.data(),
            .dataLen = data.size(),
            .output = output.data(),
            .length = &length,
            .capacity = 512};
  }

  ResultBuffer output{512};
  CK_ULONG length = 512;
};

TEST_F(OneKeyOperation, RawSignatureHandsTheWholeBlockOnAsItIs) {
  const Value block = patternValue(256, 0);
  EXPECT_EQ(kOperations[0].run(bridge, with(kPrivateKey, block)), CKR_OK);
  EXPECT_EQ(script.callTexts().back(), "C_Sign(5, " + hexText(block) + ", room 512)");
}

TEST_F(OneKeyOperation, PssSignatureTakesItsParametersFromTheHash) {
  const struct {
    const char* what;
    CK_MECHANISM_TYPE hash;
    std::size_t hashLen;
    const char* parameters;
  } rows[] = {
      {"SHA-1", 0x220, 20, "[544, 1, 20]"},   {"SHA-224", 0x255, 28, "[597, 5, 28]"},
      {"SHA-256", 0x250, 32, "[592, 2, 32]"}, {"SHA-384", 0x260, 48, "[608, 3, 48]"},
      {"SHA-512", 0x270, 64, "[624, 4, 64]"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    const Value hash = patternValue(row.hashLen, 7);
    EXPECT_EQ(kOperations[1].run(bridge, with(kPublicKey, hash, row.hash)), CKR_OK);
    EXPECT_THAT(script.callTexts("C_SignInit"),
                ElementsAre("C_SignInit(5, CKM 13 " + std::string{row.parameters} + " 24, 22)"));
    EXPECT_EQ(output.first(256), resultOf(CKM_RSA_PKCS_PSS, hash, 256));
  }
}

TEST_F(OneKeyOperation, EcdsaSignatureOfP384HasTwice48BytesWhateverTheKeySizeGiven) {
  const Value hash = patternValue(32, 7);
  script.object(kEcPrivateKey).attributes[CKA_EC_PARAMS] = p384Params();
  for (const std::uint32_t keySize : {256U, 384U}) {
    SCOPED_TRACE(keySize);
    length = 512;
    Arguments given = with(kEcPublicKey, hash);
    given.keySize = keySize;
    EXPECT_EQ(kOperations[2].run(bridge, given), CKR_OK);
    EXPECT_EQ(length, 96U);
    EXPECT_EQ(output.first(96), resultOf(CKM_ECDSA, hash, 96));
  }
}

TEST_F(OneKeyOperation, OAEPDecryptionAcceptsFiveHashesAndUsesNone) {
  const Value cipher = cipherOf(kPlain);
  for (const CK_MECHANISM_TYPE hash : {0x220U, 0x255U, 0x250U, 0x260U, 0x270U}) {
    SCOPED_TRACE(hash);
    script.forgetCalls();
    EXPECT_EQ(kOperations[4].run(bridge, with(kPublicKey, cipher, hash)), CKR_OK);
    EXPECT_THAT(script.callTexts("C_DecryptInit"), ElementsAre("C_DecryptInit(5, CKM 1 null 0, 22)"));
    EXPECT_EQ(output.first(length), kPlain);
  }
}

TEST_F(OneKeyOperation, DecryptionHandsACipherTextOfEveryLengthOn) {
  for (const std::size_t size : {1U, 255U, 257U, 5000U}) {
    SCOPED_TRACE(size);
    const Value cipher = patternValue(size, 3);
    EXPECT_EQ(kOperations[3].run(bridge, with(kPublicKey, cipher)), CKR_ENCRYPTED_DATA_LEN_RANGE)
        << "the module's own answer";
    EXPECT_EQ(script.callTexts().back(), "C_Decrypt(5, " + hexText(cipher) + ", room 256)");
  }
}

// ---- Deriving a secret key by ECDH ----

class KeyDerivation : public SessionTest {
 protected:
  CK_RV derive(CK_OBJECT_HANDLE baseKey = kEcPrivateKey, CK_ULONG pointLen = 3) {
    return bridge.pkcs11_genSymKeyFromECDH(session, baseKey, point, pointLen, &derived);
  }

  const CK_BYTE point[3] = {0x04, 0xAA, 0xBB};
  CK_OBJECT_HANDLE derived = 77;
};

TEST_F(KeyDerivation, RefusesNullAndNoneWithoutACallAndLooksAtTheBaseKeyLast) {
  for (const CK_OBJECT_HANDLE key : {kEcPrivateKey, CK_OBJECT_HANDLE{0}, kAllOnes}) {
    SCOPED_TRACE(key);
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(0, key, point, 3, &derived), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(kAllOnes, key, point, 3, &derived), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(session, key, nullptr, 3, &derived), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(derive(key, kAllOnes), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(bridge.pkcs11_genSymKeyFromECDH(session, key, point, 3, nullptr), CKR_ARGUMENTS_BAD);
  }
  EXPECT_EQ(derive(0), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(derive(kAllOnes), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(derived, 77U);
}

TEST_F(KeyDerivation, AnswersTheHandleOfASensitiveSessionKeyOf16Bytes) {
  EXPECT_EQ(derive(), CKR_OK);
  ASSERT_TRUE(script.card().objects.contains(derived));
  const Object& key = script.object(derived);
  EXPECT_EQ(key.attributes.at(CKA_VALUE).size(), 16U);
  EXPECT_TRUE(key.sensitive.contains(CKA_VALUE));
  script.closeSession(session);
  EXPECT_FALSE(script.card().objects.contains(derived));
  leavesOpen({});
}

TEST_F(KeyDerivation, LeavesAnEmptyPointAndOtherKeysToTheModule) {
  EXPECT_EQ(derive(kEcPrivateKey, 0), CKR_MECHANISM_PARAM_INVALID);
  EXPECT_EQ(derive(kPrivateKey), CKR_KEY_TYPE_INCONSISTENT);
  EXPECT_EQ(derive(kEcPublicKey), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(derived, 77U);
}

}  // namespace
}  // namespace mirel::test
