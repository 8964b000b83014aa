#pragma once

/// The functions of a Cryptoki function list, by name and by position.

#include <array>
#include <cstddef>
#include <string_view>

#include "bridge/cryptoki.h"

namespace mirel::test {

/// The name of a member of the function list: "C_Login" for &CK_FUNCTION_LIST::C_Login.
template <auto Function>
[[nodiscard]] constexpr std::string_view functionName() {
  constexpr std::string_view signature = __PRETTY_FUNCTION__;
  constexpr std::size_t start = signature.find("CK_FUNCTION_LIST::") + 18;
  return signature.substr(start, signature.find_first_of("];", start) - start);
}
static_assert(functionName<&CK_FUNCTION_LIST::C_Login>() == "C_Login");

template <auto... Functions>
struct FunctionPack {};

/// Every function of the list, in its order.
using AllFunctions = FunctionPack<
    &CK_FUNCTION_LIST::C_Initialize, &CK_FUNCTION_LIST::C_Finalize, &CK_FUNCTION_LIST::C_GetInfo,
    &CK_FUNCTION_LIST::C_GetFunctionList, &CK_FUNCTION_LIST::C_GetSlotList, &CK_FUNCTION_LIST::C_GetSlotInfo,
    &CK_FUNCTION_LIST::C_GetTokenInfo, &CK_FUNCTION_LIST::C_GetMechanismList,
    &CK_FUNCTION_LIST::C_GetMechanismInfo, &CK_FUNCTION_LIST::C_InitToken, &CK_FUNCTION_LIST::C_InitPIN,
    &CK_FUNCTION_LIST::C_SetPIN, &CK_FUNCTION_LIST::C_OpenSession, &CK_FUNCTION_LIST::C_CloseSession,
    &CK_FUNCTION_LIST::C_CloseAllSessions, &CK_FUNCTION_LIST::C_GetSessionInfo,
    &CK_FUNCTION_LIST::C_GetOperationState, &CK_FUNCTION_LIST::C_SetOperationState,
    &CK_FUNCTION_LIST::C_Login, &CK_FUNCTION_LIST::C_Logout, &CK_FUNCTION_LIST::C_CreateObject,
    &CK_FUNCTION_LIST::C_CopyObject, &CK_FUNCTION_LIST::C_DestroyObject, &CK_FUNCTION_LIST::C_GetObjectSize,
    &CK_FUNCTION_LIST::C_GetAttributeValue, &CK_FUNCTION_LIST::C_SetAttributeValue,
    &CK_FUNCTION_LIST::C_FindObjectsInit, &CK_FUNCTION_LIST::C_FindObjects,
    &CK_FUNCTION_LIST::C_FindObjectsFinal, &CK_FUNCTION_LIST::C_EncryptInit, &CK_FUNCTION_LIST::C_Encrypt,
    &CK_FUNCTION_LIST::C_EncryptUpdate, &CK_FUNCTION_LIST::C_EncryptFinal, &CK_FUNCTION_LIST::C_DecryptInit,
    &CK_FUNCTION_LIST::C_Decrypt, &CK_FUNCTION_LIST::C_DecryptUpdate, &CK_FUNCTION_LIST::C_DecryptFinal,
    &CK_FUNCTION_LIST::C_DigestInit, &CK_FUNCTION_LIST::C_Digest, &CK_FUNCTION_LIST::C_DigestUpdate,
    &CK_FUNCTION_LIST::C_DigestKey, &CK_FUNCTION_LIST::C_DigestFinal, &CK_FUNCTION_LIST::C_SignInit,
    &CK_FUNCTION_LIST::C_Sign, &CK_FUNCTION_LIST::C_SignUpdate, &CK_FUNCTION_LIST::C_SignFinal,
    &CK_FUNCTION_LIST::C_SignRecoverInit, &CK_FUNCTION_LIST::C_SignRecover, &CK_FUNCTION_LIST::C_VerifyInit,
    &CK_FUNCTION_LIST::C_Verify, &CK_FUNCTION_LIST::C_VerifyUpdate, &CK_FUNCTION_LIST::C_VerifyFinal,
    &CK_FUNCTION_LIST::C_VerifyRecoverInit, &CK_FUNCTION_LIST::C_VerifyRecover,
    &CK_FUNCTION_LIST::C_DigestEncryptUpdate, &CK_FUNCTION_LIST::C_DecryptDigestUpdate,
    &CK_FUNCTION_LIST::C_SignEncryptUpdate, &CK_FUNCTION_LIST::C_DecryptVerifyUpdate,
    &CK_FUNCTION_LIST::C_GenerateKey, &CK_FUNCTION_LIST::C_GenerateKeyPair, &CK_FUNCTION_LIST::C_WrapKey,
    &CK_FUNCTION_LIST::C_UnwrapKey, &CK_FUNCTION_LIST::C_DeriveKey, &CK_FUNCTION_LIST::C_SeedRandom,
    &CK_FUNCTION_LIST::C_GenerateRandom, &CK_FUNCTION_LIST::C_GetFunctionStatus,
    &CK_FUNCTION_LIST::C_CancelFunction, &CK_FUNCTION_LIST::C_WaitForSlotEvent>;

template <auto... Functions>
[[nodiscard]] constexpr auto namesOf(FunctionPack<Functions...>) {
  return std::array{functionName<Functions>()...};
}

/// Their names, in the same order. A list is its version, then one pointer for each.
inline constexpr auto kFunctionNames = namesOf(AllFunctions{});
inline constexpr std::size_t kNumFunctions = kFunctionNames.size();
static_assert(sizeof(CK_FUNCTION_LIST) == (kNumFunctions + 1) * sizeof(void*));

/// The position of the function of that name; ends the process when there is none, because a test
/// that names none tests nothing.
[[nodiscard]] std::size_t functionPosition(std::string_view name);

/// The type behind a member of the list: CK_RV (*)(CK_SESSION_HANDLE) for C_Logout.
template <typename Member>
struct MemberType;
template <typename Type>
struct MemberType<Type CK_FUNCTION_LIST::*> {
  using type = Type;
};
template <auto Function>
using FunctionType = typename MemberType<decltype(Function)>::type;

}  // namespace mirel::test
