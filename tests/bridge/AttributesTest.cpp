#include <array>
#include <cstring>
#include <vector>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_RV kReread = 0x80000000;

CK_ATTRIBUTE lengthOf(CK_ATTRIBUTE_TYPE type) { return {type, nullptr, 0}; }

class ReadAttributesUnloaded : public UnloadedBridgeTest {};

TEST_F(ReadAttributesUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(5, 21, nullptr, 3, 1, 10), CK_RV{0x190});
}

class ReadAttributes : public SessionTest {
 protected:
  /// Reads from the certificate, with more than enough room unless told otherwise.
  CK_RV read(std::span<CK_ATTRIBUTE> attributes, CK_ULONG maxCount = 10, CK_ULONG maxValueLen = 10000) {
    return bridge.pkcs11_getObjsAttriValue(session, kCertificate, attributes.data(), attributes.size(),
                                           maxCount, maxValueLen);
  }

  /// An entry with a buffer from the memory that the bridge releases buffers to.
  CK_ATTRIBUTE lent(CK_ATTRIBUTE_TYPE type, std::size_t size) { return {type, memory->allocate(size), size}; }

  /// Gives back what the bridge has left.
  void giveBack(std::span<CK_ATTRIBUTE> attributes) {
    for (const CK_ATTRIBUTE& attribute : attributes) memory->release(attribute.pValue);
  }

  static bool isCleared(const CK_ATTRIBUTE& attribute) {
    return attribute.pValue == nullptr && attribute.ulValueLen == 0;
  }
};

TEST_F(ReadAttributes, ReadsLengthsWithOneCall) {
  std::array attributes{lengthOf(CKA_LABEL), lengthOf(CKA_ID), lengthOf(CKA_VALUE)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetAttributeValue(5, 23, [CKA_LABEL null 0, CKA_ID null 0, CKA_VALUE null 0])"));
  EXPECT_EQ(attributes[0].ulValueLen, 5U);
  EXPECT_EQ(attributes[1].ulValueLen, 2U);
  EXPECT_EQ(attributes[2].ulValueLen, 700U);
}

TEST_F(ReadAttributes, ReadsValuesWithOneCallMoreThanThereAreBuffers) {
  std::array attributes{lent(CKA_LABEL, 5), lengthOf(CKA_VALUE), lent(CKA_ID, 2)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_EQ(script.callTexts().front(),
            "C_GetAttributeValue(5, 23, [CKA_LABEL room 5, CKA_VALUE null 0, CKA_ID room 2])");
  EXPECT_EQ(script.calls().size(), 3U);
  EXPECT_EQ(std::memcmp(attributes[0].pValue, "MyKey", 5), 0);
  EXPECT_EQ(std::memcmp(attributes[2].pValue, "01", 2), 0);
  giveBack(attributes);
}

TEST_F(ReadAttributes, AsksForAllEntriesEachTime) {
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2)};
  EXPECT_EQ(read(attributes), CKR_OK);
  constexpr const char* kCall = "C_GetAttributeValue(5, 23, [CKA_LABEL room 5, CKA_ID room 2])";
  EXPECT_THAT(script.callTexts(), ElementsAre(kCall, kCall, kCall));
  giveBack(attributes);
}

TEST_F(ReadAttributes, ReportsTheLengthOfAValueThatDoesNotFillItsBuffer) {
  std::array attributes{lent(CKA_LABEL, 33)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_EQ(attributes[0].ulValueLen, 5U);
  giveBack(attributes);
}

TEST_F(ReadAttributes, OffersNoMoreOnTheSecondReadThanTheFirstReported) {
  std::array attributes{lent(CKA_LABEL, 33)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 23, [CKA_LABEL room 33])",
                                              "C_GetAttributeValue(5, 23, [CKA_LABEL room 5])"));
  giveBack(attributes);
}

TEST_F(ReadAttributes, AsksForNothingWhenThereAreNoEntries) {
  CK_ATTRIBUTE none{};
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, &none, 0, 1, 10), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 23, [])"));
}

TEST_F(ReadAttributes, AnswersAFailureEvenWhenThereAreNoEntries) {
  CK_ATTRIBUTE none{};
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, &none, 0, 1, 10), kSomeFailure);
}

TEST_F(ReadAttributes, RefusesANullTemplateThatClaimsEntries) {
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kCertificate, nullptr, 1, 1, 10), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(ReadAttributes, LeavesTheHandlesToTheModule) {
  CK_ATTRIBUTE attribute = lengthOf(CKA_ID);
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(0, kCertificate, &attribute, 1, 1, 10),
            CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, 0, &attribute, 1, 1, 10), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, kAllOnes, &attribute, 1, 1, 10),
            CKR_OBJECT_HANDLE_INVALID);
}

// ---- Failures, and what they leave of the buffers ----

TEST_F(ReadAttributes, RefusesMoreEntriesThanAllowedWithoutACallAndReleasesTheSecond) {
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2), lent(CKA_VALUE, 700)};
  EXPECT_EQ(read(attributes, 2), CK_RV{6});
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_NE(attributes[0].pValue, nullptr);
  EXPECT_TRUE(isCleared(attributes[1]));
  EXPECT_NE(attributes[2].pValue, nullptr);
  giveBack(attributes);
}

TEST_F(ReadAttributes, AllowsExactlyAsManyEntriesAsAllowed) {
  std::array attributes{lengthOf(CKA_LABEL), lengthOf(CKA_ID)};
  EXPECT_EQ(read(attributes, 2), CKR_OK);
}

TEST_F(ReadAttributes, AnswersAFailureOfTheFirstReadAndReleasesTheSecondBuffer) {
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2), lent(CKA_VALUE, 700)};
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(read(attributes), kSomeFailure);
  EXPECT_EQ(script.calls().size(), 1U);
  EXPECT_NE(attributes[0].pValue, nullptr);
  EXPECT_TRUE(isCleared(attributes[1]));
  EXPECT_NE(attributes[2].pValue, nullptr);
  giveBack(attributes);
}

TEST_F(ReadAttributes, LooksAtNoLengthAfterAFailingRead) {
  // A missing attribute: its length is all-ones, the module's code counts.
  std::array attributes{lengthOf(CKA_MODULUS), lengthOf(CKA_ID)};
  EXPECT_EQ(read(attributes), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(ReadAttributes, AnswersWhatACompliantModuleAnswers) {
  const struct {
    const char* name;
    CK_OBJECT_HANDLE object;
    CK_ATTRIBUTE_TYPE type;
    CK_RV expected;
  } rows[] = {
      {"missing", kCertificate, CKA_MODULUS, 0x12},
      {"sensitive", kPrivateKey, CKA_PRIVATE_EXPONENT, 0x11},
      {"no such object", 4711, CKA_ID, 0x82},
  };
  script.card().privateObjectsNeedLogin = false;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    CK_ATTRIBUTE attribute = lengthOf(row.type);
    EXPECT_EQ(bridge.pkcs11_getObjsAttriValue(session, row.object, &attribute, 1, 1, 1000), row.expected);
  }
}

TEST_F(ReadAttributes, AnswersBufferTooSmallWhereTheValueDoesNotFit) {
  std::array attributes{lent(CKA_LABEL, 4)};
  EXPECT_EQ(read(attributes), CK_RV{0x150});
  EXPECT_EQ(script.calls().size(), 1U);
  giveBack(attributes);
}

TEST_F(ReadAttributes, RefusesLengthsOfZeroAndAllOnesOnTheFirstRead) {
  for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
    for (const bool withBuffer : {false, true}) {
      SCOPED_TRACE(claimed);
      SCOPED_TRACE(withBuffer);
      script.deviations.claimedLengths[CKA_LABEL] = {claimed};
      std::array attributes{withBuffer ? lent(CKA_LABEL, 33) : lengthOf(CKA_LABEL)};
      EXPECT_EQ(read(attributes), CK_RV{0x13});
      giveBack(attributes);
    }
  }
}

TEST_F(ReadAttributes, RefusesLengthsOfZeroAndAllOnesOnTheSecondRead) {
  for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_LABEL] = {std::nullopt, claimed};
    std::array attributes{lent(CKA_LABEL, 33)};
    EXPECT_EQ(read(attributes), CK_RV{0x80000013});
    giveBack(attributes);
  }
}

TEST_F(ReadAttributes, RefusesAnEmptyValue) {
  script.object(kCertificate).attributes[CKA_LABEL] = {};
  std::array attributes{lengthOf(CKA_LABEL)};
  EXPECT_EQ(read(attributes), CK_RV{0x13});
}

TEST_F(ReadAttributes, MarksAFailureOfTheSecondRead) {
  std::array attributes{lent(CKA_LABEL, 5)};
  script.failCall(1, kSomeFailure);
  EXPECT_EQ(read(attributes), kReread | kSomeFailure);
  giveBack(attributes);
}

TEST_F(ReadAttributes, MarksAValueThatGrewBetweenTheReads) {
  script.deviations.valuesInTurn[CKA_LABEL] = {bytesOf("short"), bytesOf("much longer")};
  std::array attributes{lent(CKA_LABEL, 33)};
  EXPECT_EQ(read(attributes), kReread | CKR_BUFFER_TOO_SMALL);
  giveBack(attributes);
}

TEST_F(ReadAttributes, TakesAValueThatShrankBetweenTheReads) {
  script.deviations.valuesInTurn[CKA_LABEL] = {bytesOf("longer"), bytesOf("now")};
  std::array attributes{lent(CKA_LABEL, 33)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_EQ(attributes[0].ulValueLen, 3U);
  giveBack(attributes);
}

TEST_F(ReadAttributes, RefusesAValueAboveTheLimitOnTheSecondRead) {
  std::array attributes{lent(CKA_VALUE, 700)};
  EXPECT_EQ(read(attributes, 1, 699), CK_RV{0x150});
  EXPECT_EQ(script.calls().size(), 2U);
  giveBack(attributes);
}

TEST_F(ReadAttributes, TakesAValueOfExactlyTheLimit) {
  std::array attributes{lent(CKA_VALUE, 700)};
  EXPECT_EQ(read(attributes, 1, 700), CKR_OK);
  giveBack(attributes);
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

TEST_F(ReadAttributes, ReleasesTheBuffersUpToTheEntryBehindTheFailure) {
  // Four entries with buffers; the second read for entry i fails.
  const struct {
    std::size_t failingEntry;
    std::array<bool, 4> released;
  } rows[] = {
      {0, {false, true, false, false}},
      {1, {false, true, true, false}},
      {2, {false, true, true, true}},
      {3, {false, true, true, true}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.failingEntry);
    script.forgetCalls();
    script.failCall(row.failingEntry + 1, kSomeFailure);
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2), lent(CKA_VALUE, 700), lent(CKA_CLASS, 8)};
    EXPECT_EQ(read(attributes), kReread | kSomeFailure);
    for (std::size_t i = 0; i < attributes.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(isCleared(attributes[i]), row.released[i]);
      if (!row.released[i]) {
        EXPECT_NE(attributes[i].pValue, nullptr);
      }
    }
    giveBack(attributes);
    EXPECT_EQ(memory->outstanding(), 0U);
  }
}

TEST_F(ReadAttributes, ReleasesNothingOfATemplateOfOneEntry) {
  // Not from the bridge's memory: giving it back would fail the test.
  CK_BYTE room[5];
  for (const std::size_t n : {0U, 1U}) {
    SCOPED_TRACE(n);
    script.forgetCalls();
    script.failCall(n, kSomeFailure);
    std::array attributes{CK_ATTRIBUTE{CKA_LABEL, room, sizeof room}};
    EXPECT_NE(read(attributes), CKR_OK);
    EXPECT_EQ(attributes[0].pValue, room);
  }
}

TEST_F(ReadAttributes, LeavesEntriesWithoutABufferAloneWhenItCleansUp) {
  std::array attributes{lengthOf(CKA_LABEL), lengthOf(CKA_ID), lent(CKA_VALUE, 700)};
  script.failCall(1, kSomeFailure);
  EXPECT_EQ(read(attributes), kReread | kSomeFailure);
  EXPECT_EQ(attributes[1].pValue, nullptr);
  EXPECT_EQ(attributes[1].ulValueLen, 2U);
  EXPECT_TRUE(isCleared(attributes[2]));
}

TEST_F(ReadAttributes, StopsAtTheLastEntryWhenItsSecondReadIsUnavailable) {
  // Two entries; the read for entry 1 reports all-ones, and there is no entry behind it.
  script.deviations.claimedLengths[CKA_ID] = {std::nullopt, std::nullopt, kAllOnes};
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2)};
  EXPECT_EQ(read(attributes), CK_RV{0x80000013});
  EXPECT_NE(attributes[0].pValue, nullptr);
  EXPECT_TRUE(isCleared(attributes[1]));
  giveBack(attributes);
}

TEST_F(ReadAttributes, SeesAnEntryThatTheReadForAnotherMadeUnavailable) {
  script.deviations.claimedLengths[CKA_ID] = {std::nullopt, kAllOnes};
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2)};
  EXPECT_EQ(read(attributes), CK_RV{0x13});
  EXPECT_TRUE(isCleared(attributes[1]));
  giveBack(attributes);
}

// ---- A module that claims more than it was offered ----

TEST_F(ReadAttributes, RefusesAFirstReadThatClaimsMoreThanTheBuffer) {
  for (const CK_ULONG claimed :
       {CK_ULONG{21}, CK_ULONG{5000}, CK_ULONG{0x100000010}, CK_ULONG{1} << 40U, kAllOnes - 1}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_VALUE] = {claimed};
    std::array attributes{lent(CKA_VALUE, 20)};
    EXPECT_EQ(read(attributes, 1, 10000), CK_RV{0x150});
    for (const std::string& call : script.callTexts()) {
      EXPECT_THAT(call, ::testing::EndsWith("room 20])"));
    }
    giveBack(attributes);
  }
}

TEST_F(ReadAttributes, RefusesASecondReadThatClaimsMoreThanItWasOffered) {
  for (const CK_ULONG claimed :
       {CK_ULONG{6}, CK_ULONG{34}, CK_ULONG{5000}, CK_ULONG{0x100000005}, kAllOnes - 1}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_LABEL] = {std::nullopt, claimed};
    std::array attributes{lent(CKA_LABEL, 33)};
    EXPECT_EQ(read(attributes, 1, kAllOnes), CK_RV{0x150});
    giveBack(attributes);
  }
}

TEST_F(ReadAttributes, NeverOffersAnyEntryMoreThanItsBuffer) {
  // The first read claims more for the second entry than it has; whatever is made of that, no later
  // call may offer it.
  script.deviations.claimedLengths[CKA_VALUE] = {5000, 700};
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_VALUE, 20)};
  EXPECT_EQ(read(attributes), CK_RV{0x150});
  for (const std::string& call : script.callTexts()) {
    EXPECT_THAT(call, ::testing::EndsWith("CKA_VALUE room 20])"));
  }
  giveBack(attributes);
}

TEST_F(ReadAttributes, ReportsNoLengthAboveABufferOnSuccess) {
  // The read for the first entry claims too much for the second one, which its own read then corrects.
  for (const CK_ULONG claimed : {CK_ULONG{21}, CK_ULONG{5000}}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    script.object(kCertificate).attributes[CKA_VALUE] = patternValue(20, 3);
    script.deviations.claimedLengths[CKA_VALUE] = {20, claimed, 20};
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_VALUE, 20)};
    const CK_RV rv = read(attributes);
    EXPECT_EQ(rv, CK_RV{0x150});
    giveBack(attributes);
  }
}

TEST_F(ReadAttributes, ClaimsForTheFirstEntryDuringTheReadForTheSecondCountToo) {
  script.deviations.claimedLengths[CKA_LABEL] = {5, 5, 5000};
  std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2)};
  const CK_RV rv = read(attributes);
  EXPECT_EQ(rv, CK_RV{0x150});
  giveBack(attributes);
}

TEST_F(ReadAttributes, DoesNotFollowAPointerThatTheModuleExchanged) {
  for (const CK_RV answer : {CKR_OK, kSomeFailure}) {
    SCOPED_TRACE(answer);
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>([answer](auto real, CK_SESSION_HANDLE in,
                                                                 CK_OBJECT_HANDLE of,
                                                                 CK_ATTRIBUTE* attributes, CK_ULONG number) {
      (void)real(in, of, attributes, number);
      for (CK_ULONG i = 0; i < number; ++i) attributes[i].pValue = nullptr;
      return answer;
    });
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2)};
    void* const first = attributes[0].pValue;
    EXPECT_EQ(read(attributes), answer);
    EXPECT_EQ(attributes[0].pValue, first);
    giveBack(attributes);
    EXPECT_EQ(memory->outstanding(), 0U);
  }
}

TEST_F(ReadAttributes, KeepsTheBuffersZeroedWhenTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetAttributeValue"};
  std::array lengths{lengthOf(CKA_LABEL)};
  EXPECT_EQ(read(lengths), CK_RV{0x13});
  std::array attributes{lent(CKA_LABEL, 5)};
  EXPECT_EQ(read(attributes), CKR_OK);
  EXPECT_EQ(attributes[0].ulValueLen, 5U);
  EXPECT_EQ(std::memcmp(attributes[0].pValue, "\0\0\0\0\0", 5), 0);
  giveBack(attributes);
}

TEST_F(ReadAttributes, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    openAgain();
    std::array attributes{lent(CKA_LABEL, 5), lent(CKA_ID, 2), lengthOf(CKA_VALUE)};
    point.arm();
    const CK_RV rv = read(attributes);
    const CK_RV failure = point.n() == 0 ? kSomeFailure : kReread | kSomeFailure;
    EXPECT_EQ(rv, point.fired() ? failure : CKR_OK);
    EXPECT_EQ(script.calls().size(), point.fired() ? point.n() + 1 : 3U);
    EXPECT_NE(attributes[0].pValue, nullptr);
    EXPECT_EQ(isCleared(attributes[1]), point.fired());
    giveBack(attributes);
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

}  // namespace
}  // namespace mirel::test
