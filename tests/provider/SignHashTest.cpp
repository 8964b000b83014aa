/// Signing.

#include "provider/KeyOperationTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint64_t kAllOnes = ~std::uint64_t{0};
const Text kAlgorithm{u"kSecKeyAlgorithmRSASignatureRaw"};

struct Signing {
  Text tokenName = reader();
  Text keyName{u"01"};
  Text algName = kAlgorithm;
  std::uint64_t dwFlag = 0;
  Bytes data = bytesLike(patternValue(32, 1));
  std::optional<std::uint64_t> dataLen{};  ///< all of the data when unset
  std::uint64_t capacity = 256;
};

struct Signed {
  bool done = false;
  Bytes signature = untouched();
  std::uint64_t length = 0;
};

class SignHash : public KeyOperationTest {
 protected:
  Signed sign(const Signing& wish = {}) {
    Signed result;
    result.length = wish.capacity;
    result.done =
        provider->PerformSignHash(wish.tokenName, wish.keyName, wish.algName, wish.dwFlag, wish.data,
                                  wish.dataLen.value_or(wish.data.size()), &result.signature, &result.length);
    return result;
  }

  const Value data_ = patternValue(32, 1);
  const Bytes rawSignature_ = bytesLike(resultOf(CKM_RSA_X_509, data_, 256));
};

void expectSigned(const Signed& result, const Bytes& signature) {
  EXPECT_TRUE(result.done);
  EXPECT_TRUE(result.signature == signature);
  EXPECT_EQ(result.length, signature.size());
}

/// False, with the signature left alone.
void expectRefused(const Signed& result, std::uint64_t length) {
  EXPECT_FALSE(result.done);
  EXPECT_TRUE(result.signature == untouched());
  EXPECT_EQ(result.length, length);
}

// ---- The way of a signature ----

TEST_F(SignHash, ReadsTheCardsObjectsFindsTheKeyAndSigns) {
  expectSigned(sign(), rawSignature_);
  EXPECT_THAT(callsBehindTheReading(),
              ElementsAre("C_GetAttributeValue(6, 21, [CKA_ID room 255])",
                          "C_GetAttributeValue(6, 21, [CKA_ID room 2])",
                          "C_FindObjectsInit(6, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=3031])",
                          "C_FindObjects(6, 1)", "C_FindObjects(6, 1)", "C_FindObjectsFinal(6)",
                          // The length of the modulus
                          "C_GetAttributeValue(6, 21, [CKA_MODULUS null 0])",
                          "C_GetAttributeValue(6, 21, [CKA_MODULUS room 256])",
                          "C_GetAttributeValue(6, 21, [CKA_MODULUS room 256])",
                          // The private key
                          "C_SignInit(6, CKM 3 null 0, 22)", "C_Sign(6, " + hexOf(data_) + ", room 512)"));
  EXPECT_THAT(script.openOperations(), IsEmpty());
}

TEST_F(SignHash, ReadsTheCardAnewEachTime) {
  expectSigned(sign(), rawSignature_);
  useKey(128);
  expectSigned(sign(), bytesLike(resultOf(CKM_RSA_X_509, data_, 128)));
}

TEST_F(SignHash, UsesTheKeyNamed) {
  const Value modulus = patternValue(128, 2);
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Second"), modulus));
  const CK_OBJECT_HANDLE second = script.addObject(rsaPrivateKey(bytesOf("02"), bytesOf("Second"), modulus));
  expectSigned(sign({.keyName = Text{u"02"}}), bytesLike(resultOf(CKM_RSA_X_509, data_, 128)));
  EXPECT_THAT(script.callTexts("C_SignInit"),
              ElementsAre("C_SignInit(6, CKM 3 null 0, " + std::to_string(second) + ")"));
}

TEST_F(SignHash, OnlyLogsTheAlgorithm) {
  for (const char* name :
       {"kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw", "kSecKeyAlgorithmRSASignatureDigestPSSSHA256",
        "kSecKeyAlgorithmECDSASignatureDigestX962SHA256", "", "%n%s%@"}) {
    SCOPED_TRACE(name);
    log->allLines.clear();
    expectSigned(sign({.algName = Text::fromUtf8(name)}), rawSignature_);
    ASSERT_THAT(log->processLines, SizeIs(::testing::Ge(1U)));
    EXPECT_THAT(log->allLines[0], HasSubstr(std::string{"] pccAlgName = "} + name));
  }
  expectSigned(sign({.algName = Text{}}), rawSignature_);
  EXPECT_THAT(log->systemErrorLines, IsEmpty());
  EXPECT_THAT(log->systemDefaultLines, IsEmpty());
}

TEST_F(SignHash, IgnoresTheFlag) {
  for (const std::uint64_t flag : {std::uint64_t{0}, std::uint64_t{1}, kAllOnes}) {
    SCOPED_TRACE(flag);
    expectSigned(sign({.dwFlag = flag}), rawSignature_);
  }
}

TEST_F(SignHash, ComparesTheReadersNameWithTheBeginningOfTheSlots) {
  for (const char16_t* name : {u"Reader A 00", u"Reader", u"R", u""}) {
    expectSigned(sign({.tokenName = Text{name}}), rawSignature_);
  }
  expectSigned(sign({.tokenName = Text{}}), rawSignature_);
  for (const char16_t* name : {u"Reader B 01", u"reader A 00", u"Reader A 00x", u"Reader \u00C4"}) {
    script.forgetCalls();
    expectRefused(sign({.tokenName = Text{name}}), 256);
    EXPECT_THAT(callsBehindTheReading(), IsEmpty());
  }
}

// ---- The data ----

TEST_F(SignHash, TakesTheFirstBytesOfTheData) {
  for (const std::size_t length : {1U, 20U, 31U, 32U}) {
    SCOPED_TRACE(length);
    const Value used{data_.begin(), data_.begin() + static_cast<std::ptrdiff_t>(length)};
    expectSigned(sign({.dataLen = length}), bytesLike(resultOf(CKM_RSA_X_509, used, 256)));
  }
}

TEST_F(SignHash, TakesDataOfTheLengthOfTheModulus) {
  const Value data = patternValue(256, 7);
  expectSigned(sign({.data = bytesLike(data)}), bytesLike(resultOf(CKM_RSA_X_509, data, 256)));
}

TEST_F(SignHash, RefusesToReadBeyondTheData) {
  const Bytes data = bytesLike(data_);
  const struct {
    const char* description;
    Bytes data;
    std::uint64_t dataLen;
  } rows[] = {
      {"one byte more", data, 33},  {"far more", data, std::uint64_t{1} << 40U}, {"all-ones", data, kAllOnes},
      {"one of none", zeros(0), 1}, {"one of a null byte string", Bytes{}, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    expectRefused(sign({.data = row.data, .dataLen = row.dataLen}), 256);
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  }
}

/// The bridge refuses such data, and a signature that fails is answered with success.
TEST_F(SignHash, AnswersZerosForNoData) {
  for (const Signing& none : {Signing{.data = Bytes{}}, Signing{.data = zeros(0)}, Signing{.dataLen = 0}}) {
    expectSigned(sign(none), zeros(256));
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  }
}

// ---- The length of the signature ----

TEST_F(SignHash, FitsIntoTheCapacityOrIsRefused) {
  const struct {
    std::size_t modulusLen;
    std::uint64_t capacity;
    bool fits;
  } rows[] = {
      // RSA-1024
      {128, 0, false},
      {128, 127, false},
      {128, 128, true},
      {128, 256, true},
      {128, kAllOnes, true},
      // RSA-2048
      {256, 0, false},
      {256, 128, false},
      {256, 255, false},
      {256, 256, true},
      {256, 257, true},
      {256, 1000, true},
      {256, std::uint64_t{1} << 40U, true},
      {256, kAllOnes, true},
      // RSA-3072 and RSA-4096: longer than the provider's own room, whatever the caller's
      {384, 256, false},
      {384, 384, false},
      {512, 256, false},
      {512, 512, false},
      {512, 1000, false},
      {512, kAllOnes, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.modulusLen) + " into " + std::to_string(row.capacity));
    useKey(row.modulusLen);
    const Signed result = sign({.capacity = row.capacity});
    if (row.fits) {
      expectSigned(result, bytesLike(resultOf(CKM_RSA_X_509, data_, row.modulusLen)));
    } else {
      expectRefused(result, row.modulusLen);
    }
    EXPECT_EQ(script.countOf("C_Sign"), 1U) << "the module does sign";
    script.forgetCalls();
  }
}

TEST_F(SignHash, HasTheLengthThatTheModuleReports) {
  for (const CK_ULONG length : {0U, 1U, 100U, 255U}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Sign"] = {length, {}};
    expectSigned(sign(), bytesLike(resultOf(CKM_RSA_X_509, data_, length)));
  }
}

TEST_F(SignHash, IsRefusedForALengthBeyondTheProvidersRoom) {
  for (const CK_ULONG length : {257U, 511U, 512U}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Sign"] = {length, {}};
    expectRefused(sign(), length);
  }
}

/// More than the framework's room is a failed signature, and so a success with what was written.
TEST_F(SignHash, AnswersWhatWasWrittenForALengthBeyondTheFrameworksRoom) {
  for (const CK_ULONG length : {CK_ULONG{513}, CK_ULONG{600}, CK_ULONG{1} << 40U, CK_ULONG{kAllOnes}}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Sign"] = {length, 0};
    expectSigned(sign(), zeros(256));
    script.deviations.claimedResults["C_Sign"] = {length, {}};
    expectSigned(sign(), rawSignature_);
  }
}

TEST_F(SignHash, NeedsNoHolderForTheSignature) {
  std::uint64_t length = 256;
  EXPECT_TRUE(
      provider->PerformSignHash(reader(), kKeyID, kAlgorithm, 0, bytesLike(data_), 32, nullptr, &length));
  EXPECT_EQ(length, 256U);
}

TEST_F(SignHash, RefusesANullLength) {
  Bytes signature = untouched();
  EXPECT_FALSE(
      provider->PerformSignHash(reader(), kKeyID, kAlgorithm, 0, bytesLike(data_), 32, &signature, nullptr));
  EXPECT_TRUE(signature == untouched());
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

// ---- What the key's name decides ----

TEST_F(SignHash, MakesAPssSignatureAndDropsItForAKeyNamedSo) {
  for (const char* label : {"PSS", "MyPssKey", "pss"}) {
    SCOPED_TRACE(label);
    useKey(256, label);
    const CK_OBJECT_HANDLE publicKey = script.card().objects.begin()->first;
    const std::string pub = std::to_string(publicKey);
    const std::string priv = std::to_string(publicKey + 1);
    script.forgetCalls();
    expectSigned(sign(), zeros(256));
    const std::string search =
        "C_FindObjectsInit(6, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=3031])";
    EXPECT_THAT(callsBehindTheReading(),
                ElementsAre("C_GetAttributeValue(6, " + pub + ", [CKA_ID room 255])",
                            "C_GetAttributeValue(6, " + pub + ", [CKA_ID room 2])", search,
                            "C_FindObjects(6, 1)", "C_FindObjects(6, 1)", "C_FindObjectsFinal(6)",
                            "C_GetAttributeValue(6, " + pub + ", [CKA_MODULUS null 0])",
                            "C_GetAttributeValue(6, " + pub + ", [CKA_MODULUS room 256])",
                            "C_GetAttributeValue(6, " + pub + ", [CKA_MODULUS room 256])",
                            // Once more, from the private key
                            "C_GetAttributeValue(6, " + priv + ", [CKA_ID room 255])",
                            "C_GetAttributeValue(6, " + priv + ", [CKA_ID room 2])", search,
                            "C_FindObjects(6, 1)", "C_FindObjects(6, 1)", "C_FindObjectsFinal(6)",
                            "C_GetAttributeValue(6, " + priv + ", [CKA_MODULUS null 0])",
                            "C_GetAttributeValue(6, " + priv + ", [CKA_MODULUS room 256])",
                            "C_GetAttributeValue(6, " + priv + ", [CKA_MODULUS room 256])",
                            "C_SignInit(6, CKM 13 [592, 2, 32] 24, " + priv + ")",
                            "C_Sign(6, " + hexOf(data_) + ", room 256)"));
  }
}

TEST_F(SignHash, AnswersZerosForAKeyNamedPssAsManyAsTheModulusHas) {
  useKey(128, "PSS");
  expectSigned(sign(), zeros(128));
}

TEST_F(SignHash, FailsWhenAPssSignatureFails) {
  useKey(256, "PSS");
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    for (const std::uint64_t capacity : {std::uint64_t{0}, std::uint64_t{100}, std::uint64_t{256},
                                         std::uint64_t{257}, std::uint64_t{300}, kAllOnes}) {
      SCOPED_TRACE(function);
      SCOPED_TRACE(capacity);
      script.failCallOf(function, 0, CKR_DEVICE_ERROR);
      // The framework has read the length of the modulus by then.
      expectRefused(sign({.capacity = capacity}), 256);
    }
  }
}

TEST_F(SignHash, AnswersZerosForAKeyNamedWithoutRsa) {
  for (const std::size_t modulusLen : {1U, 128U, 256U}) {
    SCOPED_TRACE(modulusLen);
    useKeyOfAnotherType(modulusLen);
    expectSigned(sign(), zeros(modulusLen));
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  }
}

/// The framework then reports a success and a length that is longer than what it was given to write to.
TEST_F(SignHash, IsRefusedWhenNothingWasSignedForALongKey) {
  for (const std::size_t modulusLen : {257U, 384U, 512U, 639U}) {
    for (const std::uint64_t capacity : {std::uint64_t{256}, std::uint64_t{1000}, kAllOnes}) {
      SCOPED_TRACE(std::to_string(modulusLen) + " into " + std::to_string(capacity));
      useKeyOfAnotherType(modulusLen);
      expectRefused(sign({.capacity = capacity}), modulusLen);
      useKey(modulusLen, "PSS");
      const Signed result = sign({.capacity = capacity});
      EXPECT_FALSE(result.done);
      EXPECT_TRUE(result.signature == untouched());
    }
  }
}

TEST_F(SignHash, IsRefusedBeyondTheCapacityAlsoWhenNothingWasSigned) {
  const std::function<void()> ways[] = {
      [this] { useKey(256, "PSS"); },
      [this] { useKeyOfAnotherType(256); },
      [this] { script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR); },
  };
  for (const auto& prepare : ways) {
    SCOPED_TRACE(&prepare - ways);
    script.reset();
    newProvider();
    logIn();
    prepare();
    expectRefused(sign({.capacity = 255}), 256);
  }
}

// ---- Failures ----

TEST_F(SignHash, AnswersZerosWhenTheSignatureFails) {
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    for (const CK_RV code : {CK_RV{0x90}, CKR_DEVICE_ERROR, CKR_DEVICE_REMOVED, CKR_SESSION_HANDLE_INVALID}) {
      SCOPED_TRACE(function);
      SCOPED_TRACE(code);
      script.failCallOf(function, 0, code);
      expectSigned(sign(), zeros(256));
    }
  }
}

TEST_F(SignHash, AnswersZerosWhateverLengthAFailingSignatureLeaves) {
  for (const CK_ULONG length : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{256}, CK_ULONG{512}, CK_ULONG{600},
                                CK_ULONG{1024}, CK_ULONG{1} << 40U, CK_ULONG{kAllOnes}}) {
    SCOPED_TRACE(length);
    script.deviations.lengthsOnFailure["C_Sign"] = length;
    script.failCallOf("C_Sign", 0, CKR_BUFFER_TOO_SMALL);
    expectSigned(sign(), zeros(256));
  }
}

TEST_F(SignHash, FailsWithoutTouchingAnythingWhenTheCardCannotBeRead) {
  for (const std::uint64_t capacity : {std::uint64_t{0}, std::uint64_t{77}, kAllOnes}) {
    script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
    expectRefused(sign({.capacity = capacity}), capacity);
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
    expectUsable();
    script.card().loggedIn = true;
  }
  EXPECT_THAT(log->systemErrorLines, IsEmpty());
}

TEST_F(SignHash, FailsForAKeyThatIsNotThere) {
  for (const Text& name : {Text{u"02"}, Text{u"1"}, Text{u""}, Text{}, Text{u"MyKey"}}) {
    expectRefused(sign({.keyName = name}), 256);
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  }
  EXPECT_THAT(log->systemErrorLines, IsEmpty());
}

TEST_F(SignHash, FailsForAKeyWithoutAPrivateHalf) {
  script.card().objects.erase(kPrivateKey);
  expectRefused(sign(), 256);
}

TEST_F(SignHash, FailsBeforeTheLogin) {
  script.card().loggedIn = false;
  expectRefused(sign(), 256);
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignHash, LeavesTheLengthAloneWhenTheKeyIsNotFound) {
  for (const std::uint64_t capacity : {std::uint64_t{0}, std::uint64_t{100}, std::uint64_t{256},
                                       std::uint64_t{257}, std::uint64_t{1000}, kAllOnes}) {
    expectRefused(sign({.keyName = Text{u"02"}, .capacity = capacity}), capacity);
  }
}

TEST_F(SignHash, FailsForAnEcKey) {
  useEcKey();
  expectRefused(sign(), 0);  // there is no modulus
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignHash, FailsWithoutAFramework) {
  provider->setPCTKFramework(nullptr);
  expectRefused(sign(), 256);
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(SignHash, FailsWithoutASession) {
  ASSERT_FALSE(provider->getSupportedTokenDescription(reader()).isEmpty());
  expectRefused(sign(), 256);
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignHash, FailsAfterTheCardWasPulled) {
  script.pullCard();
  expectRefused(sign(), 256);
  leavesOpen({});
}

/// Signing with the default card: behind the reading, call 33 ends the search for the private key, calls 34
/// to 36 read the modulus's length and calls 37 and 38 sign.
TEST_F(SignHash, EndsAsTheFailingCallHasIt) {
  constexpr std::size_t kNumCalls = kNumReadingCalls + 11;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newProvider();
    logIn();
    point.arm();
    const Signed result = sign();
    const bool once = point.times() == Times::kOnce;
    if (point.n() >= kNumCalls || (point.n() == 33 && once)) {
      expectSigned(result, rawSignature_);
    } else if (point.n() >= 37) {
      expectSigned(result, zeros(256));
    } else {
      // A modulus that cannot be read has no length.
      const bool modulusUnread = point.n() >= 34 || (point.n() == 33 && !once);
      expectRefused(result, modulusUnread ? 0 : 256);
    }
    EXPECT_EQ(script.openSessions(), std::vector<CK_SESSION_HANDLE>{kCardSession});
    EXPECT_THAT(log->systemErrorLines, IsEmpty());
  });
}

TEST_F(SignHash, SignsOrFailsWhenMemoryRunsOut) {
  std::size_t rounds = 0;
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    newProvider();
    logIn();
    point.arm();
    const Signed result = sign();
    if (result.done) {
      expectSigned(result, rawSignature_);
    } else {
      EXPECT_TRUE(point.fired());
      EXPECT_TRUE(result.signature == untouched());
    }
    ++rounds;
  });
  EXPECT_GT(rounds, 4U);
}

}  // namespace
}  // namespace mirel::test
