#pragma once

#include <cstddef>

#include "bridge/cryptoki.h"

/// The functions of a module, in the order of CK_FUNCTION_LIST (PKCS #11 2.40): X(C_Initialize) and so on.
/// All who go through them one after the other do it by this list.
// clang-format off
#define MIREL_CRYPTOKI_FUNCTIONS(X) \
  X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetFunctionList) X(C_GetSlotList) X(C_GetSlotInfo) \
  X(C_GetTokenInfo) X(C_GetMechanismList) X(C_GetMechanismInfo) X(C_InitToken) X(C_InitPIN) X(C_SetPIN) \
  X(C_OpenSession) X(C_CloseSession) X(C_CloseAllSessions) X(C_GetSessionInfo) X(C_GetOperationState) \
  X(C_SetOperationState) X(C_Login) X(C_Logout) X(C_CreateObject) X(C_CopyObject) X(C_DestroyObject) \
  X(C_GetObjectSize) X(C_GetAttributeValue) X(C_SetAttributeValue) X(C_FindObjectsInit) X(C_FindObjects) \
  X(C_FindObjectsFinal) X(C_EncryptInit) X(C_Encrypt) X(C_EncryptUpdate) X(C_EncryptFinal) \
  X(C_DecryptInit) X(C_Decrypt) X(C_DecryptUpdate) X(C_DecryptFinal) X(C_DigestInit) X(C_Digest) \
  X(C_DigestUpdate) X(C_DigestKey) X(C_DigestFinal) X(C_SignInit) X(C_Sign) X(C_SignUpdate) \
  X(C_SignFinal) X(C_SignRecoverInit) X(C_SignRecover) X(C_VerifyInit) X(C_Verify) X(C_VerifyUpdate) \
  X(C_VerifyFinal) X(C_VerifyRecoverInit) X(C_VerifyRecover) X(C_DigestEncryptUpdate) \
  X(C_DecryptDigestUpdate) X(C_SignEncryptUpdate) X(C_DecryptVerifyUpdate) X(C_GenerateKey) \
  X(C_GenerateKeyPair) X(C_WrapKey) X(C_UnwrapKey) X(C_DeriveKey) X(C_SeedRandom) X(C_GenerateRandom) \
  X(C_GetFunctionStatus) X(C_CancelFunction) X(C_WaitForSlotEvent)
// clang-format on

namespace mirel {

/// Functions of a module, as members of its list.
template <auto... Members>
struct FunctionPack {
  static constexpr std::size_t kCount = sizeof...(Members);
};

/// A function's name by its member: "C_Login" for &CK_FUNCTION_LIST::C_Login.
template <auto Member>
inline constexpr const char* kCryptokiNameOf = nullptr;

#define MIREL_NAME(name) \
  template <>            \
  inline constexpr const char* kCryptokiNameOf<&CK_FUNCTION_LIST::name> = #name;
MIREL_CRYPTOKI_FUNCTIONS(MIREL_NAME)
#undef MIREL_NAME

/// All but the first, which stands there because each member brings a comma.
template <auto First, auto... Members>
struct PackBehind {
  using Pack = FunctionPack<Members...>;
};

#define MIREL_MEMBER(name) , &CK_FUNCTION_LIST::name
/// All of them.
using AllFunctions = PackBehind<0 MIREL_CRYPTOKI_FUNCTIONS(MIREL_MEMBER)>::Pack;
#undef MIREL_MEMBER

// A list is its version, then one pointer for each.
static_assert(sizeof(CK_FUNCTION_LIST) == (AllFunctions::kCount + 1) * sizeof(void*));

}  // namespace mirel
