/// Reading the first certificate with a label.

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

using Claims = std::vector<std::optional<CK_ULONG>>;

const CK_BYTE* labelBytes(std::string_view label) { return reinterpret_cast<const CK_BYTE*>(label.data()); }

class CertBlobByLabelUnloaded : public UnloadedBridgeTest {};

TEST_F(CertBlobByLabelUnloaded, ChecksItsArgumentsBeforeTheFunctionListAndThatBeforeTheSession) {
  CK_BYTE out[8];
  const auto expectAnswer = [&](const CK_BYTE* label, CK_ULONG labelLen, CK_RV code) {
    CK_ULONG len = sizeof out;
    EXPECT_EQ(bridge.GetCertBlobByLabel(0, label, labelLen, out, &len), code);
    EXPECT_EQ(len, 0U);
  };
  expectAnswer(nullptr, 5, CKR_ARGUMENTS_BAD);
  expectAnswer(labelBytes("MyKey"), 0, CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.GetCertBlobByLabel(5, labelBytes("MyKey"), 5, out, nullptr), CKR_ARGUMENTS_BAD);
  expectAnswer(labelBytes("MyKey"), 5, CKR_CRYPTOKI_NOT_INITIALIZED);
}

class CertBlobByLabel : public SessionTest {
 protected:
  CK_RV read(CK_BYTE* out, std::string_view label) {
    return bridge.GetCertBlobByLabel(session, labelBytes(label), label.size(), out, &length);
  }
  void expectRead(std::size_t capacity, const Value& expected, std::string_view label = "MyKey") {
    ResultBuffer out{capacity};
    length = capacity;
    EXPECT_EQ(read(out.data(), label), CKR_OK);
    EXPECT_EQ(length, expected.size());
    EXPECT_EQ(out.first(expected.size()), expected);
    EXPECT_TRUE(out.untouchedFrom(expected.size()));
  }
  void expectRefused(CK_RV code, std::size_t capacity = 2000, std::string_view label = "MyKey") {
    ResultBuffer out{capacity};
    length = capacity;
    EXPECT_EQ(read(out.data(), label), code);
    EXPECT_EQ(length, 0U);
  }
  void expectLength(CK_RV code, CK_ULONG expected, std::string_view label = "MyKey") {
    length = 77;
    EXPECT_EQ(read(nullptr, label), code);
    EXPECT_EQ(length, expected);
  }
  Value setValue(std::size_t size) {
    script.forgetCalls();
    return script.object(kCertificate).attributes[CKA_VALUE] = patternValue(size, 5);
  }

  CK_ULONG length = 0;
};

TEST_F(CertBlobByLabel, RefusesHandlesOfNoneWithoutACall) {
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    session = none;
    expectRefused(CKR_ARGUMENTS_BAD);
  }
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(CertBlobByLabel, ReadsTheFirstOfSeveralLookingAtTwentyAtMostAlsoInASearchThatNeverEnds) {
  for (int i = 0; i < 24; ++i) {
    script.addObject(certificate(bytesOf("02"), bytesOf("MyKey"), patternValue(100, 9)));
  }
  for (const bool isEndless : {false, true}) {
    script.forgetCalls();
    script.deviations.endlessSearches = isEndless;
    expectRead(2000, patternValue(700, 0x30));
    EXPECT_EQ(script.countOf("C_FindObjects"), 21U);  // the last one is dropped
  }
}

TEST_F(CertBlobByLabel, TakesTheLabelAsBytes) {
  const std::string_view label{"A\0\xFF B", 5};
  script.object(kCertificate).attributes[CKA_LABEL] = bytesOf(label);
  expectRead(2000, patternValue(700, 0x30), label);
  expectRefused(CKR_DATA_INVALID, 2000, label.substr(0, 1));
}

TEST_F(CertBlobByLabel, AnswersThatThereIsNone) {
  expectRefused(CKR_DATA_INVALID, 2000, "Other");
  expectLength(CKR_DATA_INVALID, 0, "Other");
  script.deviations.foundPerCall = 5;
  expectRefused(CKR_DATA_INVALID);
  EXPECT_EQ(script.countOf("C_GetAttributeValue"), 0U);
}

TEST_F(CertBlobByLabel, GivesLengthZeroWhenACallFails) {
  for (const std::size_t n : {0U, 1U, 2U, 4U, 5U}) {
    SCOPED_TRACE(n);
    script.failCall(n, kSomeFailure);
    expectRefused(n <= 2 ? CKR_FUNCTION_FAILED : n == 4 ? kSomeFailure : kRereadFailed | kSomeFailure);
  }
  memory->failAllocation(0);
  expectLength(CKR_HOST_MEMORY, 0);
}

TEST_F(CertBlobByLabel, TakesUpTo2000BytesIntoAnOutputThatHasRoom) {
  const struct {
    const char* what;
    std::size_t size;
    std::size_t capacity;
    bool fits;
  } rows[] = {
      {"exactly the right size", 700, 700, true}, {"one byte short", 700, 699, false},
      {"one byte of room", 700, 1, false},        {"no room", 700, 0, false},
      {"2000 bytes", 2000, 2000, true},           {"2001 bytes, whatever the room", 2001, 4000, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const Value value = setValue(row.size);
    if (row.fits) expectRead(row.capacity, value);
    if (!row.fits) expectRefused(CKR_BUFFER_TOO_SMALL, row.capacity);
  }
}

TEST_F(CertBlobByLabel, ReportsTheLengthOfAValueTooLongToBeFetched) {
  for (const std::size_t size : {1999U, 2000U, 2001U, 9000U}) {
    SCOPED_TRACE(size);
    setValue(size);
    expectLength(CKR_OK, size);
    EXPECT_EQ(script.countOf("C_GetAttributeValue"), size < 2000 ? 3U : 1U);
  }
  script.deviations.claimedLengths[CKA_VALUE] = {1UL << 40U};
  expectLength(CKR_OK, 1UL << 40U);
  EXPECT_LE(memory->largestRequest(), 2000U);
}

TEST_F(CertBlobByLabel, JudgesTheLengthThatEachReadReports) {
  const struct {
    const char* what;
    Claims claims;
    CK_RV answer = CKR_BUFFER_TOO_SMALL;
  } rows[] = {
      {"more than the room", {1500}},
      {"one too many on the second read", {80, 81}},
      {"low 32 bits small on the second read", {80, 0x100000010}},
      {"empty", {0}, CKR_ATTRIBUTE_VALUE_INVALID},
      {"unavailable on the second read", {80, kAllOnes}, kRereadFailed | CKR_ATTRIBUTE_VALUE_INVALID},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_VALUE] = row.claims;
    expectRefused(row.answer, 100);
  }
}

}  // namespace
}  // namespace mirel::test
