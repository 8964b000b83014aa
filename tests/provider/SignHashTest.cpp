/// Signing.

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

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

}  // namespace
}  // namespace mirel::test
