#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "CryptokiTable.h"
#include "bridge/CryptokiNames.h"

namespace mirel::test {
namespace {

std::size_t rowsThatStartWith(const CryptokiTable& table, std::string_view start) {
  return static_cast<std::size_t>(std::count_if(
      table.begin(), table.end(), [&](const CryptokiRow& row) { return row.name.starts_with(start); }));
}

TEST(CryptokiHeader, AgreesWithTheReferenceInEverySizeOffsetValueAndSignature) {
  const CryptokiTable ours = ourCommonRows();
  const CryptokiTable reference = referenceRows();
  ASSERT_EQ(ours.size(), reference.size());
  for (std::size_t i = 0; i < ours.size(); ++i) {
    SCOPED_TRACE(ours[i].name);
    EXPECT_EQ(ours[i].name, reference[i].name);
    EXPECT_EQ(ours[i].value, reference[i].value);
  }
}

// Guards the derivation of the table: one that finds nothing would compare nothing.
TEST(CryptokiHeader, IsInTheTableWithAllItsKindsOfNames) {
  const CryptokiTable ours = ourCommonRows();
  EXPECT_EQ(rowsThatStartWith(ours, "signature of C_"), 68U);  // the number of functions in v2.40
  EXPECT_EQ(rowsThatStartWith(ours, "offsetof(CK_FUNCTION_LIST, "), 69U);
  EXPECT_EQ(rowsThatStartWith(ours, "offsetof(CK_TOKEN_INFO, "), 18U);
  EXPECT_EQ(rowsThatStartWith(ours, "offsetof(CK_SLOT_INFO, "), 5U);
  EXPECT_EQ(rowsThatStartWith(ours, "offsetof(CK_SESSION_INFO, "), 4U);
  EXPECT_EQ(rowsThatStartWith(ours, "offsetof(CK_ATTRIBUTE, "), 3U);
  EXPECT_EQ(rowsThatStartWith(ours, "offsetof(CK_MECHANISM, "), 3U);
  EXPECT_GE(rowsThatStartWith(ours, "CKR_"), 90U);
  EXPECT_GE(rowsThatStartWith(ours, "CKA_"), 20U);
  EXPECT_GE(rowsThatStartWith(ours, "CKF_"), 20U);
  EXPECT_GE(rowsThatStartWith(ours, "CKM_"), 8U);
  EXPECT_GE(rowsThatStartWith(ours, "sizeof(CK_ULONG)"), 1U);
}

TEST(CryptokiResultName, IsKnownForEveryResultThatTheHeaderDeclares) {
  for (const CryptokiRow& row : ourCommonRows()) {
    if (row.name.starts_with("CKR_")) {
      EXPECT_EQ(cryptokiResultName(std::stoul(row.value)), row.name);
    }
  }
}

TEST(CryptokiHeader, HasTheStandardsValuesWhereTheReferenceLacksTheName) {
  // PKCS #11 v2.40: section 3.2 (token flags), and CK_EC_KDF_TYPE in the elliptic curve mechanisms.
  EXPECT_THAT(ourOtherRows(),
              ::testing::UnorderedElementsAre(
                  CryptokiRow{"CKF_ERROR_STATE", std::to_string(0x01000000)},
                  CryptokiRow{"sizeof(CK_EC_KDF_TYPE)", std::to_string(sizeof(unsigned long))}));
}

}  // namespace
}  // namespace mirel::test
