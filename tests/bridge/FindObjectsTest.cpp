/// Searching for objects.

#include <array>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

/// The most handles that one search keeps.
constexpr CK_ULONG kMostKept = 256;

/// In outputs, where nothing was written.
constexpr CK_OBJECT_HANDLE kNotWritten = 0xABCD;

class FindObjects : public SessionTest {
 protected:
  FindObjects() { found.fill(kNotWritten); }

  /// Searches for certificates into `found`, or only counts them.
  CK_RV find(CK_ULONG maxObjects) { return find(found.data(), maxObjects); }
  CK_RV count(CK_ULONG maxObjects) { return find(nullptr, maxObjects); }
  CK_RV find(CK_OBJECT_HANDLE* out, CK_ULONG maxObjects) {
    CK_OBJECT_CLASS wanted = CKO_CERTIFICATE;
    CK_ATTRIBUTE filter{CKA_CLASS, &wanted, sizeof wanted};
    return bridge.pkcs11_FindObjects(session, &filter, 1, out, &numFound, maxObjects);
  }

  /// The search has kept that many handles, in the module's order: the card's own, 23, then 26, 27, ...
  void expectFound(CK_ULONG expected) {
    EXPECT_EQ(numFound, expected);
    for (CK_ULONG i = 0; i < expected; ++i) EXPECT_EQ(found[i], i == 0 ? kCertificate : kEcPrivateKey + i);
    EXPECT_EQ(found[expected], kNotWritten);
  }

  void addCertificates(std::size_t number) {
    for (std::size_t i = 0; i < number; ++i) {
      script.addObject(certificate(bytesOf("01"), bytesOf("MyKey"), patternValue(10, 1)));
    }
  }

  CK_ULONG numFound = 99;
  std::array<CK_OBJECT_HANDLE, 300> found{};
};

TEST_F(FindObjects, NeedsACountAndHandsSessionTemplateAndCountOn) {
  EXPECT_EQ(bridge.pkcs11_FindObjects(session, nullptr, 0, found.data(), nullptr, 1), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  CK_OBJECT_CLASS wanted = CKO_PUBLIC_KEY;
  CK_BBOOL onToken = CK_TRUE;
  CK_ATTRIBUTE filter[] = {{CKA_TOKEN, &onToken, sizeof onToken}, {CKA_CLASS, &wanted, sizeof wanted}};
  EXPECT_EQ(bridge.pkcs11_FindObjects(session, filter, 2, found.data(), &numFound, 20), CKR_OK);
  EXPECT_EQ(script.callTexts().front(), "C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_CLASS=0200000000000000])");
  EXPECT_EQ(found[0], kPublicKey);
  EXPECT_EQ(found[1], kEcPublicKey);
}

TEST_F(FindObjects, FindsEverythingWithoutATemplate) {
  EXPECT_EQ(bridge.pkcs11_FindObjects(session, nullptr, 0, found.data(), &numFound, 20), CKR_OK);
  EXPECT_EQ(script.callTexts().front(), "C_FindObjectsInit(5, null, 0)");
  EXPECT_EQ(numFound, 5U);
}

TEST_F(FindObjects, KeepsAsManyAsAskedForAndItsOwnLimitAtMost) {
  addCertificates(299);
  const struct {
    CK_ULONG asked;
    CK_ULONG kept;
  } rows[] = {{0, 0}, {1, 1}, {256, 256}, {257, kMostKept}, {1UL << 60U, kMostKept}, {kAllOnes, kMostKept}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.asked);
    script.forgetCalls();
    found.fill(kNotWritten);
    EXPECT_EQ(find(row.asked), CKR_OK);
    expectFound(row.kept);
    // One more is fetched, then dropped.
    EXPECT_EQ(script.countOf("C_FindObjects"), row.kept + 1);
    EXPECT_EQ(script.countOf("C_FindObjectsFinal"), 1U);
    EXPECT_EQ(count(row.asked), CKR_OK);
    EXPECT_EQ(numFound, row.kept);
  }
}

TEST_F(FindObjects, FindsNothingOnACardWithoutSuchObjects) {
  script.card().objects.clear();
  EXPECT_EQ(find(20), CKR_OK);
  expectFound(0);
}

TEST_F(FindObjects, LeavesTheHandleToTheModuleAndTheCountWhenTheSearchCannotStart) {
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    session = none;
    EXPECT_EQ(find(20), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(count(20), CKR_SESSION_HANDLE_INVALID);
  }
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 4U);
  EXPECT_EQ(numFound, 99U);
}

TEST_F(FindObjects, GivesTheHandlesFoundBeforeAFailureAndEndsTheSearch) {
  addCertificates(4);
  for (const std::size_t n : {0U, 1U, 2U, 5U}) {
    SCOPED_TRACE(n);
    found.fill(kNotWritten);
    script.forgetCalls();
    script.failCallOf("C_FindObjects", n, kSomeFailure);
    EXPECT_EQ(find(20), kSomeFailure);
    expectFound(n);
    EXPECT_EQ(script.countOf("C_FindObjectsFinal"), 1U);
    // Counting succeeds all the same.
    script.failCallOf("C_FindObjects", n, kSomeFailure);
    EXPECT_EQ(count(20), CKR_OK);
    EXPECT_EQ(numFound, n);
  }
}

TEST_F(FindObjects, DoesNotKeepAHandleOfAFailingFetch) {
  script.hook<&CK_FUNCTION_LIST::C_FindObjects>([](auto, auto, auto* objects, auto, auto* number) {
    *objects = 4711;
    *number = 1;
    return kSomeFailure;
  });
  EXPECT_EQ(find(20), kSomeFailure);
  expectFound(0);
}

TEST_F(FindObjects, StopsWhenTheModuleReportsMoreThanWasAskedFor) {
  for (const CK_ULONG claimed : {CK_ULONG{2}, CK_ULONG{5}, CK_ULONG{1} << 60U, kAllOnes}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    script.deviations.foundPerCall = claimed;
    EXPECT_EQ(find(20), CKR_OK);
    expectFound(0);
    EXPECT_EQ(script.countOf("C_FindObjects"), 1U);
  }
}

TEST_F(FindObjects, EndsOnAModuleThatNeverEnds) {
  script.deviations.endlessSearches = true;
  EXPECT_EQ(find(20), CKR_OK);
  EXPECT_EQ(numFound, 20U);
  EXPECT_EQ(script.countOf("C_FindObjects"), 21U);
  EXPECT_EQ(found[20], kNotWritten);
  EXPECT_EQ(count(kAllOnes), CKR_OK);
  EXPECT_EQ(numFound, kMostKept);
}

TEST_F(FindObjects, StopsWhereTheModuleWritesNoNumberAndKeepsZeroForAHandleThatItDidNotWrite) {
  for (const CK_ULONG numWritten : {0U, 1U}) {
    SCOPED_TRACE(numWritten);
    CK_ULONG calls = 0;
    script.hook<&CK_FUNCTION_LIST::C_FindObjects>(
        [&](auto real, auto in, auto* objects, auto most, auto* number) {
          return calls++ < numWritten ? real(in, objects, most, number) : CKR_OK;
        });
    found.fill(kNotWritten);
    EXPECT_EQ(find(20), CKR_OK);
    expectFound(numWritten);
  }
  int calls = 0;
  script.hook<&CK_FUNCTION_LIST::C_FindObjects>([&](auto, auto, auto* objects, auto, auto* number) {
    if (calls == 0) *objects = 55;
    *number = calls++ < 2 ? 1 : 0;
    return CKR_OK;
  });
  EXPECT_EQ(find(20), CKR_OK);
  EXPECT_EQ(numFound, 2U);
  EXPECT_EQ(found[0], 55U);
  EXPECT_EQ(found[1], 0U);
}

}  // namespace
}  // namespace mirel::test
