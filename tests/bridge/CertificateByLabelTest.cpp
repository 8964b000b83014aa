#include <algorithm>
#include <string_view>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_RV kReread = 0x80000000;

const CK_BYTE* labelBytes(std::string_view label) { return reinterpret_cast<const CK_BYTE*>(label.data()); }

class CertBlobByLabelUnloaded : public UnloadedBridgeTest {};

TEST_F(CertBlobByLabelUnloaded, ChecksItsArgumentsBeforeTheFunctionList) {
  CK_BYTE out[8];
  CK_ULONG len = sizeof out;
  EXPECT_EQ(bridge.GetCertBlobByLabel(5, nullptr, 5, out, &len), CK_RV{7});
  EXPECT_EQ(len, 0U);
  len = sizeof out;
  EXPECT_EQ(bridge.GetCertBlobByLabel(5, labelBytes("MyKey"), 0, out, &len), CK_RV{7});
  EXPECT_EQ(len, 0U);
  EXPECT_EQ(bridge.GetCertBlobByLabel(5, labelBytes("MyKey"), 5, out, nullptr), CK_RV{7});
}

TEST_F(CertBlobByLabelUnloaded, TestsTheFunctionListBeforeTheSession) {
  CK_BYTE out[8];
  CK_ULONG len = sizeof out;
  EXPECT_EQ(bridge.GetCertBlobByLabel(0, labelBytes("MyKey"), 5, out, &len), CK_RV{0x190});
  EXPECT_EQ(len, 0U);
}

class CertBlobByLabel : public SessionTest {
 protected:
  CK_RV read(std::string_view label = "MyKey") {
    return bridge.GetCertBlobByLabel(session, labelBytes(label), label.size(), out.data(), &len);
  }
  CK_RV readLength(std::string_view label = "MyKey") {
    return bridge.GetCertBlobByLabel(session, labelBytes(label), label.size(), nullptr, &len);
  }
  void setCapacity(std::size_t capacity) {
    out.assign(capacity, 0xAA);
    len = capacity;
  }
  void setValue(std::size_t size) {
    value = patternValue(size, 5);
    script.object(kCertificate).attributes[CKA_VALUE] = value;
  }

  std::vector<CK_BYTE> out = std::vector<CK_BYTE>(2000, 0xAA);
  CK_ULONG len = 2000;
  Value value;
};

TEST_F(CertBlobByLabel, RefusesNullAndNoneWithoutACallAndGivesLengthZero) {
  for (const CK_SESSION_HANDLE none : {CK_SESSION_HANDLE{0}, kAllOnes}) {
    SCOPED_TRACE(none);
    len = 2000;
    EXPECT_EQ(bridge.GetCertBlobByLabel(none, labelBytes("MyKey"), 5, out.data(), &len), CK_RV{7});
    EXPECT_EQ(len, 0U);
  }
  len = 2000;
  EXPECT_EQ(bridge.GetCertBlobByLabel(session, nullptr, 5, out.data(), &len), CK_RV{7});
  EXPECT_EQ(len, 0U);
  len = 2000;
  EXPECT_EQ(bridge.GetCertBlobByLabel(session, labelBytes("MyKey"), 0, out.data(), &len), CK_RV{7});
  EXPECT_EQ(len, 0U);
  EXPECT_EQ(bridge.GetCertBlobByLabel(session, labelBytes("MyKey"), 5, out.data(), nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(CertBlobByLabel, SearchesThenReadsIntoTheOutput) {
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_FindObjectsInit(5, [CKA_CLASS=0100000000000000, CKA_LABEL=4D794B6579])",
                          "C_FindObjects(5, 1)", "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)",
                          "C_GetAttributeValue(5, 23, [CKA_VALUE room 2000])",
                          "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])"));
  EXPECT_EQ(len, 700U);
  out.resize(700);
  EXPECT_EQ(out, script.object(kCertificate).attributes[CKA_VALUE]);
}

TEST_F(CertBlobByLabel, AsksForTheLengthThenReadsTwiceWithoutAnOutput) {
  EXPECT_EQ(readLength(), CKR_OK);
  EXPECT_EQ(len, 700U);
  const auto calls = script.callTexts("C_GetAttributeValue");
  EXPECT_THAT(calls, ElementsAre("C_GetAttributeValue(5, 23, [CKA_VALUE null 0])",
                                 "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])",
                                 "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])"));
}

TEST_F(CertBlobByLabel, WritesNothingBehindTheValue) {
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_THAT(std::vector<CK_BYTE>(out.begin() + 700, out.end()), Each(CK_BYTE{0xAA}));
}

TEST_F(CertBlobByLabel, TakesTheLabelAsBytes) {
  const std::string_view label{"A\0\xFF B", 5};
  script.object(kCertificate).attributes[CKA_LABEL] = bytesOf(label);
  EXPECT_EQ(read(label), CKR_OK);
  EXPECT_EQ(len, 700U);
  len = 2000;
  EXPECT_EQ(read(label.substr(0, 1)), CK_RV{0x20});
}

TEST_F(CertBlobByLabel, ReadsTheFirstOfSeveral) {
  script.addObject(certificate(bytesOf("02"), bytesOf("MyKey"), patternValue(100, 9)));
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(len, 700U);
}

TEST_F(CertBlobByLabel, LooksAtTwentyAtMost) {
  for (int i = 0; i < 24; ++i) {
    script.addObject(certificate(bytesOf("02"), bytesOf("MyKey"), patternValue(100, 9)));
  }
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(len, 700U);
  EXPECT_EQ(script.countOf("C_FindObjects"), 21U);  // the last one is dropped
}

TEST_F(CertBlobByLabel, SurvivesASearchThatNeverEnds) {
  script.deviations.endlessSearches = true;
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(script.countOf("C_FindObjects"), 21U);
}

TEST_F(CertBlobByLabel, AnswersThatThereIsNone) {
  EXPECT_EQ(read("Other"), CK_RV{0x20});
  EXPECT_EQ(len, 0U);
  len = 77;
  EXPECT_EQ(readLength("Other"), CK_RV{0x20});
  EXPECT_EQ(len, 0U);
  EXPECT_EQ(script.countOf("C_GetAttributeValue"), 0U);
}

TEST_F(CertBlobByLabel, FindsNothingWhenTheModuleReportsSeveralAtOnce) {
  script.deviations.foundPerCall = 5;
  EXPECT_EQ(read(), CK_RV{0x20});
  EXPECT_EQ(len, 0U);
}

TEST_F(CertBlobByLabel, AnswersFunctionFailedWhenTheSearchFails) {
  const struct {
    const char* name;
    const char* function;
    std::size_t n;
  } rows[] = {
      {"it cannot start", "C_FindObjectsInit", 0},
      {"it finds none", "C_FindObjects", 0},
      {"it found some", "C_FindObjects", 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.failCallOf(row.function, row.n, kSomeFailure);
    len = 2000;
    EXPECT_EQ(read(), CK_RV{6});
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(script.countOf("C_GetAttributeValue"), 0U);
  }
}

TEST_F(CertBlobByLabel, TakesTwoThousandBytesIntoAnOutput) {
  setValue(2000);
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(len, 2000U);
  EXPECT_EQ(out, value);
}

TEST_F(CertBlobByLabel, RefusesMoreThanTwoThousandBytesWhateverTheOutput) {
  setValue(2001);
  setCapacity(4000);
  EXPECT_EQ(read(), CK_RV{0x150});
  EXPECT_EQ(len, 0U);
}

TEST_F(CertBlobByLabel, ReportsTheLengthOfAValueTooLongToBeFetched) {
  for (const std::size_t size : {1999U, 2000U, 2001U, 9000U}) {
    SCOPED_TRACE(size);
    setValue(size);
    script.forgetCalls();
    EXPECT_EQ(readLength(), CKR_OK);
    EXPECT_EQ(len, size);
    EXPECT_EQ(script.countOf("C_GetAttributeValue"), size < 2000 ? 3U : 1U);
  }
}

TEST_F(CertBlobByLabel, RefusesAnOutputThatIsTooSmall) {
  for (const std::size_t capacity : {699U, 1U}) {
    SCOPED_TRACE(capacity);
    setCapacity(capacity);
    EXPECT_EQ(read(), CK_RV{0x150});
    EXPECT_EQ(len, 0U);
  }
}

TEST_F(CertBlobByLabel, RefusesAnOutputWithoutRoom) {
  setCapacity(1);
  len = 0;
  EXPECT_EQ(read(), CK_RV{0x150});
  EXPECT_EQ(len, 0U);
  EXPECT_THAT(out, Each(CK_BYTE{0xAA}));
}

TEST_F(CertBlobByLabel, FillsAnOutputOfExactlyTheRightSize) {
  setCapacity(700);
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(len, 700U);
}

TEST_F(CertBlobByLabel, RefusesALengthAboveTheCapacity) {
  const struct {
    const char* name;
    std::vector<std::optional<CK_ULONG>> claims;
  } rows[] = {
      {"on the first read", {1500}},
      {"on the second read", {80, 1500}},
      {"one too many on the second read", {80, 81}},
      {"low 32 bits small", {0x100000010}},
      {"low 32 bits small on the second read", {80, 0x100000010}},
      {"huge", {1UL << 40U}},
      {"nearly all-ones", {kAllOnes - 1}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_VALUE] = row.claims;
    setCapacity(100);
    EXPECT_EQ(read(), CK_RV{0x150});
    EXPECT_EQ(len, 0U);
  }
}

TEST_F(CertBlobByLabel, RefusesEmptyAndUnavailableValues) {
  const struct {
    const char* name;
    std::vector<std::optional<CK_ULONG>> claims;
    CK_RV expected;
  } rows[] = {
      {"empty", {0}, 0x13},
      {"unavailable", {kAllOnes}, 0x13},
      {"empty on the second read", {std::nullopt, 0}, 0x80000013},
      {"unavailable on the second read", {std::nullopt, kAllOnes}, 0x80000013},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_VALUE] = row.claims;
    setCapacity(2000);
    EXPECT_EQ(read(), row.expected);
    EXPECT_EQ(len, 0U);
  }
}

TEST_F(CertBlobByLabel, RefusesALengthThatGrowsWhileOnlyTheLengthIsWanted) {
  for (const auto& claims : std::vector<std::vector<std::optional<CK_ULONG>>>{{80, 1500}, {80, 80, 1500}}) {
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_VALUE] = claims;
    EXPECT_EQ(readLength(), CK_RV{0x150});
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(memory->outstanding(), 0U);
  }
}

TEST_F(CertBlobByLabel, AsksForNoMemoryOfTheSizeOfAnAbsurdLength) {
  script.deviations.claimedLengths[CKA_VALUE] = {1UL << 40U};
  EXPECT_EQ(readLength(), CKR_OK);
  EXPECT_EQ(len, 1UL << 40U);
  EXPECT_LE(memory->largestRequest(), 4096U);
}

TEST_F(CertBlobByLabel, SurvivesEveryFailingCall) {
  for (const bool withOutput : {true, false}) {
    SCOPED_TRACE(withOutput);
    forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
      openAgain();
      setCapacity(2000);
      point.arm();
      const CK_RV rv = withOutput ? read() : readLength();

      // C_FindObjectsInit, two C_FindObjects, C_FindObjectsFinal (ignored), then the reads: without an
      // output the length query, then two.
      const std::size_t firstReread = withOutput ? 5 : 6;
      CK_RV expected = CKR_OK;
      if (point.fired() && point.n() <= 2) {
        expected = 6;
      } else if (point.fired() && (point.n() > 3 || point.times() == Times::kFromThenOn)) {
        expected = point.n() >= firstReread ? kReread | kSomeFailure : kSomeFailure;
      }
      EXPECT_EQ(rv, expected);
      EXPECT_EQ(len, expected == CKR_OK ? 700U : 0U);
      const bool finalFails =
          point.fired() &&
          (point.n() == 3 || (point.n() < 3 && point.n() > 0 && point.times() == Times::kFromThenOn));
      EXPECT_EQ(script.openSearches().empty(), !finalFails);
      EXPECT_EQ(memory->outstanding(), 0U);
    });
  }
}

TEST_F(CertBlobByLabel, SurvivesEveryFailingAllocation) {
  for (const bool withOutput : {true, false}) {
    SCOPED_TRACE(withOutput);
    std::size_t failures = 0;
    forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
      openAgain();
      setCapacity(2000);
      point.arm();
      const CK_RV rv = withOutput ? read() : readLength();
      EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
      EXPECT_EQ(len, point.fired() ? 0U : 700U);
      EXPECT_EQ(memory->outstanding(), 0U);
      EXPECT_THAT(script.openSearches(), IsEmpty());
      if (point.fired()) ++failures;
    });
    if (!withOutput) {
      EXPECT_GE(failures, 2U);
    }
  }
}

}  // namespace
}  // namespace mirel::test
