#include "host/CryptokiNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Name {
  std::uint64_t value;
  std::string name;
};

/// The names in a text of hexadecimal numbers, each with its name behind it.
std::vector<Name> namesIn(const std::string& text) {
  std::istringstream in{text};
  std::vector<Name> names;
  for (Name next; in >> std::hex >> next.value >> next.name;) names.push_back(next);
  return names;
}

/// PKCS #11 v2.40, base specification, section 5.1, with the numbers of its appendix of constants.
const std::vector<Name> kResults = namesIn(R"(
  0 CKR_OK   1 CKR_CANCEL   2 CKR_HOST_MEMORY   3 CKR_SLOT_ID_INVALID   5 CKR_GENERAL_ERROR
  6 CKR_FUNCTION_FAILED   7 CKR_ARGUMENTS_BAD   8 CKR_NO_EVENT   9 CKR_NEED_TO_CREATE_THREADS
  A CKR_CANT_LOCK   10 CKR_ATTRIBUTE_READ_ONLY   11 CKR_ATTRIBUTE_SENSITIVE   12 CKR_ATTRIBUTE_TYPE_INVALID
  13 CKR_ATTRIBUTE_VALUE_INVALID   1B CKR_ACTION_PROHIBITED   20 CKR_DATA_INVALID   21 CKR_DATA_LEN_RANGE
  30 CKR_DEVICE_ERROR   31 CKR_DEVICE_MEMORY   32 CKR_DEVICE_REMOVED   40 CKR_ENCRYPTED_DATA_INVALID
  41 CKR_ENCRYPTED_DATA_LEN_RANGE   50 CKR_FUNCTION_CANCELED   51 CKR_FUNCTION_NOT_PARALLEL
  54 CKR_FUNCTION_NOT_SUPPORTED   60 CKR_KEY_HANDLE_INVALID   62 CKR_KEY_SIZE_RANGE
  63 CKR_KEY_TYPE_INCONSISTENT   64 CKR_KEY_NOT_NEEDED   65 CKR_KEY_CHANGED   66 CKR_KEY_NEEDED
  67 CKR_KEY_INDIGESTIBLE   68 CKR_KEY_FUNCTION_NOT_PERMITTED   69 CKR_KEY_NOT_WRAPPABLE
  6A CKR_KEY_UNEXTRACTABLE   70 CKR_MECHANISM_INVALID   71 CKR_MECHANISM_PARAM_INVALID
  82 CKR_OBJECT_HANDLE_INVALID   90 CKR_OPERATION_ACTIVE   91 CKR_OPERATION_NOT_INITIALIZED
  A0 CKR_PIN_INCORRECT   A1 CKR_PIN_INVALID   A2 CKR_PIN_LEN_RANGE   A3 CKR_PIN_EXPIRED   A4 CKR_PIN_LOCKED
  B0 CKR_SESSION_CLOSED   B1 CKR_SESSION_COUNT   B3 CKR_SESSION_HANDLE_INVALID
  B4 CKR_SESSION_PARALLEL_NOT_SUPPORTED   B5 CKR_SESSION_READ_ONLY   B6 CKR_SESSION_EXISTS
  B7 CKR_SESSION_READ_ONLY_EXISTS   B8 CKR_SESSION_READ_WRITE_SO_EXISTS   C0 CKR_SIGNATURE_INVALID
  C1 CKR_SIGNATURE_LEN_RANGE   D0 CKR_TEMPLATE_INCOMPLETE   D1 CKR_TEMPLATE_INCONSISTENT
  E0 CKR_TOKEN_NOT_PRESENT   E1 CKR_TOKEN_NOT_RECOGNIZED   E2 CKR_TOKEN_WRITE_PROTECTED
  F0 CKR_UNWRAPPING_KEY_HANDLE_INVALID   F1 CKR_UNWRAPPING_KEY_SIZE_RANGE
  F2 CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT   100 CKR_USER_ALREADY_LOGGED_IN   101 CKR_USER_NOT_LOGGED_IN
  102 CKR_USER_PIN_NOT_INITIALIZED   103 CKR_USER_TYPE_INVALID   104 CKR_USER_ANOTHER_ALREADY_LOGGED_IN
  105 CKR_USER_TOO_MANY_TYPES   110 CKR_WRAPPED_KEY_INVALID   112 CKR_WRAPPED_KEY_LEN_RANGE
  113 CKR_WRAPPING_KEY_HANDLE_INVALID   114 CKR_WRAPPING_KEY_SIZE_RANGE
  115 CKR_WRAPPING_KEY_TYPE_INCONSISTENT   120 CKR_RANDOM_SEED_NOT_SUPPORTED   121 CKR_RANDOM_NO_RNG
  130 CKR_DOMAIN_PARAMS_INVALID   140 CKR_CURVE_NOT_SUPPORTED   150 CKR_BUFFER_TOO_SMALL
  160 CKR_SAVED_STATE_INVALID   170 CKR_INFORMATION_SENSITIVE   180 CKR_STATE_UNSAVEABLE
  190 CKR_CRYPTOKI_NOT_INITIALIZED   191 CKR_CRYPTOKI_ALREADY_INITIALIZED   1A0 CKR_MUTEX_BAD
  1A1 CKR_MUTEX_NOT_LOCKED   1B0 CKR_NEW_PIN_MODE   1B1 CKR_NEXT_OTP   200 CKR_FUNCTION_REJECTED
  80000000 CKR_VENDOR_DEFINED
)");

/// The same, section 3.2, table of the token information flags.
const std::vector<Name> kTokenFlags = namesIn(R"(
  1 RNG   2 WRITE_PROTECTED   4 LOGIN_REQUIRED   8 USER_PIN_INITIALIZED   20 RESTORE_KEY_NOT_NEEDED
  40 CLOCK_ON_TOKEN   100 PROTECTED_AUTHENTICATION_PATH   200 DUAL_CRYPTO_OPERATIONS   400 TOKEN_INITIALIZED
  800 SECONDARY_AUTHENTICATION   10000 USER_PIN_COUNT_LOW   20000 USER_PIN_FINAL_TRY   40000 USER_PIN_LOCKED
  80000 USER_PIN_TO_BE_CHANGED   100000 SO_PIN_COUNT_LOW   200000 SO_PIN_FINAL_TRY   400000 SO_PIN_LOCKED
  800000 SO_PIN_TO_BE_CHANGED   1000000 ERROR_STATE
)");

/// The same, table of the slot information flags.
const Name kSlotFlags[] = {{0x1, "TOKEN_PRESENT"}, {0x2, "REMOVABLE_DEVICE"}, {0x4, "HW_SLOT"}};

/// RFC 5280, section 4.2.1.3, by the number of the bit.
const char* const kUsages[] = {"digitalSignature", "nonRepudiation", "keyEncipherment",
                               "dataEncipherment", "keyAgreement",   "keyCertSign",
                               "cRLSign",          "encipherOnly",   "decipherOnly"};

std::string hexadecimal(std::uint64_t value) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(value));
  return text;
}

// ---- Results ----

TEST(CryptokiResultText, NamesTheStandardsResultsWithTheirNumbers) {
  ASSERT_EQ(kResults.size(), 90U);
  for (const auto& [value, name] : kResults) {
    EXPECT_EQ(cryptokiResultText(value), std::string{name} + " (" + hexadecimal(value) + ")");
  }
}

TEST(CryptokiResultText, IsTheWholeNumberAloneForResultsWithoutAName) {
  for (const std::uint64_t value : {std::uint64_t{0x4}, std::uint64_t{0xB2}, std::uint64_t{0x800000B4},
                                    std::uint64_t{0x100000030}, ~std::uint64_t{0}})
    EXPECT_EQ(cryptokiResultText(value), hexadecimal(value));
}

// ---- Flags ----

TEST(TokenFlagNames, AreTheStandardsInTheOrderOfTheBits) {
  ASSERT_EQ(kTokenFlags.size(), 19U);
  for (const auto& [value, name] : kTokenFlags) EXPECT_THAT(tokenFlagNames(value), ElementsAre(name));
  EXPECT_THAT(tokenFlagNames(0x40D),
              ElementsAre("RNG", "LOGIN_REQUIRED", "USER_PIN_INITIALIZED", "TOKEN_INITIALIZED"));
  EXPECT_THAT(tokenFlagNames(0), IsEmpty());
}

TEST(TokenFlagNames, AreNumbersForBitsWithoutAName) {
  EXPECT_THAT(tokenFlagNames(0x10), ElementsAre("0x10"));
  EXPECT_THAT(tokenFlagNames(0x8000000000000001), ElementsAre("RNG", "0x8000000000000000"));
  EXPECT_EQ(tokenFlagNames(~std::uint64_t{0}).size(), 64U);
}

TEST(SlotFlagNames, AreTheStandardsAndNumbersForOtherBits) {
  for (const auto& [value, name] : kSlotFlags) EXPECT_THAT(slotFlagNames(value), ElementsAre(name));
  EXPECT_THAT(slotFlagNames(0x100D), ElementsAre("TOKEN_PRESENT", "HW_SLOT", "0x8", "0x1000"));
  EXPECT_THAT(slotFlagNames(0), IsEmpty());
}

TEST(KeyUsageNames, AreTheStandardsInTheOrderOfTheBits) {
  for (std::size_t bit = 0; bit < std::size(kUsages); ++bit)
    EXPECT_THAT(keyUsageNames(std::int32_t{1} << bit), ElementsAre(kUsages[bit]));
  EXPECT_THAT(keyUsageNames(0x105), ElementsAre("digitalSignature", "keyEncipherment", "decipherOnly"));
  EXPECT_THAT(keyUsageNames(0), IsEmpty());
}

TEST(KeyUsageNames, AreNumbersForBitsWithoutAName) {
  EXPECT_THAT(keyUsageNames(0x200), ElementsAre("0x200"));
  EXPECT_THAT(keyUsageNames(INT32_MIN), ElementsAre("0x80000000"));
}

}  // namespace
}  // namespace mirel::test
