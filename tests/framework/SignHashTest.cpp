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
    Text name;
    Mechanism expected;
  } rows[] = {
      {Text{u"1234_RSA_01_MyKey"}, Mechanism::kRaw},
      {Text{u"1234_(null)01_my rsa key"}, Mechanism::kRaw},
      {Text{u"RSA_P_SS"}, Mechanism::kRaw},
      {Text{u"1234_RSA_01_PSS"}, Mechanism::kPss},
      {Text{u"pSs_rSa"}, Mechanism::kPss},
      {Text{u"1234_(null)01_MyKey"}, Mechanism::kNone},
      {Text{u"1234_EC_01_PSS"}, Mechanism::kNone},
      {Text{u""}, Mechanism::kNone},
      {Text{}, Mechanism::kNone},
  };
  for (const auto& row : rows) {
    for (const Text& other : {Text{u"algid:sign:RSA:digest-PSS:SHA256"}, Text{u"EC"}, Text{}}) {
      SCOPED_TRACE(row.name.toUtf8());
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

TEST_F(PerformSignHash, NeedsALengthWhichIsAnsweredAloneWithoutABufferBySigningForReal) {
  for (const CK_ULONG entry : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{512}, ~CK_ULONG{0}}) {
    SCOPED_TRACE(entry);
    length = entry;
    EXPECT_TRUE(signTo({}));
    EXPECT_EQ(length, 256U);
    EXPECT_THAT(script.callTexts().back(), EndsWith("room 512)"));
  }
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
  constexpr CK_ULONG kWorkingRoom = 512;
  for (const CK_ULONG reported : {0UL, 100UL, 256UL, 512UL, 1024UL, 1UL << 40U, kAllOnes}) {
    for (const CK_ULONG capacity : {1UL, 256UL, 300UL, 512UL, 2000UL}) {
      SCOPED_TRACE(::testing::Message() << reported << " into " << capacity);
      script.deviations.lengthsOnFailure["C_Sign"] = reported;
      script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
      ResultBuffer output{capacity};
      EXPECT_TRUE(sign(output));
      EXPECT_EQ(length, 256U);
      const CK_ULONG copied = std::min({reported, capacity, kWorkingRoom});
      EXPECT_EQ(output.first(copied), Value(copied, 0));
      EXPECT_TRUE(output.untouchedFrom(copied));
    }
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
      SCOPED_TRACE(::testing::Message() << claimed << " into " << capacity);
      script.deviations.claimedResults["C_Sign"] = {claimed, std::nullopt};
      ResultBuffer output{capacity};
      EXPECT_TRUE(sign(output));
      EXPECT_EQ(length, 256U);
      Value expected = written;
      expected.resize(std::min<std::size_t>(capacity, 512));
      EXPECT_EQ(output.first(expected.size()), expected);
      EXPECT_TRUE(output.untouchedFrom(expected.size()));
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
  for (const Text& text : {Text{}, Text{u"RSA %n%s%@ %lX"}}) {
    algorithm = text;
    key->setKeyID(text);
    key->setKeyName(text);
    log->processLines.clear();
    ResultBuffer output{256};
    EXPECT_TRUE(sign(output));
    const std::string shown = text.isNull() ? "(null)" : "RSA %n%s%@ %lX";
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
