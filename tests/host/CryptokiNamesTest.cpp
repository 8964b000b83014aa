#include "host/CryptokiNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Name {
  std::uint64_t value;
  const char* name;
};

/// PKCS #11 v2.40, base specification, section 5.1, with the numbers of its appendix of constants.
const Name kResults[] = {
    {0x0, "CKR_OK"},
    {0x1, "CKR_CANCEL"},
    {0x2, "CKR_HOST_MEMORY"},
    {0x3, "CKR_SLOT_ID_INVALID"},
    {0x5, "CKR_GENERAL_ERROR"},
    {0x6, "CKR_FUNCTION_FAILED"},
    {0x7, "CKR_ARGUMENTS_BAD"},
    {0x8, "CKR_NO_EVENT"},
    {0x9, "CKR_NEED_TO_CREATE_THREADS"},
    {0xA, "CKR_CANT_LOCK"},
    {0x10, "CKR_ATTRIBUTE_READ_ONLY"},
    {0x11, "CKR_ATTRIBUTE_SENSITIVE"},
    {0x12, "CKR_ATTRIBUTE_TYPE_INVALID"},
    {0x13, "CKR_ATTRIBUTE_VALUE_INVALID"},
    {0x1B, "CKR_ACTION_PROHIBITED"},
    {0x20, "CKR_DATA_INVALID"},
    {0x21, "CKR_DATA_LEN_RANGE"},
    {0x30, "CKR_DEVICE_ERROR"},
    {0x31, "CKR_DEVICE_MEMORY"},
    {0x32, "CKR_DEVICE_REMOVED"},
    {0x40, "CKR_ENCRYPTED_DATA_INVALID"},
    {0x41, "CKR_ENCRYPTED_DATA_LEN_RANGE"},
    {0x50, "CKR_FUNCTION_CANCELED"},
    {0x51, "CKR_FUNCTION_NOT_PARALLEL"},
    {0x54, "CKR_FUNCTION_NOT_SUPPORTED"},
    {0x60, "CKR_KEY_HANDLE_INVALID"},
    {0x62, "CKR_KEY_SIZE_RANGE"},
    {0x63, "CKR_KEY_TYPE_INCONSISTENT"},
    {0x64, "CKR_KEY_NOT_NEEDED"},
    {0x65, "CKR_KEY_CHANGED"},
    {0x66, "CKR_KEY_NEEDED"},
    {0x67, "CKR_KEY_INDIGESTIBLE"},
    {0x68, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
    {0x69, "CKR_KEY_NOT_WRAPPABLE"},
    {0x6A, "CKR_KEY_UNEXTRACTABLE"},
    {0x70, "CKR_MECHANISM_INVALID"},
    {0x71, "CKR_MECHANISM_PARAM_INVALID"},
    {0x82, "CKR_OBJECT_HANDLE_INVALID"},
    {0x90, "CKR_OPERATION_ACTIVE"},
    {0x91, "CKR_OPERATION_NOT_INITIALIZED"},
    {0xA0, "CKR_PIN_INCORRECT"},
    {0xA1, "CKR_PIN_INVALID"},
    {0xA2, "CKR_PIN_LEN_RANGE"},
    {0xA3, "CKR_PIN_EXPIRED"},
    {0xA4, "CKR_PIN_LOCKED"},
    {0xB0, "CKR_SESSION_CLOSED"},
    {0xB1, "CKR_SESSION_COUNT"},
    {0xB3, "CKR_SESSION_HANDLE_INVALID"},
    {0xB4, "CKR_SESSION_PARALLEL_NOT_SUPPORTED"},
    {0xB5, "CKR_SESSION_READ_ONLY"},
    {0xB6, "CKR_SESSION_EXISTS"},
    {0xB7, "CKR_SESSION_READ_ONLY_EXISTS"},
    {0xB8, "CKR_SESSION_READ_WRITE_SO_EXISTS"},
    {0xC0, "CKR_SIGNATURE_INVALID"},
    {0xC1, "CKR_SIGNATURE_LEN_RANGE"},
    {0xD0, "CKR_TEMPLATE_INCOMPLETE"},
    {0xD1, "CKR_TEMPLATE_INCONSISTENT"},
    {0xE0, "CKR_TOKEN_NOT_PRESENT"},
    {0xE1, "CKR_TOKEN_NOT_RECOGNIZED"},
    {0xE2, "CKR_TOKEN_WRITE_PROTECTED"},
    {0xF0, "CKR_UNWRAPPING_KEY_HANDLE_INVALID"},
    {0xF1, "CKR_UNWRAPPING_KEY_SIZE_RANGE"},
    {0xF2, "CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT"},
    {0x100, "CKR_USER_ALREADY_LOGGED_IN"},
    {0x101, "CKR_USER_NOT_LOGGED_IN"},
    {0x102, "CKR_USER_PIN_NOT_INITIALIZED"},
    {0x103, "CKR_USER_TYPE_INVALID"},
    {0x104, "CKR_USER_ANOTHER_ALREADY_LOGGED_IN"},
    {0x105, "CKR_USER_TOO_MANY_TYPES"},
    {0x110, "CKR_WRAPPED_KEY_INVALID"},
    {0x112, "CKR_WRAPPED_KEY_LEN_RANGE"},
    {0x113, "CKR_WRAPPING_KEY_HANDLE_INVALID"},
    {0x114, "CKR_WRAPPING_KEY_SIZE_RANGE"},
    {0x115, "CKR_WRAPPING_KEY_TYPE_INCONSISTENT"},
    {0x120, "CKR_RANDOM_SEED_NOT_SUPPORTED"},
    {0x121, "CKR_RANDOM_NO_RNG"},
    {0x130, "CKR_DOMAIN_PARAMS_INVALID"},
    {0x140, "CKR_CURVE_NOT_SUPPORTED"},
    {0x150, "CKR_BUFFER_TOO_SMALL"},
    {0x160, "CKR_SAVED_STATE_INVALID"},
    {0x170, "CKR_INFORMATION_SENSITIVE"},
    {0x180, "CKR_STATE_UNSAVEABLE"},
    {0x190, "CKR_CRYPTOKI_NOT_INITIALIZED"},
    {0x191, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    {0x1A0, "CKR_MUTEX_BAD"},
    {0x1A1, "CKR_MUTEX_NOT_LOCKED"},
    {0x1B0, "CKR_NEW_PIN_MODE"},
    {0x1B1, "CKR_NEXT_OTP"},
    {0x200, "CKR_FUNCTION_REJECTED"},
    {0x80000000, "CKR_VENDOR_DEFINED"},
};

/// The same, section 3.2, table of the token information flags.
const Name kTokenFlags[] = {
    {0x1, "RNG"},
    {0x2, "WRITE_PROTECTED"},
    {0x4, "LOGIN_REQUIRED"},
    {0x8, "USER_PIN_INITIALIZED"},
    {0x20, "RESTORE_KEY_NOT_NEEDED"},
    {0x40, "CLOCK_ON_TOKEN"},
    {0x100, "PROTECTED_AUTHENTICATION_PATH"},
    {0x200, "DUAL_CRYPTO_OPERATIONS"},
    {0x400, "TOKEN_INITIALIZED"},
    {0x800, "SECONDARY_AUTHENTICATION"},
    {0x10000, "USER_PIN_COUNT_LOW"},
    {0x20000, "USER_PIN_FINAL_TRY"},
    {0x40000, "USER_PIN_LOCKED"},
    {0x80000, "USER_PIN_TO_BE_CHANGED"},
    {0x100000, "SO_PIN_COUNT_LOW"},
    {0x200000, "SO_PIN_FINAL_TRY"},
    {0x400000, "SO_PIN_LOCKED"},
    {0x800000, "SO_PIN_TO_BE_CHANGED"},
    {0x1000000, "ERROR_STATE"},
};

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
