/// Signing and decrypting.

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// ---- Signing ----

struct Signing {
  Text tokenName = reader();
  Text keyName{u"01"};
  Bytes data = bytesLike(patternValue(32, 1));
  std::uint64_t dataLen = 32;
  std::uint64_t capacity = 256;
};

class SignHash : public ProviderTest {
 protected:
  SignHash() { openSession(); }

  /// Expects a success with that signature.
  void expectSigned(const Signing& wish, const Value& expected) {
    sign(wish);
    EXPECT_TRUE(done);
    EXPECT_EQ(signature, bytesLike(expected));
    EXPECT_EQ(length, expected.size());
  }
  /// Expects a failure that leaves the signature alone.
  void expectRefused(const Signing& wish, std::uint64_t expectedLength = 256) {
    sign(wish);
    EXPECT_FALSE(done);
    EXPECT_EQ(signature, Bytes{{0x5A}});
    EXPECT_EQ(length, expectedLength);
  }
  void sign(const Signing& wish) {
    script.forgetCalls();
    signature = Bytes{{0x5A}};
    length = wish.capacity;
    done = provider->PerformSignHash(wish.tokenName, wish.keyName, Text{u"algorithm %n"}, 7, wish.data,
                                     wish.dataLen, &signature, &length);
  }
  [[nodiscard]] Value rawSignature(std::size_t size = 256) const {
    return resultOf(CKM_RSA_X_509, patternValue(32, 1), size);
  }

  bool done = false;
  Bytes signature;
  std::uint64_t length = 0;
};

TEST_F(SignHash, ReadsTheCardsObjectsAnewAndSignsWithTheKeyNamed) {
  expectSigned({}, rawSignature());
  EXPECT_EQ(script.calls().size(), kNumReadingCalls + 11);
  EXPECT_EQ(script.callTexts().back(), "C_Sign(6, " + hexText(patternValue(32, 1)) + ", room 512)");
  EXPECT_THAT(log->allLines[0], HasSubstr("] pccAlgName = algorithm %n"));
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Second"), patternValue(128, 2)));
  script.addObject(rsaPrivateKey(bytesOf("02"), bytesOf("Second"), patternValue(128, 2)));
  expectSigned({.keyName = Text{u"02"}}, rawSignature(128));
}

TEST_F(SignHash, HandsTheReadersNameOn) {
  expectSigned({.tokenName = Text{u"Reader"}}, rawSignature());
  expectSigned({.tokenName = Text{}}, rawSignature());
  expectRefused({.tokenName = Text{u"Reader A 00x"}});
  expectRefused({.tokenName = Text{u"Reader \u00C4"}});
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignHash, TakesTheFirstBytesOfTheDataAndNoneBeyondIt) {
  for (const std::size_t used : {1U, 31U, 32U}) {
    SCOPED_TRACE(used);
    Value data = patternValue(32, 1);
    data.resize(used);
    expectSigned({.dataLen = used}, resultOf(CKM_RSA_X_509, data, 256));
  }
  for (const Bytes& data : {bytesLike(patternValue(32, 1)), bytesLike({}), Bytes{}}) {
    for (const std::uint64_t beyond : {data.size() + 1, std::uint64_t{1} << 40U, kAllOnes}) {
      SCOPED_TRACE(beyond);
      expectRefused({.data = data, .dataLen = beyond});
      EXPECT_EQ(script.countOf("C_SignInit"), 0U);
    }
  }
  // The bridge refuses no data, and a signature that fails is answered with success.
  expectSigned({.data = Bytes{}, .dataLen = 0}, Value(256, 0));
}

TEST_F(SignHash, FitsIntoTheCapacityAndTheProvidersRoomOrIsRefused) {
  constexpr std::uint64_t kMuch = 1UL << 40U;
  const struct {
    std::size_t modulusLen;
    std::vector<std::uint64_t> fits;
    std::vector<std::uint64_t> refused;
  } rows[] = {
      {128, {128, 256, kMuch, kAllOnes}, {0, 127}},
      {256, {256, 257, kMuch, kAllOnes}, {0, 128, 255}},
      // Longer than the provider's own room, whatever the caller's
      {384, {}, {256, 384, kAllOnes}},
      {512, {}, {256, 512, 1000, kAllOnes}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.modulusLen);
    useKey(row.modulusLen);
    for (const std::uint64_t capacity : row.fits) {
      expectSigned({.capacity = capacity}, rawSignature(row.modulusLen));
    }
    for (const std::uint64_t capacity : row.refused) {
      expectRefused({.capacity = capacity}, row.modulusLen);
      EXPECT_EQ(script.countOf("C_Sign"), 1U) << "the module does sign";
    }
  }
}

TEST_F(SignHash, HasTheLengthThatTheFrameworkReports) {
  for (const CK_ULONG reported : {0U, 1U, 255U, 257U, 512U}) {
    SCOPED_TRACE(reported);
    script.deviations.claimedResults["C_Sign"] = {reported, {}};
    if (reported < 256) expectSigned({}, rawSignature(reported));
    if (reported > 256) expectRefused({.capacity = 1000}, reported);
  }
}

/// For all of them the framework answers success and the length of the modulus.
TEST_F(SignHash, IsZerosWhereNothingWasSigned) {
  const struct {
    const char* what;
    const char* label = "MyKey";
    CK_KEY_TYPE type = CKK_RSA;
    bool fails = false;
  } rows[] = {{.what = "a key named PSS", .label = "PSS"},
              {.what = "a key without RSA in its name", .type = CKK_DSA},
              {.what = "a signature that fails", .fails = true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto prepare = [&](std::size_t modulusLen) {
      useKey(modulusLen, row.label, row.type);
      if (row.fails) script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
    };
    for (const std::size_t modulusLen : {128U, 256U}) {
      SCOPED_TRACE(modulusLen);
      prepare(modulusLen);
      expectSigned({}, Value(modulusLen, 0));
      prepare(modulusLen);
      expectRefused({.capacity = modulusLen - 1}, modulusLen);
    }
    prepare(257);
    expectRefused({.capacity = kAllOnes}, 257);
  }
}

TEST_F(SignHash, NeedsNoHolderForTheSignatureButALength) {
  length = 256;
  const Bytes data = bytesLike(patternValue(32, 1));
  EXPECT_TRUE(provider->PerformSignHash(reader(), Text{u"01"}, Text{}, 0, data, 32, nullptr, &length));
  EXPECT_EQ(length, 256U);
  script.forgetCalls();
  EXPECT_FALSE(provider->PerformSignHash(reader(), Text{u"01"}, Text{}, 0, data, 32, &signature, nullptr));
  EXPECT_TRUE(signature.isNull());
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignHash, FailsWithoutTouchingAnythingWithoutThatKeyAReadableCardOrAFramework) {
  for (const Text& name : {Text{u"02"}, Text{u""}, Text{}, Text{u"MyKey"}}) {
    for (const std::uint64_t capacity : {0UL, 1000UL, kAllOnes}) {
      expectRefused({.keyName = name, .capacity = capacity}, capacity);
    }
  }
  EXPECT_THAT(log->systemErrorLines, IsEmpty());
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  expectRefused({.capacity = 77}, 77);
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  provider->setPCTKFramework(nullptr);
  expectRefused({});
  EXPECT_THAT(script.calls(), IsEmpty());
}

// ---- Decrypting ----

const Value kPlain = bytesOf("plain text");
constexpr const char* kNoKeyLine = "error: pAsymKeyInfo is nil";

struct Decrypting {
  Text tokenName = reader();
  Text keyName{u"01"};
  Text algName{u"kSecKeyAlgorithmRSAEncryptionPKCS1"};
  std::uint64_t padFlag = 1;
  std::uint64_t plainLen = 256;
};

class Decryption : public ProviderTest {
 protected:
  Decryption() { openSession(); }

  void expectDecrypted(const Decrypting& wish, const Value& expected) {
    decrypt(wish);
    EXPECT_TRUE(done);
    EXPECT_EQ(plain, bytesLike(expected));
    EXPECT_EQ(length, expected.size());
  }
  /// Expects a failure that leaves the plain text alone.
  void expectRefused(const Decrypting& wish) {
    decrypt(wish);
    EXPECT_FALSE(done);
    EXPECT_EQ(plain, Bytes{{0x5A}});
  }
  void decrypt(const Decrypting& wish) {
    script.forgetCalls();
    log->allLines.clear();
    plain = Bytes{{0x5A}};
    length = wish.plainLen;
    done = provider->PerformDecryption(wish.tokenName, wish.keyName, wish.algName, wish.padFlag,
                                       cipher.data(), cipher.size(), &plain, &length);
  }

  const Value cipher = cipherOf(kPlain);
  bool done = false;
  Bytes plain;
  std::uint64_t length = 0;
};

TEST_F(Decryption, ReadsTheCardsObjectsAndDecryptsWhateverTheCallersLength) {
  for (const std::uint64_t given : {std::uint64_t{0}, std::uint64_t{2001}, kAllOnes}) {
    SCOPED_TRACE(given);
    expectDecrypted({.plainLen = given}, kPlain);
    EXPECT_EQ(script.calls().size(), kNumReadingCalls + 17);
    EXPECT_EQ(script.callTexts().back(), "C_Decrypt(6, " + hexText(cipher) + ", room 256)");
    EXPECT_THAT(log->allLines, ElementsAre(HasSubstr("] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]")));
  }
}

TEST_F(Decryption, IsByPkcs1WhateverTheAlgorithmWithTheLettersRsa) {
  for (const char* name : {"kSecKeyAlgorithmRSAEncryptionOAEPSHA256", "kSecKeyAlgorithmRSAEncryptionRaw",
                           "kSecKeyAlgorithmRSASignatureRaw", "rsa", "a_rSa_b"}) {
    SCOPED_TRACE(name);
    expectDecrypted({.algName = Text::fromUtf8(name)}, kPlain);
    EXPECT_THAT(script.callTexts("C_DecryptInit"), ElementsAre("C_DecryptInit(6, CKM 1 null 0, 22)"));
  }
}

TEST_F(Decryption, HandsTheReadersNameOn) {
  expectDecrypted({.tokenName = Text{u"Reader"}}, kPlain);
  expectDecrypted({.tokenName = Text{}}, kPlain);
  expectRefused({.tokenName = Text{u"Reader A 00x"}});
  expectRefused({.tokenName = Text{u"Reader \u00C4"}});
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_F(Decryption, HasTheLengthThatTheModuleReportsUpTo2000Bytes) {
  for (const std::size_t size : {0U, 4U, 257U, 2000U}) {
    SCOPED_TRACE(size);
    // The module is told of the modulus's length, and this one writes more.
    script.hook<&CK_FUNCTION_LIST::C_Decrypt>(
        [size](auto real, auto session, auto* in, auto inLen, CK_BYTE* output, CK_ULONG* outputLen) {
          const CK_RV rv = real(session, in, inLen, output, outputLen);
          const Value text = patternValue(size, 9);
          std::copy(text.begin(), text.end(), output);
          *outputLen = size;
          return rv;
        });
    expectDecrypted({}, patternValue(size, 9));
    EXPECT_FALSE(plain.isNull());
  }
}

TEST_F(Decryption, HoldsZerosWhereTheModuleWroteNothingAndRefusesMoreThan2000Bytes) {
  script.deviations.claimedResults["C_Decrypt"] = {2000, 4};
  Value padded = bytesOf("plai");
  padded.resize(2000);
  expectDecrypted({}, padded);
  for (const CK_ULONG reported : {2001UL, 1UL << 40U, kAllOnes}) {
    SCOPED_TRACE(reported);
    script.deviations.claimedResults["C_Decrypt"] = {reported, {}};
    expectRefused({});
    EXPECT_EQ(length, reported);
  }
}

TEST_F(Decryption, NeedsNoHolderForThePlainTextButALengthAndACipherText) {
  const auto decryptTo = [&](const CK_BYTE* from, std::uint64_t size, Bytes* out, std::uint64_t* outLen) {
    return provider->PerformDecryption(reader(), Text{u"01"}, Text{u"RSA"}, 1, from, size, out, outLen);
  };
  EXPECT_TRUE(decryptTo(cipher.data(), cipher.size(), nullptr, &length));
  EXPECT_EQ(length, kPlain.size());
  script.forgetCalls();
  EXPECT_FALSE(decryptTo(cipher.data(), cipher.size(), &plain, nullptr));
  EXPECT_FALSE(decryptTo(nullptr, 256, &plain, &length));
  EXPECT_FALSE(decryptTo(cipher.data(), 0, &plain, &length));
  EXPECT_TRUE(plain.isNull());
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U) << "the card is not asked";
}

TEST_F(Decryption, GivesZerosWithoutAnOperationOfTheCardForAnyOtherNameOrFlag) {
  const Decrypting rows[] = {{.algName = Text{u"kSecKeyAlgorithmECDHKeyExchangeStandard"}},
                             {.algName = Text{u"R S A"}},
                             {.algName = Text{u""}},
                             {.algName = Text{}},
                             {.padFlag = 0},
                             {.padFlag = 2},
                             {.padFlag = 0x100000001},
                             {.padFlag = kAllOnes}};
  for (Decrypting wish : rows) {
    SCOPED_TRACE(wish.algName.toUtf8() + ", " + std::to_string(wish.padFlag));
    for (const std::uint64_t size : {0UL, 1UL, 2000UL, 2001UL, 1UL << 40U, kAllOnes}) {
      wish.plainLen = size;
      decrypt(wish);
      EXPECT_TRUE(done);
      EXPECT_EQ(plain, bytesLike(Value(std::min(size, 2000UL), 0)));
      if (size <= 2000) {
        EXPECT_EQ(length, size);
      }
      EXPECT_EQ(script.calls().size(), kNumReadingCalls);
      EXPECT_THAT(log->allLines, IsEmpty());
    }
  }
  expectDecrypted({.keyName = Text{u"02"}, .padFlag = 0, .plainLen = 16}, Value(16, 0));
  EXPECT_THAT(log->allLines, ElementsAre(kNoKeyLine));
  EXPECT_TRUE(provider->PerformDecryption(reader(), Text{}, Text{}, 0, nullptr, 0, &plain, nullptr));
  EXPECT_EQ(plain, bytesLike({})) << "without a length";
  EXPECT_TRUE(provider->PerformDecryption(reader(), Text{}, Text{}, 0, nullptr, 0, nullptr, nullptr));
}

TEST_F(Decryption, FailsAndSaysSoForAKeyThatIsNotThereWithoutAReadableCardOrAFramework) {
  for (const Text& name : {Text{u"02"}, Text{u""}, Text{}, Text{u"MyKey"}}) {
    expectRefused({.keyName = name});
    EXPECT_THAT(log->allLines, ElementsAre(kNoKeyLine));
    EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
  }
  // No zeros there.
  for (const std::uint64_t padFlag : {0U, 1U}) {
    SCOPED_TRACE(padFlag);
    startAnew();
    script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
    expectRefused({.padFlag = padFlag, .plainLen = 77});
    EXPECT_EQ(length, 77U);
    EXPECT_THAT(log->allLines, IsEmpty());
    provider->setPCTKFramework(nullptr);
    expectRefused({.padFlag = padFlag});
    EXPECT_THAT(script.calls(), IsEmpty());
  }
}

}  // namespace
}  // namespace mirel::test
