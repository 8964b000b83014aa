/// Reading several attributes at once, and what a failure leaves of the caller's buffers.

#include <array>
#include <cstring>
#include <set>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

constexpr CK_RV kUnavailableOnReread = kRereadFailed | CKR_ATTRIBUTE_VALUE_INVALID;

CK_ATTRIBUTE lengthOf(CK_ATTRIBUTE_TYPE type) { return {type, nullptr, 0}; }

class ReadAttributes : public SessionTest {
 protected:
  void TearDown() override {
    giveBack();
    SessionTest::TearDown();
  }

  /// Reads from the certificate, with more than enough room unless told otherwise.
  CK_RV read(std::span<CK_ATTRIBUTE> attributes, CK_ULONG maxCount = 10, CK_ULONG maxValueLen = 10000) {
    const CK_RV rv = bridge.pkcs11_getObjsAttriValue(session, kCertificate, attributes.data(),
                                                     attributes.size(), maxCount, maxValueLen);
    for (const CK_ATTRIBUTE& attribute : attributes) left_.insert(attribute.pValue);
    return rv;
  }

  /// An entry with a buffer from the memory that the bridge releases buffers to. What the bridge leaves of
  /// them is given back at the end, or before.
  CK_ATTRIBUTE lent(CK_ATTRIBUTE_TYPE type, std::size_t size) { return {type, memory->allocate(size), size}; }
  void giveBack() {
    for (void* const buffer : left_) memory->release(buffer);
    left_.clear();
    EXPECT_EQ(memory->outstanding(), 0U);
  }

  static bool isCleared(const CK_ATTRIBUTE& attribute) {
    return attribute.pValue == nullptr && attribute.ulValueLen == 0;
  }

 private:
  std::set<void*> left_;
};

TEST_F(ReadAttributes, ReadsLengthsWithOneCall) {
  std::array attributes{lengthOf(CKA_LABEL), lengthOf(CKA_VALUE)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetAttributeValue(5, 23, [CKA_LABEL null 0, CKA_VALUE null 0])"));
  EXPECT_EQ(attributes[0].ulValueLen, 5U);
  EXPECT_EQ(attributes[1].ulValueLen, 700U);
}

TEST_F(ReadAttributes, ReadsAllEntriesOnceAndOnceMoreForEachBufferWithoutOfferingMoreThanWasReported) {
  std::array attributes{lent(CKA_LABEL, 33), lengthOf(CKA_VALUE), lent(CKA_ID, 2)};
  EXPECT_EQ(read(attributes), CKR_OK);
  const std::string again =
      "C_GetAttributeValue(5, 23, [CKA_LABEL room 5, CKA_VALUE null 700, CKA_ID room 2])";
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetAttributeValue(5, 23, [CKA_LABEL room 33, CKA_VALUE null 0, CKA_ID room 2])",
                          again, again));
  EXPECT_EQ(std::memcmp(attributes[0].pValue, "MyKey", 5), 0);
  EXPECT_EQ(attributes[0].ulValueLen, 5U);
  EXPECT_EQ(std::memcmp(attributes[2].pValue, "01", 2), 0);
}

TEST_F(ReadAttributes, AsksForNothingWhenThereAreNoEntriesAndAnswersItsFailure) {
  CK_ATTRIBUTE none{};
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, &none, 0, 1, 10), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 23, [])"));
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, &none, 0, 1, 10), kSomeFailure);
}

TEST_F(ReadAttributes, RefusesANullTemplateThatClaimsEntriesWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, nullptr, 1, 1, 10), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, nullptr, 2, 1, 10), CKR_FUNCTION_FAILED);
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(ReadAttributes, LeavesHandlesAndAttributesToTheModule) {
  const struct {
    const char* what;
    CK_SESSION_HANDLE session;
    CK_OBJECT_HANDLE object;
    CK_ATTRIBUTE_TYPE type;
    CK_RV answer;
  } rows[] = {
      {"session 0", 0, kCertificate, CKA_ID, CKR_SESSION_HANDLE_INVALID},
      {"object 0", session, 0, CKA_ID, CKR_OBJECT_HANDLE_INVALID},
      {"object all-ones", session, kAllOnes, CKA_ID, CKR_OBJECT_HANDLE_INVALID},
      {"missing", session, kCertificate, CKA_MODULUS, CKR_ATTRIBUTE_TYPE_INVALID},
      {"sensitive", session, kPrivateKey, CKA_PRIVATE_EXPONENT, CKR_ATTRIBUTE_SENSITIVE},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    CK_ATTRIBUTE attribute = lengthOf(row.type);
    EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(row.session, row.object, &attribute, 1, 1, 1000), row.answer);
  }
}

// ---- Failures, and what they leave of the buffers ----

TEST_F(ReadAttributes, RefusesMoreEntriesThanAllowedWithoutACallAndReleasesTheSecond) {
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2), lent(CKA_VALUE, 700)};
  EXPECT_EQ(read(attributes, 2), CKR_FUNCTION_FAILED);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_NE(attributes[0].pValue, nullptr);
  EXPECT_TRUE(isCleared(attributes[1]));
  EXPECT_NE(attributes[2].pValue, nullptr);
}

TEST_F(ReadAttributes, TakesAsManyEntriesAndBytesAsAllowedAndRefusesALongerValueOnTheSecondRead) {
  std::array attributes{lengthOf(CKA_LABEL), lent(CKA_VALUE, 700)};
  EXPECT_EQ(read(attributes, 2, 700), CKR_OK);
  script.forgetCalls();
  EXPECT_EQ(read(std::span{attributes}.last(1), 1, 699), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(script.calls().size(), 2U);
}

TEST_F(ReadAttributes, AppliesNoLimitToLengthsAlone) {
  for (const CK_ULONG claimed : {CK_ULONG{700}, CK_ULONG{1} << 40U, kAllOnes - 1}) {
    SCOPED_TRACE(claimed);
    script.deviations.claimedLengths[CKA_VALUE] = {claimed};
    std::array attributes{lengthOf(CKA_VALUE)};
    EXPECT_EQ(read(attributes, 1, 10), CKR_OK);
    EXPECT_EQ(attributes[0].ulValueLen, claimed);
  }
}

TEST_F(ReadAttributes, ReleasesTheBuffersBehindTheFirstUpToTheEntryBehindTheFailure) {
  // Four entries with buffers. Call 0 is the first read, call i + 1 the second read for entry i.
  constexpr std::size_t kNumReleased[] = {1, 1, 2, 3, 3};
  for (std::size_t n = 0; n < std::size(kNumReleased); ++n) {
    SCOPED_TRACE(n);
    script.failCall(n, kSomeFailure);
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2), lent(CKA_VALUE, 700), lent(CKA_CLASS, 8)};
    EXPECT_EQ(read(attributes), n == 0 ? kSomeFailure : kRereadFailed | kSomeFailure);
    for (std::size_t i = 0; i < attributes.size(); ++i) {
      SCOPED_TRACE(i);
      const bool isReleased = i >= 1 && i <= kNumReleased[n];
      EXPECT_EQ(isCleared(attributes[i]), isReleased);
      EXPECT_EQ(attributes[i].pValue == nullptr, isReleased);
    }
    giveBack();
  }
}

TEST_F(ReadAttributes, ReleasesNothingOfATemplateOfOneEntry) {
  // Not from the bridge's memory: giving it back would fail the test.
  CK_BYTE room[5];
  for (const std::size_t n : {0U, 1U}) {
    SCOPED_TRACE(n);
    script.failCall(n, kSomeFailure);
    CK_ATTRIBUTE attribute{CKA_LABEL, room, sizeof room};
    EXPECT_NE(bridge.pkcs11_getObjsAttriValue(session, kCertificate, &attribute, 1, 1, 10), CKR_OK);
    EXPECT_EQ(attribute.pValue, room);
  }
}

TEST_F(ReadAttributes, LeavesEntriesWithoutABufferAloneWhenItCleansUp) {
  std::array attributes{lengthOf(CKA_LABEL), lengthOf(CKA_ID), lent(CKA_VALUE, 700)};
  script.failCall(1, kSomeFailure);
  EXPECT_EQ(read(attributes), kRereadFailed | kSomeFailure);
  EXPECT_EQ(attributes[1].pValue, nullptr);
  EXPECT_EQ(attributes[1].ulValueLen, 2U);
  EXPECT_TRUE(isCleared(attributes[2]));
}

// ---- Modules that lie about lengths ----

TEST_F(ReadAttributes, JudgesTheLengthThatEachReadReports) {
  // One entry, the label of 5 bytes.
  using Claims = std::vector<std::optional<CK_ULONG>>;
  const struct {
    const char* what;
    Claims claims;
    CK_RV answer;
    std::size_t room = 33;
    std::size_t numCalls = 2;
  } rows[] = {
      {"empty", {0}, CKR_ATTRIBUTE_VALUE_INVALID, 33, 1},
      {"empty, only the length", {0}, CKR_ATTRIBUTE_VALUE_INVALID, 0, 1},
      {"all-ones", {kAllOnes}, CKR_ATTRIBUTE_VALUE_INVALID, 33, 1},
      {"all-ones, only the length", {kAllOnes}, CKR_ATTRIBUTE_VALUE_INVALID, 0, 1},
      {"an honest value that does not fit", {}, CKR_BUFFER_TOO_SMALL, 4, 1},
      {"one more than the buffer", {34}, CKR_BUFFER_TOO_SMALL, 33, 1},
      {"5000", {5000}, CKR_BUFFER_TOO_SMALL, 33, 1},
      {"low 32 bits small", {0x100000010}, CKR_BUFFER_TOO_SMALL, 33, 1},
      {"nearly all-ones", {kAllOnes - 1}, CKR_BUFFER_TOO_SMALL, 33, 1},
      {"empty when read again", {5, 0}, kUnavailableOnReread},
      {"all-ones when read again", {5, kAllOnes}, kUnavailableOnReread},
      {"one more when read again", {5, 6}, CKR_BUFFER_TOO_SMALL},
      {"more than the buffer when read again", {5, 34}, CKR_BUFFER_TOO_SMALL},
      {"low 32 bits the same when read again", {5, 0x100000005}, CKR_BUFFER_TOO_SMALL},
      {"nearly all-ones when read again", {5, kAllOnes - 1}, CKR_BUFFER_TOO_SMALL},
      {"less when read again", {5, 3}, CKR_OK},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_LABEL] = row.claims;
    std::array attributes{row.room > 0 ? lent(CKA_LABEL, row.room) : lengthOf(CKA_LABEL)};
    EXPECT_EQ(read(attributes, 1, kAllOnes), row.answer);
    EXPECT_EQ(script.calls().size(), row.numCalls);
    if (row.answer == CKR_OK) {
      EXPECT_EQ(attributes[0].ulValueLen, 3U);
    }
    giveBack();
  }
}

TEST_F(ReadAttributes, MarksAValueThatReallyGrewBetweenTheReads) {
  script.deviations.valuesInTurn[CKA_LABEL] = {bytesOf("short"), bytesOf("much longer")};
  std::array attributes{lent(CKA_LABEL, 33)};
  EXPECT_EQ(read(attributes), kRereadFailed | CKR_BUFFER_TOO_SMALL);
}

TEST_F(ReadAttributes, JudgesEachEntryByTheReadsForTheOthersToo) {
  // Two entries: the label, then one with a buffer of 20 bytes and a value of 20 bytes.
  const struct {
    const char* what;
    CK_ATTRIBUTE_TYPE type;
    std::vector<std::optional<CK_ULONG>> claims;
    CK_RV answer;
  } rows[] = {
      {"the second unavailable in that for the first",
       CKA_VALUE,
       {{}, kAllOnes},
       CKR_ATTRIBUTE_VALUE_INVALID},
      {"the second unavailable in its own", CKA_VALUE, {{}, {}, kAllOnes}, kUnavailableOnReread},
      {"the second too long at first", CKA_VALUE, {5000, 20}, CKR_OK},
      {"the second too long at first and afterwards", CKA_VALUE, {5000, 700}, CKR_BUFFER_TOO_SMALL},
      {"the second one too long for a while", CKA_VALUE, {20, 21, 20}, CKR_BUFFER_TOO_SMALL},
      {"the second too long for a while", CKA_VALUE, {20, 5000, 20}, CKR_BUFFER_TOO_SMALL},
      {"the first too long in the read for the second", CKA_LABEL, {5, 5, 5000}, CKR_BUFFER_TOO_SMALL},
  };
  script.object(kCertificate).attributes[CKA_VALUE] = patternValue(20, 3);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    script.deviations.claimedLengths = {{row.type, row.claims}};
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_VALUE, 20)};
    EXPECT_EQ(read(attributes), row.answer);
    // No call offers a buffer larger than it is.
    EXPECT_THAT(script.callTexts(), Each(EndsWith("[CKA_LABEL room 5, CKA_VALUE room 20])")));
    giveBack();
  }
}

TEST_F(ReadAttributes, FollowsNoPointerAndTypeThatTheModuleExchanged) {
  for (const CK_RV answer : {CKR_OK, kSomeFailure}) {
    SCOPED_TRACE(answer);
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
        [answer](auto real, auto in, auto of, CK_ATTRIBUTE* entries, CK_ULONG number) {
          (void)real(in, of, entries, number);
          for (CK_ULONG i = 0; i < number; ++i)
            entries[i] = {CKA_PRIVATE_EXPONENT, nullptr, entries[i].ulValueLen};
          return answer;
        });
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2)};
    void* const first = attributes[0].pValue;
    EXPECT_EQ(read(attributes), answer);
    EXPECT_EQ(attributes[0].pValue, first);
    EXPECT_EQ(attributes[0].type, CKA_LABEL);
    giveBack();
  }
}

TEST_F(ReadAttributes, KeepsTheBuffersZeroedWhenTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetAttributeValue"};
  std::array lengths{lengthOf(CKA_LABEL)};
  EXPECT_EQ(read(lengths), CKR_ATTRIBUTE_VALUE_INVALID);
  std::array attributes{lent(CKA_LABEL, 5)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_EQ(attributes[0].ulValueLen, 5U);
  EXPECT_EQ(std::memcmp(attributes[0].pValue, "\0\0\0\0\0", 5), 0);
}

}  // namespace
}  // namespace mirel::test
