#include <algorithm>
#include <array>
#include <numeric>
#include <vector>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The most handles that one search keeps.
constexpr CK_ULONG kMostKept = 256;

/// In outputs, where nothing was written.
constexpr CK_OBJECT_HANDLE kUntouched = 0xABCD;

class FindObjectsUnloaded : public UnloadedBridgeTest {};

TEST_F(FindObjectsUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_FindObjects(5, nullptr, 0, nullptr, nullptr, 1), CK_RV{0x190});
  CK_ULONG count = 9;
  EXPECT_EQ(bridge.pkcs11_FindObjects(5, nullptr, 0, nullptr, &count, 1), CK_RV{0x190});
  EXPECT_EQ(count, 9U);
}

class FindObjects : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    found.fill(kUntouched);
  }

  /// Searches for certificates into `found`.
  CK_RV findCertificates(CK_ULONG maxObjects) { return findCertificates(found.data(), maxObjects); }
  CK_RV findCertificates(CK_OBJECT_HANDLE* out, CK_ULONG maxObjects) {
    CK_OBJECT_CLASS wanted = CKO_CERTIFICATE;
    CK_ATTRIBUTE filter{CKA_CLASS, &wanted, sizeof wanted};
    return bridge.pkcs11_FindObjects(session, &filter, 1, out, &count, maxObjects);
  }

  /// Certificates with the handles 24, 25, ... besides the card's own, 23.
  void addCertificates(std::size_t number) {
    for (std::size_t i = 0; i < number; ++i) {
      script.addObject(certificate(bytesOf("01"), bytesOf("MyKey"), patternValue(10, 1)));
    }
  }

  CK_ULONG count = 99;
  std::array<CK_OBJECT_HANDLE, 300> found{};
};

TEST_F(FindObjects, RefusesANullCountWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_FindObjects(session, nullptr, 0, found.data(), nullptr, 1), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(FindObjects, AsksForOneHandleAtATimeUntilThereIsNone) {
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_FindObjectsInit(5, [CKA_CLASS=0100000000000000])", "C_FindObjects(5, 1)",
                          "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)"));
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(found[0], kCertificate);
  EXPECT_EQ(found[1], kUntouched);
}

TEST_F(FindObjects, HandsSessionTemplateAndCountOn) {
  CK_OBJECT_CLASS wanted = CKO_PUBLIC_KEY;
  CK_BBOOL onToken = CK_TRUE;
  CK_ATTRIBUTE filter[] = {{CKA_TOKEN, &onToken, sizeof onToken}, {CKA_CLASS, &wanted, sizeof wanted}};
  EXPECT_EQ(bridge.pkcs11_FindObjects(session, filter, 2, found.data(), &count, 20), CKR_OK);
  EXPECT_EQ(script.callTexts().front(), "C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_CLASS=0200000000000000])");
  EXPECT_EQ(found[0], kPublicKey);
}

TEST_F(FindObjects, FindsEverythingWithoutATemplate) {
  EXPECT_EQ(bridge.pkcs11_FindObjects(session, nullptr, 0, found.data(), &count, 20), CKR_OK);
  EXPECT_EQ(script.callTexts().front(), "C_FindObjectsInit(5, null, 0)");
  EXPECT_EQ(count, 2U);  // the private key does not show before a login
}

TEST_F(FindObjects, KeepsTheModulesOrder) {
  addCertificates(2);
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 3U);
  EXPECT_EQ(found[0], 23U);
  EXPECT_EQ(found[1], 24U);
  EXPECT_EQ(found[2], 25U);
  EXPECT_EQ(found[3], kUntouched);
}

TEST_F(FindObjects, ReturnsOneOfThreeWhenAskedForOne) {
  addCertificates(2);
  EXPECT_EQ(findCertificates(1), CKR_OK);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(found[0], kCertificate);
  EXPECT_EQ(found[1], kUntouched);
  // The second handle is fetched, then dropped.
  EXPECT_EQ(script.countOf("C_FindObjects"), 2U);
  EXPECT_EQ(script.countOf("C_FindObjectsFinal"), 1U);
}

TEST_F(FindObjects, KeepsNothingWhenAskedForNone) {
  EXPECT_EQ(findCertificates(0), CKR_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(found[0], kUntouched);
}

TEST_F(FindObjects, FindsNothingOnACardWithoutSuchObjects) {
  script.card().objects.clear();
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(found[0], kUntouched);
}

TEST_F(FindObjects, KeepsNoMoreThanItsOwnLimit) {
  addCertificates(299);
  for (const CK_ULONG asked : {CK_ULONG{257}, CK_ULONG{1000}, CK_ULONG{1} << 60U, kAllOnes}) {
    SCOPED_TRACE(asked);
    found.fill(kUntouched);
    EXPECT_EQ(findCertificates(asked), CKR_OK);
    EXPECT_EQ(count, kMostKept);
    EXPECT_EQ(found[kMostKept - 1], kCertificate + kMostKept - 1);
    EXPECT_EQ(found[kMostKept], kUntouched);
  }
}

TEST_F(FindObjects, KeepsExactlyAsManyAsAskedFor) {
  addCertificates(299);
  EXPECT_EQ(findCertificates(160), CKR_OK);
  EXPECT_EQ(count, 160U);
  EXPECT_EQ(found[160], kUntouched);
}

TEST_F(FindObjects, CountsWithoutAnOutput) {
  addCertificates(2);
  EXPECT_EQ(findCertificates(nullptr, 20), CKR_OK);
  EXPECT_EQ(count, 3U);
  EXPECT_EQ(findCertificates(nullptr, 2), CKR_OK);
  EXPECT_EQ(count, 2U);
}

TEST_F(FindObjects, AnswersWhyASearchCannotStartAndLeavesTheCount) {
  script.failCallOf("C_FindObjectsInit", 0, kSomeFailure, Times::kFromThenOn);
  EXPECT_EQ(findCertificates(20), kSomeFailure);
  EXPECT_EQ(findCertificates(nullptr, 20), kSomeFailure);
  EXPECT_EQ(count, 99U);
  EXPECT_EQ(script.countOf("C_FindObjects"), 0U);
  EXPECT_EQ(script.countOf("C_FindObjectsFinal"), 0U);
}

TEST_F(FindObjects, LeavesTheHandleToTheModule) {
  session = 0;
  EXPECT_EQ(findCertificates(20), CKR_SESSION_HANDLE_INVALID);
  session = kAllOnes;
  EXPECT_EQ(findCertificates(20), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 2U);
}

TEST_F(FindObjects, ReportsAFailureInTheMiddleWithTheHandlesFoundBefore) {
  addCertificates(4);
  script.failCallOf("C_FindObjects", 2, kSomeFailure);
  EXPECT_EQ(findCertificates(20), kSomeFailure);
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(found[0], 23U);
  EXPECT_EQ(found[1], 24U);
  EXPECT_EQ(found[2], kUntouched);
  EXPECT_EQ(script.countOf("C_FindObjectsFinal"), 1U);
}

TEST_F(FindObjects, CountsWhatItFoundBeforeAFailure) {
  addCertificates(4);
  script.failCallOf("C_FindObjects", 2, kSomeFailure);
  EXPECT_EQ(findCertificates(nullptr, 20), CKR_OK);
  EXPECT_EQ(count, 2U);
}

TEST_F(FindObjects, AnswersOkWhenItOnlyCountsAndTheFirstFetchFails) {
  script.failCallOf("C_FindObjects", 0, kSomeFailure);
  EXPECT_EQ(findCertificates(nullptr, 20), CKR_OK);
  EXPECT_EQ(count, 0U);
}

TEST_F(FindObjects, ReportsAFailureOfTheFirstFetch) {
  script.failCallOf("C_FindObjects", 0, kSomeFailure);
  EXPECT_EQ(findCertificates(20), kSomeFailure);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(found[0], kUntouched);
  EXPECT_EQ(script.countOf("C_FindObjectsFinal"), 1U);
}

TEST_F(FindObjects, IgnoresAFailureToEndTheSearch) {
  script.failCallOf("C_FindObjectsFinal", 0, kSomeFailure);
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 1U);
  script.closeSession(session);
  leavesOpen({});
}

TEST_F(FindObjects, DoesNotKeepAHandleOfAFailingFetch) {
  script.hook<&CK_FUNCTION_LIST::C_FindObjects>(
      [](auto, CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG, CK_ULONG* number) {
        *objects = 4711;
        *number = 1;
        return kSomeFailure;
      });
  EXPECT_EQ(findCertificates(20), kSomeFailure);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(found[0], kUntouched);
}

TEST_F(FindObjects, StopsWhenTheModuleReportsMoreThanWasAskedFor) {
  addCertificates(10);
  for (const CK_ULONG claimed : {CK_ULONG{2}, CK_ULONG{5}, CK_ULONG{1} << 60U, kAllOnes}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    script.deviations.foundPerCall = claimed;
    EXPECT_EQ(findCertificates(20), CKR_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(found[0], kUntouched);
    EXPECT_EQ(script.countOf("C_FindObjects"), 1U);
  }
}

TEST_F(FindObjects, EndsOnAModuleThatNeverEnds) {
  script.deviations.endlessSearches = true;
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 20U);
  EXPECT_EQ(script.countOf("C_FindObjects"), 21U);
  EXPECT_EQ(found[20], kUntouched);

  EXPECT_EQ(findCertificates(nullptr, kAllOnes), CKR_OK);
  EXPECT_EQ(count, kMostKept);
}

TEST_F(FindObjects, FindsNothingWhenTheModuleAnswersWithoutWriting) {
  script.deviations.silent = {"C_FindObjects"};
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(script.countOf("C_FindObjects"), 1U);
}

TEST_F(FindObjects, DoesNotCountTheLastHandleAgainWhenTheModuleStopsWriting) {
  int calls = 0;
  script.hook<&CK_FUNCTION_LIST::C_FindObjects>(
      [&](auto real, CK_SESSION_HANDLE in, CK_OBJECT_HANDLE* objects, CK_ULONG most, CK_ULONG* number) {
        return calls++ == 0 ? real(in, objects, most, number) : CKR_OK;
      });
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 1U);
}

TEST_F(FindObjects, KeepsZeroForAHandleThatTheModuleDidNotWrite) {
  int calls = 0;
  script.hook<&CK_FUNCTION_LIST::C_FindObjects>(
      [&](auto, CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG, CK_ULONG* number) {
        if (calls == 0) *objects = 55;
        *number = calls < 2 ? 1 : 0;
        ++calls;
        return CKR_OK;
      });
  EXPECT_EQ(findCertificates(20), CKR_OK);
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(found[0], 55U);
  EXPECT_EQ(found[1], 0U);
}

TEST_F(FindObjects, SurvivesEveryFailingCall) {
  for (const bool withOutput : {true, false}) {
    SCOPED_TRACE(withOutput ? "with an output" : "counting");
    forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
      openAgain();
      addCertificates(2);
      count = 99;
      found.fill(kUntouched);
      point.arm();
      const CK_RV rv = findCertificates(withOutput ? found.data() : nullptr, 20);

      // 0: C_FindObjectsInit, 1 to 4: C_FindObjects, 5: C_FindObjectsFinal.
      const bool starts = !point.fired() || point.n() > 0;
      const bool fetchFails = point.fired() && point.n() >= 1 && point.n() <= 4;
      const CK_ULONG kept = fetchFails ? std::min<CK_ULONG>(point.n() - 1, 3) : 3;
      EXPECT_EQ(rv, !starts || (fetchFails && withOutput) ? kSomeFailure : CKR_OK);
      EXPECT_EQ(count, starts ? kept : 99U);
      if (withOutput && starts) {
        EXPECT_EQ(found[kept], kUntouched);
      }
      if (withOutput && starts && kept > 0) {
        EXPECT_EQ(found[kept - 1], kCertificate + kept - 1);
      }
      EXPECT_EQ(script.countOf("C_FindObjectsFinal"), starts ? 1U : 0U);
      const bool finalFails = point.fired() && (point.n() == 5 || point.times() == Times::kFromThenOn);
      EXPECT_EQ(script.openSearches().empty(), !starts || !finalFails);
      EXPECT_EQ(memory->outstanding(), 0U);
    });
  }
}

TEST_F(FindObjects, SurvivesEveryFailingAllocation) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    openAgain();
    point.arm();
    const CK_RV rv = findCertificates(20);
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
    EXPECT_THAT(script.openSearches(), IsEmpty());
  });
}

}  // namespace
}  // namespace mirel::test
