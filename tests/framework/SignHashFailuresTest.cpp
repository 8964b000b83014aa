/// Signing a hash where the module fails or lies.

#include "framework/CardOperationsTest.h"

namespace mirel::test {
namespace {

using ::testing::EndsWith;
using ::testing::IsEmpty;

class SignHashFailures : public CardOperationsTest {
 protected:
  bool sign(ResultBuffer& output) {
    length = output.capacity();
    return signTo(output.data());
  }
  bool signTo(CK_BYTE* output) {
    return framework->PerformSignHash("Reader A 00", key, Text{u"algorithm"}, 0, data.data(), data.size(),
                                      std::span{output, output ? length : 0}, &length);
  }
  void usePss() { key->setKeyName(Text{u"RSA PSS"}); }

  const Value data = Value(32, 0xAB);
  CK_ULONG length = 0;
};

TEST_F(SignHashFailures, NeedALength) {
  ResultBuffer output{256};
  EXPECT_FALSE(framework->PerformSignHash("Reader A 00", key, Text{u"algorithm"}, 0, data.data(), data.size(),
                                          std::span{output.data(), output.capacity()}, nullptr));
  EXPECT_TRUE(output.untouched());
}

TEST_F(SignHashFailures, NeedAModulus) {
  // An EC key has none.
  script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Curve"), p256Params(), p256Point(3)));
  script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params()));
  ASSERT_TRUE(framework->EnumCardKeys(reader()));
  ASSERT_EQ(keys().size(), 2U);
  key = keys()[1];
  ASSERT_EQ(key->keyName(), Text{u"1234567890ABCDEF_EC_02_Curve"});
  log->allLines.clear();
  ResultBuffer output{256};
  EXPECT_FALSE(sign(output));
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  EXPECT_TRUE(output.untouched());
  // The name is not logged any more.
  ASSERT_EQ(log->processLines.size(), 2U);
  EXPECT_THAT(log->processLines[1], EndsWith("key ID = 02, public key = 18"));
}

TEST_F(SignHashFailures, AreSuccessesWithZerosForRawRsa) {
  const struct {
    const char* name;
    std::size_t capacity;
    std::size_t zeros;
  } rows[] = {{"a short buffer", 1, 1},
              {"2048 bits", 256, 256},
              {"an odd size", 300, 300},
              {"the working size", 512, 512},
              {"a large buffer", 2000, 512}};
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    for (const auto& row : rows) {
      SCOPED_TRACE(function);
      SCOPED_TRACE(row.name);
      script.failCallOf(function, 0, CK_RV{0x90});
      ResultBuffer output{row.capacity};
      EXPECT_TRUE(sign(output));
      EXPECT_EQ(length, 256U);
      EXPECT_EQ(output.first(row.zeros), Value(row.zeros, 0));
      EXPECT_TRUE(output.untouchedFrom(row.zeros));
    }
  }
}

TEST_F(SignHashFailures, CopyNothingWithoutABufferOrRoom) {
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    script.failCallOf(function, 0, CK_RV{0x90});
    length = 512;
    EXPECT_TRUE(signTo(nullptr));
    EXPECT_EQ(length, 256U);

    script.failCallOf(function, 0, CK_RV{0x90});
    ResultBuffer output{1};
    length = 0;
    EXPECT_TRUE(signTo(output.data()));
    EXPECT_EQ(length, 256U);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_F(SignHashFailures, CopyAsMuchAsTheFailingModuleSaysAndFits) {
  const struct {
    CK_ULONG written;
    std::size_t capacity;
    std::size_t copied;
  } rows[] = {
      {0, 256, 0},      {100, 256, 100},   {256, 256, 256},         {512, 256, 256},  {1024, 256, 256},
      {1024, 512, 512}, {1024, 2000, 512}, {1UL << 40U, 2000, 512}, {~0UL, 256, 256}, {~0UL, 2000, 512},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.written);
    SCOPED_TRACE(row.capacity);
    script.deviations.lengthsOnFailure["C_Sign"] = row.written;
    script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
    ResultBuffer output{row.capacity};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, 256U);
    EXPECT_EQ(output.first(row.copied), Value(row.copied, 0));
    EXPECT_TRUE(output.untouchedFrom(row.copied));
  }
}

TEST_F(SignHashFailures, HandOverWhatTheFailingModuleWrote) {
  script.hook<&CK_FUNCTION_LIST::C_Sign>([](auto real, CK_SESSION_HANDLE session, CK_BYTE* bytes,
                                            CK_ULONG numBytes, CK_BYTE* output, CK_ULONG* len) -> CK_RV {
    (void)real(session, bytes, numBytes, output, len);
    *len = 300;
    return CKR_DEVICE_ERROR;
  });
  ResultBuffer output{512};
  EXPECT_TRUE(sign(output));
  Value expected = resultOf(3, data, 256);
  expected.resize(300, 0);
  EXPECT_EQ(output.first(300), expected);
  EXPECT_TRUE(output.untouchedFrom(300));
  EXPECT_EQ(length, 256U);
}

TEST_F(SignHashFailures, IncludeSignaturesLongerThanTheWorkingRoom) {
  for (const CK_ULONG claimed : {CK_ULONG{513}, CK_ULONG{600}, CK_ULONG{1} << 40U, ~CK_ULONG{0}}) {
    for (const std::size_t capacity : {256U, 512U, 1000U}) {
      SCOPED_TRACE(claimed);
      SCOPED_TRACE(capacity);
      script.deviations.claimedResults["C_Sign"] = {claimed, std::nullopt};
      ResultBuffer output{capacity};
      EXPECT_TRUE(sign(output));
      // As after any failure: the length of the modulus, and bytes as far as both buffers reach.
      EXPECT_EQ(length, 256U);
      const std::size_t copied = std::min<std::size_t>(capacity, 512);
      Value expected = resultOf(3, data, 256);
      expected.resize(512, 0xEE);
      expected.resize(copied);
      EXPECT_EQ(output.first(copied), expected);
      EXPECT_TRUE(output.untouchedFrom(copied));

      length = 256;
      EXPECT_TRUE(signTo(nullptr));
      EXPECT_EQ(length, 256U);
    }
  }
}

TEST_F(SignHashFailures, IncludeKeysOfMoreThan4096Bits) {
  setModulusLen(1024);
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_EQ(length, 1024U);
  EXPECT_EQ(output.all(), Value(256, 0));
}

TEST_F(SignHashFailures, IncludeDataThatNobodyCanSign) {
  const struct {
    const char* name;
    const CK_BYTE* data;
    CK_ULONG dataLen;
  } rows[] = {{"null", nullptr, 32}, {"empty", data.data(), 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ResultBuffer output{256};
    length = 256;
    EXPECT_TRUE(framework->PerformSignHash("Reader A 00", key, Text{u"algorithm"}, 0, row.data, row.dataLen,
                                           std::span{output.data(), output.capacity()}, &length));
    EXPECT_EQ(output.all(), Value(256, 0));
  }
  EXPECT_EQ(script.countOf("C_SignInit"), 0U);
}

TEST_F(SignHashFailures, AreFailuresForPss) {
  usePss();
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    script.failCallOf(function, 0, CKR_DEVICE_ERROR);
    ResultBuffer output{256};
    EXPECT_FALSE(sign(output));
    EXPECT_EQ(length, 256U);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_F(SignHashFailures, IncludePssSignaturesLongerThanTheWorkingRoom) {
  usePss();
  for (const CK_ULONG claimed : {CK_ULONG{513}, CK_ULONG{1024}, CK_ULONG{1} << 40U, ~CK_ULONG{0}}) {
    SCOPED_TRACE(claimed);
    script.deviations.claimedResults["C_Sign"] = {claimed, std::nullopt};
    ResultBuffer output{256};
    EXPECT_FALSE(sign(output));
    EXPECT_TRUE(output.untouched());
  }
}

TEST_F(SignHashFailures, IncludeAModulusThatNoBufferHolds) {
  // The module is announced the modulus as room: 1024 bytes, for a working buffer of 512.
  usePss();
  setModulusLen(1024);
  ResultBuffer output{256};
  EXPECT_FALSE(sign(output));
  EXPECT_EQ(length, 1024U);
  EXPECT_THAT(script.callTexts().back(), EndsWith("room 1024)"));
  for (const CK_ULONG claim : {CK_ULONG{65537}, CK_ULONG{1} << 40U}) {
    SCOPED_TRACE(claim);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_MODULUS] = {claim};
    EXPECT_FALSE(sign(output));
    EXPECT_EQ(length, claim);
    EXPECT_EQ(script.countOf("C_SignInit"), 0U);
  }
  EXPECT_TRUE(output.untouched());
}

TEST_F(SignHashFailures, AreToldApartByTheCall) {
  constexpr std::size_t kSignInit = kNumLookUpCalls + kNumModulusCalls;
  failEachCall(CKR_DEVICE_ERROR, kSignInit + 2, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{256};
    point.arm();
    const bool succeeded = sign(output);
    const bool endOfSearchAlone = point.n() == 5 && point.times() == Times::kOnce;
    if (!point.fired() || endOfSearchAlone) {
      EXPECT_TRUE(succeeded);
      EXPECT_EQ(output.all(), resultOf(3, data, 256));
    } else if (point.n() < kSignInit) {
      EXPECT_FALSE(succeeded);
      EXPECT_TRUE(output.untouched());
      EXPECT_EQ(script.countOf("C_SignInit"), 0U);
    } else {
      EXPECT_TRUE(succeeded);
      EXPECT_EQ(output.all(), Value(256, 0));
    }
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(SignHashFailures, AreAllToldForPss) {
  constexpr std::size_t kNumCalls = 2 * (kNumLookUpCalls + kNumModulusCalls) + 2;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    prepareAgain();
    usePss();
    ResultBuffer output{256};
    point.arm();
    const bool succeeded = sign(output);
    // A search that the module would not end stands in the way of the next one only.
    const bool endOfLastSearchAlone = point.n() == 14 && point.times() == Times::kOnce;
    EXPECT_EQ(succeeded, !point.fired() || endOfLastSearchAlone);
    EXPECT_TRUE(output.untouched());
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(SignHashFailures, IncludeALackOfMemory) {
  for (const bool pss : {false, true}) {
    SCOPED_TRACE(pss);
    // For each modulus that is read.
    failEachAllocation(pss ? 2 : 1, [&](FailPoint& point) {
      prepareAgain();
      if (pss) usePss();
      ResultBuffer output{256};
      point.arm();
      const bool succeeded = sign(output);
      EXPECT_EQ(succeeded, !point.fired());
      EXPECT_EQ(script.countOf("C_SignInit"), point.fired() ? 0U : 1U);
    });
  }
}

}  // namespace
}  // namespace mirel::test
