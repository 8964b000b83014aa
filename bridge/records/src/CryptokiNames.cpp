#include "bridge/CryptokiNames.h"

#include <algorithm>
#include <array>
#include <span>

namespace mirel {
namespace {

struct Name {
  CK_ULONG value;
  std::string_view text;
};

constexpr std::array kResultNames{
    Name{CKR_OK, "CKR_OK"},
    Name{CKR_CANCEL, "CKR_CANCEL"},
    Name{CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
    Name{CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
    Name{CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
    Name{CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
    Name{CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
    Name{CKR_NO_EVENT, "CKR_NO_EVENT"},
    Name{CKR_NEED_TO_CREATE_THREADS, "CKR_NEED_TO_CREATE_THREADS"},
    Name{CKR_CANT_LOCK, "CKR_CANT_LOCK"},
    Name{CKR_ATTRIBUTE_READ_ONLY, "CKR_ATTRIBUTE_READ_ONLY"},
    Name{CKR_ATTRIBUTE_SENSITIVE, "CKR_ATTRIBUTE_SENSITIVE"},
    Name{CKR_ATTRIBUTE_TYPE_INVALID, "CKR_ATTRIBUTE_TYPE_INVALID"},
    Name{CKR_ATTRIBUTE_VALUE_INVALID, "CKR_ATTRIBUTE_VALUE_INVALID"},
    Name{CKR_ACTION_PROHIBITED, "CKR_ACTION_PROHIBITED"},
    Name{CKR_DATA_INVALID, "CKR_DATA_INVALID"},
    Name{CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
    Name{CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"},
    Name{CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
    Name{CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED"},
    Name{CKR_ENCRYPTED_DATA_INVALID, "CKR_ENCRYPTED_DATA_INVALID"},
    Name{CKR_ENCRYPTED_DATA_LEN_RANGE, "CKR_ENCRYPTED_DATA_LEN_RANGE"},
    Name{CKR_FUNCTION_CANCELED, "CKR_FUNCTION_CANCELED"},
    Name{CKR_FUNCTION_NOT_PARALLEL, "CKR_FUNCTION_NOT_PARALLEL"},
    Name{CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
    Name{CKR_KEY_HANDLE_INVALID, "CKR_KEY_HANDLE_INVALID"},
    Name{CKR_KEY_SIZE_RANGE, "CKR_KEY_SIZE_RANGE"},
    Name{CKR_KEY_TYPE_INCONSISTENT, "CKR_KEY_TYPE_INCONSISTENT"},
    Name{CKR_KEY_NOT_NEEDED, "CKR_KEY_NOT_NEEDED"},
    Name{CKR_KEY_CHANGED, "CKR_KEY_CHANGED"},
    Name{CKR_KEY_NEEDED, "CKR_KEY_NEEDED"},
    Name{CKR_KEY_INDIGESTIBLE, "CKR_KEY_INDIGESTIBLE"},
    Name{CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
    Name{CKR_KEY_NOT_WRAPPABLE, "CKR_KEY_NOT_WRAPPABLE"},
    Name{CKR_KEY_UNEXTRACTABLE, "CKR_KEY_UNEXTRACTABLE"},
    Name{CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
    Name{CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID"},
    Name{CKR_OBJECT_HANDLE_INVALID, "CKR_OBJECT_HANDLE_INVALID"},
    Name{CKR_OPERATION_ACTIVE, "CKR_OPERATION_ACTIVE"},
    Name{CKR_OPERATION_NOT_INITIALIZED, "CKR_OPERATION_NOT_INITIALIZED"},
    Name{CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
    Name{CKR_PIN_INVALID, "CKR_PIN_INVALID"},
    Name{CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE"},
    Name{CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED"},
    Name{CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
    Name{CKR_SESSION_CLOSED, "CKR_SESSION_CLOSED"},
    Name{CKR_SESSION_COUNT, "CKR_SESSION_COUNT"},
    Name{CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
    Name{CKR_SESSION_PARALLEL_NOT_SUPPORTED, "CKR_SESSION_PARALLEL_NOT_SUPPORTED"},
    Name{CKR_SESSION_READ_ONLY, "CKR_SESSION_READ_ONLY"},
    Name{CKR_SESSION_EXISTS, "CKR_SESSION_EXISTS"},
    Name{CKR_SESSION_READ_ONLY_EXISTS, "CKR_SESSION_READ_ONLY_EXISTS"},
    Name{CKR_SESSION_READ_WRITE_SO_EXISTS, "CKR_SESSION_READ_WRITE_SO_EXISTS"},
    Name{CKR_SIGNATURE_INVALID, "CKR_SIGNATURE_INVALID"},
    Name{CKR_SIGNATURE_LEN_RANGE, "CKR_SIGNATURE_LEN_RANGE"},
    Name{CKR_TEMPLATE_INCOMPLETE, "CKR_TEMPLATE_INCOMPLETE"},
    Name{CKR_TEMPLATE_INCONSISTENT, "CKR_TEMPLATE_INCONSISTENT"},
    Name{CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
    Name{CKR_TOKEN_NOT_RECOGNIZED, "CKR_TOKEN_NOT_RECOGNIZED"},
    Name{CKR_TOKEN_WRITE_PROTECTED, "CKR_TOKEN_WRITE_PROTECTED"},
    Name{CKR_UNWRAPPING_KEY_HANDLE_INVALID, "CKR_UNWRAPPING_KEY_HANDLE_INVALID"},
    Name{CKR_UNWRAPPING_KEY_SIZE_RANGE, "CKR_UNWRAPPING_KEY_SIZE_RANGE"},
    Name{CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT, "CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT"},
    Name{CKR_USER_ALREADY_LOGGED_IN, "CKR_USER_ALREADY_LOGGED_IN"},
    Name{CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
    Name{CKR_USER_PIN_NOT_INITIALIZED, "CKR_USER_PIN_NOT_INITIALIZED"},
    Name{CKR_USER_TYPE_INVALID, "CKR_USER_TYPE_INVALID"},
    Name{CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "CKR_USER_ANOTHER_ALREADY_LOGGED_IN"},
    Name{CKR_USER_TOO_MANY_TYPES, "CKR_USER_TOO_MANY_TYPES"},
    Name{CKR_WRAPPED_KEY_INVALID, "CKR_WRAPPED_KEY_INVALID"},
    Name{CKR_WRAPPED_KEY_LEN_RANGE, "CKR_WRAPPED_KEY_LEN_RANGE"},
    Name{CKR_WRAPPING_KEY_HANDLE_INVALID, "CKR_WRAPPING_KEY_HANDLE_INVALID"},
    Name{CKR_WRAPPING_KEY_SIZE_RANGE, "CKR_WRAPPING_KEY_SIZE_RANGE"},
    Name{CKR_WRAPPING_KEY_TYPE_INCONSISTENT, "CKR_WRAPPING_KEY_TYPE_INCONSISTENT"},
    Name{CKR_RANDOM_SEED_NOT_SUPPORTED, "CKR_RANDOM_SEED_NOT_SUPPORTED"},
    Name{CKR_RANDOM_NO_RNG, "CKR_RANDOM_NO_RNG"},
    Name{CKR_DOMAIN_PARAMS_INVALID, "CKR_DOMAIN_PARAMS_INVALID"},
    Name{CKR_CURVE_NOT_SUPPORTED, "CKR_CURVE_NOT_SUPPORTED"},
    Name{CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
    Name{CKR_SAVED_STATE_INVALID, "CKR_SAVED_STATE_INVALID"},
    Name{CKR_INFORMATION_SENSITIVE, "CKR_INFORMATION_SENSITIVE"},
    Name{CKR_STATE_UNSAVEABLE, "CKR_STATE_UNSAVEABLE"},
    Name{CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
    Name{CKR_CRYPTOKI_ALREADY_INITIALIZED, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    Name{CKR_MUTEX_BAD, "CKR_MUTEX_BAD"},
    Name{CKR_MUTEX_NOT_LOCKED, "CKR_MUTEX_NOT_LOCKED"},
    Name{CKR_NEW_PIN_MODE, "CKR_NEW_PIN_MODE"},
    Name{CKR_NEXT_OTP, "CKR_NEXT_OTP"},
    Name{CKR_EXCEEDED_MAX_ITERATIONS, "CKR_EXCEEDED_MAX_ITERATIONS"},
    Name{CKR_FIPS_SELF_TEST_FAILED, "CKR_FIPS_SELF_TEST_FAILED"},
    Name{CKR_LIBRARY_LOAD_FAILED, "CKR_LIBRARY_LOAD_FAILED"},
    Name{CKR_PIN_TOO_WEAK, "CKR_PIN_TOO_WEAK"},
    Name{CKR_PUBLIC_KEY_INVALID, "CKR_PUBLIC_KEY_INVALID"},
    Name{CKR_FUNCTION_REJECTED, "CKR_FUNCTION_REJECTED"},
    Name{CKR_VENDOR_DEFINED, "CKR_VENDOR_DEFINED"},
};

constexpr std::array kTokenFlagNames{
    Name{CKF_RNG, "RNG"},
    Name{CKF_WRITE_PROTECTED, "WRITE_PROTECTED"},
    Name{CKF_LOGIN_REQUIRED, "LOGIN_REQUIRED"},
    Name{CKF_USER_PIN_INITIALIZED, "USER_PIN_INITIALIZED"},
    Name{CKF_RESTORE_KEY_NOT_NEEDED, "RESTORE_KEY_NOT_NEEDED"},
    Name{CKF_CLOCK_ON_TOKEN, "CLOCK_ON_TOKEN"},
    Name{CKF_PROTECTED_AUTHENTICATION_PATH, "PROTECTED_AUTHENTICATION_PATH"},
    Name{CKF_DUAL_CRYPTO_OPERATIONS, "DUAL_CRYPTO_OPERATIONS"},
    Name{CKF_TOKEN_INITIALIZED, "TOKEN_INITIALIZED"},
    Name{CKF_SECONDARY_AUTHENTICATION, "SECONDARY_AUTHENTICATION"},
    Name{CKF_USER_PIN_COUNT_LOW, "USER_PIN_COUNT_LOW"},
    Name{CKF_USER_PIN_FINAL_TRY, "USER_PIN_FINAL_TRY"},
    Name{CKF_USER_PIN_LOCKED, "USER_PIN_LOCKED"},
    Name{CKF_USER_PIN_TO_BE_CHANGED, "USER_PIN_TO_BE_CHANGED"},
    Name{CKF_SO_PIN_COUNT_LOW, "SO_PIN_COUNT_LOW"},
    Name{CKF_SO_PIN_FINAL_TRY, "SO_PIN_FINAL_TRY"},
    Name{CKF_SO_PIN_LOCKED, "SO_PIN_LOCKED"},
    Name{CKF_SO_PIN_TO_BE_CHANGED, "SO_PIN_TO_BE_CHANGED"},
    Name{CKF_ERROR_STATE, "ERROR_STATE"},
};

constexpr std::array kSlotFlagNames{
    Name{CKF_TOKEN_PRESENT, "TOKEN_PRESENT"},
    Name{CKF_REMOVABLE_DEVICE, "REMOVABLE_DEVICE"},
    Name{CKF_HW_SLOT, "HW_SLOT"},
};

/// In the order of CK_FUNCTION_LIST.
constexpr std::array kFunctionNames{
    "C_Initialize",
    "C_Finalize",
    "C_GetInfo",
    "C_GetFunctionList",
    "C_GetSlotList",
    "C_GetSlotInfo",
    "C_GetTokenInfo",
    "C_GetMechanismList",
    "C_GetMechanismInfo",
    "C_InitToken",
    "C_InitPIN",
    "C_SetPIN",
    "C_OpenSession",
    "C_CloseSession",
    "C_CloseAllSessions",
    "C_GetSessionInfo",
    "C_GetOperationState",
    "C_SetOperationState",
    "C_Login",
    "C_Logout",
    "C_CreateObject",
    "C_CopyObject",
    "C_DestroyObject",
    "C_GetObjectSize",
    "C_GetAttributeValue",
    "C_SetAttributeValue",
    "C_FindObjectsInit",
    "C_FindObjects",
    "C_FindObjectsFinal",
    "C_EncryptInit",
    "C_Encrypt",
    "C_EncryptUpdate",
    "C_EncryptFinal",
    "C_DecryptInit",
    "C_Decrypt",
    "C_DecryptUpdate",
    "C_DecryptFinal",
    "C_DigestInit",
    "C_Digest",
    "C_DigestUpdate",
    "C_DigestKey",
    "C_DigestFinal",
    "C_SignInit",
    "C_Sign",
    "C_SignUpdate",
    "C_SignFinal",
    "C_SignRecoverInit",
    "C_SignRecover",
    "C_VerifyInit",
    "C_Verify",
    "C_VerifyUpdate",
    "C_VerifyFinal",
    "C_VerifyRecoverInit",
    "C_VerifyRecover",
    "C_DigestEncryptUpdate",
    "C_DecryptDigestUpdate",
    "C_SignEncryptUpdate",
    "C_DecryptVerifyUpdate",
    "C_GenerateKey",
    "C_GenerateKeyPair",
    "C_WrapKey",
    "C_UnwrapKey",
    "C_DeriveKey",
    "C_SeedRandom",
    "C_GenerateRandom",
    "C_GetFunctionStatus",
    "C_CancelFunction",
    "C_WaitForSlotEvent",
};
constexpr std::size_t kFirstEntry = offsetof(CK_FUNCTION_LIST, C_Initialize);
static_assert(kFirstEntry + kFunctionNames.size() * sizeof(void*) == sizeof(CK_FUNCTION_LIST));

std::string_view nameIn(std::span<const Name> names, CK_ULONG value) noexcept {
  const auto name =
      std::find_if(names.begin(), names.end(), [&](const Name& row) { return row.value == value; });
  return name == names.end() ? std::string_view{} : name->text;
}

}  // namespace

std::string_view cryptokiResultName(CK_RV result) noexcept { return nameIn(kResultNames, result); }

std::string_view tokenFlagName(CK_FLAGS flag) noexcept { return nameIn(kTokenFlagNames, flag); }

std::string_view slotFlagName(CK_FLAGS flag) noexcept { return nameIn(kSlotFlagNames, flag); }

const char* cryptokiFunctionName(std::size_t offset) noexcept {
  const std::size_t index = (offset - kFirstEntry) / sizeof(void*);
  return index < kFunctionNames.size() ? kFunctionNames[index] : "?";
}

}  // namespace mirel
