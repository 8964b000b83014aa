/// Signing a hash: what the key's name decides, and what the caller gets. What all key operations have in
/// common is in CardOperationsTest.cpp.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

class PerformSignHash : public FrameworkTest {
 protected:
  PerformSignHash() {
    (void)openAndList();
    script.card().loggedIn = true;
    key = keys().front();
  }

  bool sign(ResultBuffer& output) {
    length = output.capacity();
    return signTo({output.data(), output.capacity()});
  }
  bool signTo(std::span<CK_BYTE> output) {
    return framework->PerformSignHash("Reader A 00", key, algorithm, flag, data.data(), data.size(), output,
                                      &length);
  }
  void usePss() { key->setKeyName(Text{u"RSA PSS"}); }
  void setModulusLen(std::size_t size) {
    for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey}) {
      script.object(object).attributes[CKA_MODULUS] = patternValue(size, 0xC5);
    }
  }

  Value data = Value(32, 0xAB);
  Text algorithm{u"algorithm"};
  CK_ULONG flag = 0;
  CK_ULONG length = 0;
  std::shared_ptr<PKCS11_ASYMKEY_INFO> key;
};

// ---- The choice ----

TEST_F(PerformSignHash, FollowsTheNameOfTheKeyAlone) {
  enum class Mechanism { kNone, kRaw, kPss };
  const struct {
    const char* what;
    Text name;
    Mechanism expected = Mechanism::kRaw;
  } rows[] = {
      {"as listed", Text{u"1234_RSA_01_MyKey"}},
      {"mixed letters", Text{u"rSa"}},
      {"within a word", Text{u"adversary"}},
      {"in the label alone", Text{u"1234_(null)01_my rsa key"}},
      {"PSS interrupted", Text{u"RSA_P_SS"}},
      {"both", Text{u"1234_RSA_01_PSS"}, Mechanism::kPss},
      {"both, mixed", Text{u"RsA pSs"}, Mechanism::kPss},
      {"both, the other way round", Text{u"PSS_RSA"}, Mechanism::kPss},
      {"both, within words", Text{u"adversary upsset"}, Mechanism::kPss},
      {"both, next to other scripts", Text{u"\u00E4RSA\u4E2DPSS\U0001F511"}, Mechanism::kPss},
      {"no prefix", Text{u"1234_(null)01_MyKey"}, Mechanism::kNone},
      {"PSS alone", Text{u"1234_EC_01_PSS"}, Mechanism::kNone},
      {"RSA interrupted", Text{u"R_SA"}, Mechanism::kNone},
      {"RSA cut off", Text{u"RS"}, Mechanism::kNone},
      {"empty", Text{u""}, Mechanism::kNone},
      {"null", Text{}, Mechanism::kNone},
  };
  for (const auto& row : rows) {
    for (const Text& other : {Text{u"algid:sign:RSA:digest-PSS:SHA256"}, Text{u"EC"}, Text{}}) {
      SCOPED_TRACE(row.what);
      key->setKeyName(row.name);
      algorithm = other;
      flag = ~flag;  // neither is looked at
      script.forgetCalls();
      ResultBuffer output{256};
      EXPECT_TRUE(sign(output));
      EXPECT_EQ(length, 256U);
      std::vector<std::string> expected;
      if (row.expected == Mechanism::kRaw) expected = {"C_SignInit(5, CKM 3 null 0, 22)"};
      if (row.expected == Mechanism::kPss) expected = {"C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)"};
      EXPECT_EQ(script.callTexts("C_SignInit"), expected);
      EXPECT_EQ(script.countOf("C_Sign"), expected.size());
      EXPECT_EQ(output.untouched(), row.expected != Mechanism::kRaw);
    }
  }
}

// ---- The length ----

TEST_F(PerformSignHash, FitsIntoTheBufferAndTheCapacityOrFails) {
  const struct {
    const char* what;
    std::size_t modulusLen;
    std::size_t room;
    CK_ULONG capacity;
    bool fits = false;
  } rows[] = {
      {"1024 bits, exactly", 128, 128, 128, true},
      {"1024 bits into 256 bytes", 128, 256, 256, true},
      {"2048 bits, exactly", 256, 256, 256, true},
      {"more room", 256, 2000, 2000, true},
      {"a capacity beyond the room", 256, 256, ~CK_ULONG{0}, true},
      {"a room beyond the capacity", 256, 300, 256, true},
      {"too little room", 256, 255, 300},
      {"too little capacity", 256, 300, 255},
      {"no capacity", 256, 256, 0},
      {"one byte", 256, 1, 1},
      {"4096 bits, exactly", 512, 512, 512, true},
      {"one byte less", 512, 511, 511},
      {"3072 bits over 256 bytes", 384, 256, 256},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    setModulusLen(row.modulusLen);
    ResultBuffer output{row.room};
    length = row.capacity;
    EXPECT_EQ(signTo({output.data(), row.room}), row.fits);
    EXPECT_EQ(length, row.modulusLen);
    const Value expected = row.fits ? resultOf(CKM_RSA_X_509, data, row.modulusLen) : Value{};
    EXPECT_EQ(output.first(expected.size()), expected);
    EXPECT_TRUE(output.untouchedFrom(expected.size()));
  }
}

TEST_F(PerformSignHash, IsThatOfTheSignatureNotOfTheModulus) {
  for (const CK_ULONG claimed : {CK_ULONG{0}, CK_ULONG{200}}) {
    SCOPED_TRACE(claimed);
    script.deviations.claimedResults["C_Sign"] = {claimed, std::nullopt};
    ResultBuffer output{256};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, claimed);
    EXPECT_EQ(output.first(claimed), resultOf(CKM_RSA_X_509, data, claimed));
    EXPECT_TRUE(output.untouchedFrom(claimed));
  }
}

TEST_F(PerformSignHash, IsAnsweredAloneWithoutABufferBySigningForReal) {
  for (const CK_ULONG entry : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{512}, ~CK_ULONG{0}}) {
    SCOPED_TRACE(entry);
    length = entry;
    EXPECT_TRUE(signTo({}));
    EXPECT_EQ(length, 256U);
    EXPECT_THAT(script.callTexts().back(), EndsWith("room 512)"));
  }
}

TEST_F(PerformSignHash, NeedsALength) {
  ResultBuffer output{256};
  EXPECT_FALSE(framework->PerformSignHash("Reader A 00", key, algorithm, 0, data.data(), data.size(),
                                          std::span{output.data(), output.capacity()}, nullptr));
  EXPECT_TRUE(output.untouched());
}

TEST_F(PerformSignHash, KeepsAPssSignatureToItselfAndAnswersTheLengthOfThePublicModulus) {
  usePss();
  script.object(kPublicKey).attributes[CKA_MODULUS] = patternValue(384, 1);
  for (const std::size_t capacity : {1U, 256U, 512U}) {
    SCOPED_TRACE(capacity);
    ResultBuffer output{capacity};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, 384U);
    EXPECT_TRUE(output.untouched());
    EXPECT_THAT(script.callTexts().back(), EndsWith("room 256)"));  // the private one's
  }
  length = 3;
  EXPECT_TRUE(signTo({}));
  EXPECT_EQ(length, 384U);
}

// ---- Signatures that fail ----

TEST_F(PerformSignHash, CopiesAsMuchAsTheFailingModuleSaysAndFitsWithSuccess) {
  const struct {
    CK_ULONG reported;
    std::size_t capacity;
    std::size_t copied;
  } rows[] = {
      {0, 256, 0},       {100, 256, 100},         {256, 256, 256},  {512, 1, 1},      {512, 256, 256},
      {512, 300, 300},   {512, 512, 512},         {512, 2000, 512}, {1024, 256, 256}, {1024, 512, 512},
      {1024, 2000, 512}, {1UL << 40U, 2000, 512}, {~0UL, 256, 256},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reported);
    SCOPED_TRACE(row.capacity);
    script.deviations.lengthsOnFailure["C_Sign"] = row.reported;
    script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
    ResultBuffer output{row.capacity};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, 256U);
    EXPECT_EQ(output.first(row.copied), Value(row.copied, 0));
    EXPECT_TRUE(output.untouchedFrom(row.copied));
  }
}

TEST_F(PerformSignHash, CopiesNothingOfAFailureWithoutABufferOrRoom) {
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    script.failCallOf(function, 0, CKR_OPERATION_ACTIVE);
    EXPECT_TRUE(signTo({}));
    script.failCallOf(function, 0, CKR_OPERATION_ACTIVE);
    ResultBuffer output{256};
    length = 0;
    EXPECT_TRUE(signTo({output.data(), 256}));
    EXPECT_EQ(length, 256U);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_F(PerformSignHash, TakesASignatureLongerThanTheWorkingRoomForAFailure) {
  Value written = resultOf(CKM_RSA_X_509, data, 256);
  written.resize(512, 0xEE);
  for (const CK_ULONG claimed : {CK_ULONG{513}, CK_ULONG{1} << 40U, ~CK_ULONG{0}}) {
    for (const std::size_t capacity : {256U, 512U, 1000U}) {
      SCOPED_TRACE(claimed);
      SCOPED_TRACE(capacity);
      script.deviations.claimedResults["C_Sign"] = {claimed, std::nullopt};
      ResultBuffer output{capacity};
      EXPECT_TRUE(sign(output));
      EXPECT_EQ(length, 256U);
      const std::size_t copied = std::min<std::size_t>(capacity, 512);
      EXPECT_EQ(output.first(copied),
                Value(written.begin(), written.begin() + static_cast<std::ptrdiff_t>(copied)));
      EXPECT_TRUE(output.untouchedFrom(copied));
    }
  }
  script.deviations = {};
  setModulusLen(1024);  // more than 4096 bits
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_EQ(length, 1024U);
  EXPECT_EQ(output.all(), Value(256, 0));
}

TEST_F(PerformSignHash, TakesDataThatNobodyCanSignForAFailure) {
  data.clear();
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_EQ(output.all(), Value(256, 0));
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(PerformSignHash, FailsWhereAPssSignatureDoes) {
  usePss();
  ResultBuffer output{256};
  script.deviations.claimedResults["C_Sign"] = {513, std::nullopt};
  EXPECT_FALSE(sign(output)) << "more than the working room";
  EXPECT_EQ(length, 256U);
  script.deviations = {};
  // The module is announced the modulus as room: 1024 bytes, for a working buffer of 512.
  setModulusLen(1024);
  EXPECT_FALSE(sign(output));
  EXPECT_EQ(length, 1024U);
  EXPECT_THAT(script.callTexts().back(), EndsWith("room 1024)"));
  script.deviations.claimedLengths[CKA_MODULUS] = {CK_ULONG{1} << 40U};
  EXPECT_FALSE(sign(output));
  EXPECT_EQ(length, CK_ULONG{1} << 40U);
  EXPECT_TRUE(output.untouched());
}

// ---- The log ----

TEST_F(PerformSignHash, LogsNullsAsSuchAndTextOfTheCardAsTextOnly) {
  const struct {
    Text text;
    const char* shown;
  } rows[] = {{Text{}, "(null)"}, {Text{u"RSA %n%s%@ %lX"}, "RSA %n%s%@ %lX"}};
  for (const auto& row : rows) {
    algorithm = row.text;
    key->setKeyID(row.text);
    key->setKeyName(row.text);
    log->processLines.clear();
    ResultBuffer output{256};
    EXPECT_TRUE(sign(output));
    const std::string shown{row.shown};
    EXPECT_THAT(log->processLines, ElementsAre(EndsWith("-437] pccAlgName = " + shown),
                                               EndsWith("-462] key ID = " + shown + ", public key = 15"),
                                               EndsWith("-480] keyName = " + shown)));
  }
}

TEST_F(PerformSignHash, LogsHandlesInHexadecimalDigits) {
  const struct {
    CK_OBJECT_HANDLE handle;
    const char* digits;
  } rows[] = {{0, "0"}, {0xABCDEF0123, "ABCDEF0123"}, {~CK_ULONG{0}, "FFFFFFFFFFFFFFFF"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.digits);
    key->setHPubKey(row.handle);
    ResultBuffer output{256};
    EXPECT_FALSE(sign(output));
    EXPECT_THAT(log->processLines.back(), EndsWith(std::string{", public key = "} + row.digits));
  }
}

}  // namespace
}  // namespace mirel::test
