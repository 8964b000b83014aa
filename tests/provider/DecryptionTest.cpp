/// Decrypting.

#include "provider/KeyOperationTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint64_t kAllOnes = ~std::uint64_t{0};
const Text kAlgorithm{u"kSecKeyAlgorithmRSAEncryptionPKCS1"};
constexpr const char* kNoKeyLine = "error: pAsymKeyInfo is nil";

struct Decrypting {
  Text tokenName = reader();
  Text keyName{u"01"};
  Text algName = kAlgorithm;
  std::uint64_t padFlag = 1;
  Value cipher = cipherOf(bytesOf("plain text"));
  std::uint64_t plainLen = 256;
};

struct Decrypted {
  bool done = false;
  Bytes plain = untouched();
  std::uint64_t length = 0;
};

class Decryption : public KeyOperationTest {
 protected:
  Decrypted decrypt(const Decrypting& wish = {}) {
    Decrypted result;
    result.length = wish.plainLen;
    result.done =
        provider->PerformDecryption(wish.tokenName, wish.keyName, wish.algName, wish.padFlag,
                                    wish.cipher.data(), wish.cipher.size(), &result.plain, &result.length);
    return result;
  }

  /// Makes the module write that plain text, whatever room it is told of, and report that length.
  void moduleWrites(Value plain, CK_ULONG length) {
    script.hook<&CK_FUNCTION_LIST::C_Decrypt>(
        [plain = std::move(plain), length](auto real, CK_SESSION_HANDLE session, CK_BYTE_PTR cipher,
                                           CK_ULONG cipherLen, CK_BYTE_PTR output, CK_ULONG_PTR outputLen) {
          const CK_RV rv = real(session, cipher, cipherLen, output, outputLen);
          std::copy(plain.begin(), plain.end(), output);
          *outputLen = length;
          return rv;
        });
  }

  const Bytes plain_ = bytesLike(bytesOf("plain text"));
};

void expectDecrypted(const Decrypted& result, const Bytes& plain) {
  EXPECT_TRUE(result.done);
  EXPECT_TRUE(result.plain == plain);
  EXPECT_EQ(result.length, plain.size());
}

/// False, with the plain text left alone.
void expectRefused(const Decrypted& result) {
  EXPECT_FALSE(result.done);
  EXPECT_TRUE(result.plain == untouched());
}

// ---- The way of a decryption ----

TEST_F(Decryption, ReadsTheCardsObjectsFindsTheKeyAndDecrypts) {
  expectDecrypted(decrypt(), plain_);
  const std::string search = "C_FindObjectsInit(6, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=3031])";
  EXPECT_THAT(
      callsBehindTheReading(),
      ElementsAre(
          // That there is a private key
          "C_GetAttributeValue(6, 21, [CKA_ID room 255])", "C_GetAttributeValue(6, 21, [CKA_ID room 2])",
          search, "C_FindObjects(6, 1)", "C_FindObjects(6, 1)", "C_FindObjectsFinal(6)",
          // The private key, found once more
          "C_GetAttributeValue(6, 21, [CKA_ID room 255])", "C_GetAttributeValue(6, 21, [CKA_ID room 2])",
          search, "C_FindObjects(6, 1)", "C_FindObjects(6, 1)", "C_FindObjectsFinal(6)",
          // The length of its modulus
          "C_GetAttributeValue(6, 22, [CKA_MODULUS null 0])",
          "C_GetAttributeValue(6, 22, [CKA_MODULUS room 256])",
          "C_GetAttributeValue(6, 22, [CKA_MODULUS room 256])", "C_DecryptInit(6, CKM 1 null 0, 22)",
          "C_Decrypt(6, " + hexOf(cipherOf(bytesOf("plain text"))) + ", room 256)"));
  EXPECT_THAT(script.openOperations(), IsEmpty());
}

TEST_F(Decryption, LogsTheFrameworksLineAlone) {
  expectDecrypted(decrypt(), plain_);
  EXPECT_THAT(log->allLines, ElementsAre(HasSubstr("] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]")));
}

TEST_F(Decryption, IsByPkcs1WhateverTheAlgorithm) {
  for (const char* name :
       {"kSecKeyAlgorithmRSAEncryptionOAEPSHA256", "kSecKeyAlgorithmRSAEncryptionOAEPSHA384",
        "kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM", "kSecKeyAlgorithmRSAEncryptionPKCS1",
        "kSecKeyAlgorithmRSAEncryptionRaw", "kSecKeyAlgorithmRSASignatureRaw", "RSA", "rsa", "a_rSa_b"}) {
    SCOPED_TRACE(name);
    script.forgetCalls();
    expectDecrypted(decrypt({.algName = Text::fromUtf8(name)}), plain_);
    EXPECT_THAT(script.callTexts("C_DecryptInit"), ElementsAre("C_DecryptInit(6, CKM 1 null 0, 22)"));
  }
}

TEST_F(Decryption, DoesNotLookAtTheCallersLength) {
  for (const std::uint64_t length :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{2001}, std::uint64_t{1} << 20U, kAllOnes}) {
    SCOPED_TRACE(length);
    expectDecrypted(decrypt({.plainLen = length}), plain_);
  }
}

TEST_F(Decryption, ComparesTheReadersNameWithTheBeginningOfTheSlots) {
  for (const char16_t* name : {u"Reader A 00", u"Reader", u""}) {
    expectDecrypted(decrypt({.tokenName = Text{name}}), plain_);
  }
  expectDecrypted(decrypt({.tokenName = Text{}}), plain_);
  for (const char16_t* name : {u"Reader B 01", u"Reader A 00x", u"Reader \u00C4"}) {
    script.forgetCalls();
    expectRefused(decrypt({.tokenName = Text{name}}));
    EXPECT_THAT(callsBehindTheReading(), IsEmpty());
  }
}

TEST_F(Decryption, TakesKeysOfEverySize) {
  for (const std::size_t modulusLen : {64U, 128U, 256U, 384U, 512U, 639U}) {
    SCOPED_TRACE(modulusLen);
    useKey(modulusLen);
    const Value longest = patternValue(modulusLen - 11, 3);
    expectDecrypted(decrypt({.cipher = cipherOf(longest, modulusLen)}), bytesLike(longest));
  }
}

// ---- The length of the plain text ----

TEST_F(Decryption, GivesAnEmptyPlainText) {
  const Decrypted result = decrypt({.cipher = cipherOf({})});
  expectDecrypted(result, zeros(0));
  EXPECT_FALSE(result.plain.isNull());
}

/// The module is told of the modulus's length only, and writes as much as the provider really has room for.
TEST_F(Decryption, GivesPlainTextsOfUpTo2000Bytes) {
  for (const std::size_t length : {257U, 1999U, 2000U}) {
    SCOPED_TRACE(length);
    const Value plain = patternValue(length, 9);
    moduleWrites(plain, plain.size());
    expectDecrypted(decrypt(), bytesLike(plain));
  }
}

TEST_F(Decryption, RefusesMoreThan2000Bytes) {
  for (const std::size_t length : {2001U, 2048U, 5000U}) {
    SCOPED_TRACE(length);
    moduleWrites(patternValue(2000, 9), length);
    const Decrypted result = decrypt();
    expectRefused(result);
    EXPECT_EQ(result.length, length);
  }
}

TEST_F(Decryption, RefusesALengthThatNoBufferHas) {
  for (const CK_ULONG length : {CK_ULONG{2001}, CK_ULONG{5000}, CK_ULONG{1} << 40U, CK_ULONG{kAllOnes}}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Decrypt"] = {length, {}};
    expectRefused(decrypt());
  }
}

TEST_F(Decryption, TakesTheLengthThatTheModuleReports) {
  script.deviations.claimedResults["C_Decrypt"] = {4, {}};
  expectDecrypted(decrypt(), bytesLike(bytesOf("plai")));
  // More than was written: the buffer was zeroed.
  script.deviations.claimedResults["C_Decrypt"] = {2000, 4};
  Value padded = bytesOf("plai");
  padded.resize(2000);
  expectDecrypted(decrypt(), bytesLike(padded));
}

TEST_F(Decryption, RefusesANullLength) {
  Bytes plain = untouched();
  const Value cipher = cipherOf(bytesOf("plain text"));
  EXPECT_FALSE(provider->PerformDecryption(reader(), kKeyID, kAlgorithm, 1, cipher.data(), cipher.size(),
                                           &plain, nullptr));
  EXPECT_TRUE(plain == untouched());
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_F(Decryption, NeedsNoHolderForThePlainText) {
  std::uint64_t length = 0;
  const Value cipher = cipherOf(bytesOf("plain text"));
  EXPECT_TRUE(provider->PerformDecryption(reader(), kKeyID, kAlgorithm, 1, cipher.data(), cipher.size(),
                                          nullptr, &length));
  EXPECT_EQ(length, 10U);
}

// ---- Without an operation of the card ----

struct WithoutRsa {
  const char* description;
  Text algName;
  std::uint64_t padFlag;
};

const WithoutRsa kWithoutRsa[] = {
    {"EC encryption", Text{u"kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM"}, 1},
    {"key exchange", Text{u"kSecKeyAlgorithmECDHKeyExchangeStandard"}, 1},
    {"letters apart", Text{u"R S A"}, 1},
    {"empty", Text{u""}, 1},
    {"null", Text{}, 1},
    {"flag 0", kAlgorithm, 0},
    {"flag 2", kAlgorithm, 2},
    {"flag with the low 32 bits of 1", kAlgorithm, 0x100000001},
    {"flag all-ones", kAlgorithm, kAllOnes},
    {"neither", Text{u"EC"}, 0},
};

TEST_F(Decryption, GivesZerosAsManyAsTheCallerSays) {
  for (const WithoutRsa& row : kWithoutRsa) {
    for (const std::uint64_t length : {0U, 1U, 256U, 1999U, 2000U}) {
      SCOPED_TRACE(row.description);
      SCOPED_TRACE(length);
      const Decrypted result = decrypt({.algName = row.algName, .padFlag = row.padFlag, .plainLen = length});
      expectDecrypted(result, zeros(length));
      EXPECT_FALSE(result.plain.isNull());
      EXPECT_THAT(callsBehindTheReading(), IsEmpty());
      script.forgetCalls();
    }
  }
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(Decryption, GivesNoMoreThan2000Zeros) {
  for (const std::uint64_t length : {std::uint64_t{2001}, std::uint64_t{1} << 20U, std::uint64_t{1} << 32U,
                                     std::uint64_t{0xDEADBEEFDEADBEEF}, kAllOnes}) {
    SCOPED_TRACE(length);
    const Decrypted result = decrypt({.padFlag = 0, .plainLen = length});
    EXPECT_TRUE(result.done);
    EXPECT_TRUE(result.plain == zeros(2000));
  }
}

TEST_F(Decryption, GivesNoZerosWhenTheCardCannotBeRead) {
  for (const WithoutRsa& row : kWithoutRsa) {
    SCOPED_TRACE(row.description);
    script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
    const Decrypted result = decrypt({.algName = row.algName, .padFlag = row.padFlag, .plainLen = 3});
    expectRefused(result);
    EXPECT_EQ(result.length, 3U);
    expectUsable();
  }
}

TEST_F(Decryption, GivesZerosForAKeyThatIsNotThere) {
  const Decrypted result = decrypt({.keyName = Text{u"02"}, .padFlag = 0, .plainLen = 16});
  expectDecrypted(result, zeros(16));
  EXPECT_THAT(log->allLines, ElementsAre(kNoKeyLine));
}

TEST_F(Decryption, GivesNoZerosWithoutALength) {
  Bytes plain = untouched();
  EXPECT_TRUE(provider->PerformDecryption(reader(), kKeyID, kAlgorithm, 0, nullptr, 0, &plain, nullptr));
  EXPECT_TRUE(plain == zeros(0));
  EXPECT_TRUE(provider->PerformDecryption(reader(), kKeyID, kAlgorithm, 0, nullptr, 0, nullptr, nullptr));
}

// ---- Failures ----

TEST_F(Decryption, FailsAndSaysSoForAKeyThatIsNotThere) {
  for (const Text& name : {Text{u"02"}, Text{u""}, Text{}, Text{u"MyKey"}}) {
    log->allLines.clear();
    expectRefused(decrypt({.keyName = name}));
    EXPECT_THAT(log->allLines, ElementsAre(kNoKeyLine));
    EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
  }
}

TEST_F(Decryption, FailsWithoutTouchingAnythingWhenTheCardCannotBeRead) {
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  const Decrypted result = decrypt({.plainLen = 77});
  expectRefused(result);
  EXPECT_EQ(result.length, 77U);
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(Decryption, FailsWhenTheModuleDoes) {
  for (const char* function : {"C_DecryptInit", "C_Decrypt"}) {
    for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_ENCRYPTED_DATA_INVALID, CKR_KEY_FUNCTION_NOT_PERMITTED}) {
      SCOPED_TRACE(function);
      SCOPED_TRACE(code);
      script.failCallOf(function, 0, code);
      expectRefused(decrypt());
    }
  }
}

TEST_F(Decryption, FailsWhateverLengthAFailureLeaves) {
  for (const CK_ULONG length : {CK_ULONG{0}, CK_ULONG{2000}, CK_ULONG{2001}, CK_ULONG{1} << 40U}) {
    SCOPED_TRACE(length);
    script.deviations.lengthsOnFailure["C_Decrypt"] = length;
    script.failCallOf("C_Decrypt", 0, CKR_DEVICE_ERROR);
    expectRefused(decrypt());
  }
}

TEST_F(Decryption, FailsForACipherTextThatIsNone) {
  expectRefused(decrypt({.cipher = patternValue(256, 1)}));
  expectRefused(decrypt({.cipher = patternValue(255, 1)}));
}

TEST_F(Decryption, RefusesNoCipherTextWithoutAskingTheCard) {
  Bytes plain = untouched();
  std::uint64_t length = 256;
  const Value cipher = cipherOf(bytesOf("plain text"));
  EXPECT_FALSE(provider->PerformDecryption(reader(), kKeyID, kAlgorithm, 1, nullptr, 256, &plain, &length));
  EXPECT_FALSE(
      provider->PerformDecryption(reader(), kKeyID, kAlgorithm, 1, cipher.data(), 0, &plain, &length));
  EXPECT_TRUE(plain == untouched());
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_F(Decryption, FailsBeforeTheLogin) {
  script.card().loggedIn = false;
  expectRefused(decrypt());
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_F(Decryption, FailsForAnEcKey) {
  useEcKey();
  expectRefused(decrypt());
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_F(Decryption, FailsWithoutAFramework) {
  provider->setPCTKFramework(nullptr);
  expectRefused(decrypt());
  expectRefused(decrypt({.padFlag = 0}));
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(Decryption, FailsWithoutASession) {
  ASSERT_FALSE(provider->getSupportedTokenDescription(reader()).isEmpty());
  expectRefused(decrypt());
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_F(Decryption, FailsAfterTheCardWasPulled) {
  script.pullCard();
  expectRefused(decrypt());
  leavesOpen({});
}

/// Decrypting with the default card: behind the reading, calls 33 and 39 end the two searches for the private
/// key, of which only the last leaves nothing behind that a later search would stumble over.
TEST_F(Decryption, EndsAsTheFailingCallHasIt) {
  constexpr std::size_t kNumCalls = kNumReadingCalls + 17;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newProvider();
    logIn();
    point.arm();
    const Decrypted result = decrypt();
    const bool once = point.times() == Times::kOnce;
    if (point.n() >= kNumCalls || (point.n() == 39 && once)) {
      expectDecrypted(result, plain_);
    } else {
      expectRefused(result);
    }
    // Reading the card leaves out a key without a modulus.
    const bool keyLeftOut = once && point.n() >= 15 && point.n() <= 17;
    EXPECT_EQ(log->systemErrorLines.size(), keyLeftOut ? 1U : 0U);
    EXPECT_EQ(script.openSessions(), std::vector<CK_SESSION_HANDLE>{kCardSession});
    log->systemErrorLines.clear();
  });
}

TEST_F(Decryption, DecryptsOrFailsWhenMemoryRunsOut) {
  std::size_t rounds = 0;
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    newProvider();
    logIn();
    point.arm();
    const Decrypted result = decrypt();
    if (result.done) {
      expectDecrypted(result, plain_);
    } else {
      EXPECT_TRUE(point.fired());
      expectRefused(result);
    }
    ++rounds;
  });
  EXPECT_GT(rounds, 4U);
}

}  // namespace
}  // namespace mirel::test
