#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "bridge/cryptoki.h"

namespace mirel {

/// The names that the standard gives to what a module has and answers: one list of each kind, for all who
/// show them to somebody.

/// The functions, in the order of CK_FUNCTION_LIST.
inline constexpr std::array<std::string_view, 68> kCryptokiFunctionNames{
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

[[nodiscard]] constexpr bool isCryptokiFunction(std::string_view name) noexcept {
  return std::find(kCryptokiFunctionNames.begin(), kCryptokiFunctionNames.end(), name) !=
         kCryptokiFunctionNames.end();
}

/// The name of a function that sources write down, to compare it or to ask for it: one that is not in the
/// list does not compile.
class CryptokiFunction {
 public:
  constexpr CryptokiFunction() noexcept = default;              ///< none
  consteval CryptokiFunction(const char* name) : name_{name} {  // NOLINT(google-explicit-constructor)
    if (!isCryptokiFunction(name_)) throw "PKCS #11 has no function of this name";
  }

  [[nodiscard]] constexpr std::string_view name() const noexcept { return name_; }

 private:
  std::string_view name_;
};

/// A function's name ("C_Login"), by the place of its entry: `offset` bytes into CK_FUNCTION_LIST. "?" where
/// no function is.
[[nodiscard]] const char* cryptokiFunctionName(std::size_t offset) noexcept;

/// A result code's name ("CKR_DEVICE_ERROR"); empty when the standard has none for it.
[[nodiscard]] std::string_view cryptokiResultName(CK_RV result) noexcept;

/// The name of one bit of a token's flags, without "CKF_"; empty when the standard has none for it.
[[nodiscard]] std::string_view tokenFlagName(CK_FLAGS flag) noexcept;

/// The same for a slot's flags.
[[nodiscard]] std::string_view slotFlagName(CK_FLAGS flag) noexcept;

}  // namespace mirel
