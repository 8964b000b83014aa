#pragma once

/// What the scripted module does when it is left alone, and how its calls are written down.

#include <string>
#include <type_traits>
#include <vector>

#include "module/Functions.h"
#include "module/Script.h"

namespace mirel::test {

/// The script of this library.
[[nodiscard]] Script& theScript();

/// More than any honest caller's data has. Longer data is neither read nor written down.
inline constexpr CK_ULONG kMostBytes = 1UL << 20U;

[[nodiscard]] std::string commaJoined(const std::vector<std::string>& parts);
/// Decimal; all-ones is "none".
[[nodiscard]] std::string described(CK_ULONG number);
/// Hexadecimal digits; "null" with the length, or the length alone where it cannot be true.
[[nodiscard]] std::string describedValue(const void* data, CK_ULONG len);
/// Attributes with their values.
[[nodiscard]] std::string describedTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count);

/// CKR_OK when the module is initialised and has that session, which is then in `outSession`.
[[nodiscard]] CK_RV findSession(CK_SESSION_HANDLE handle, Session*& outSession);

/// A function that the module does not model: recorded, and not supported.
template <typename Function>
struct NotModelled;
template <typename... Args>
struct NotModelled<CK_RV (*)(Args...)> {
  [[nodiscard]] static std::string arguments(Args... args) { return commaJoined({part(args)...}); }
  static CK_RV call(Args...) { return CKR_FUNCTION_NOT_SUPPORTED; }

 private:
  template <typename Arg>
  [[nodiscard]] static std::string part(Arg arg) {
    if constexpr (std::is_pointer_v<Arg>) {
      return arg ? "set" : "null";
    } else {
      return described(CK_ULONG{arg});
    }
  }
};

/// `arguments` writes the arguments of a call down; `call` is what the module does.
template <auto Function>
struct Behaviour : NotModelled<FunctionType<Function>> {};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_Initialize> {
  [[nodiscard]] static std::string arguments(CK_VOID_PTR initArgs);
  static CK_RV call(CK_VOID_PTR initArgs);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_Finalize> {
  [[nodiscard]] static std::string arguments(CK_VOID_PTR reserved);
  static CK_RV call(CK_VOID_PTR reserved);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetInfo> {
  [[nodiscard]] static std::string arguments(CK_INFO_PTR info);
  static CK_RV call(CK_INFO_PTR info);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetFunctionList> {
  [[nodiscard]] static std::string arguments(CK_FUNCTION_LIST_PTR_PTR list);
  static CK_RV call(CK_FUNCTION_LIST_PTR_PTR list);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetSlotList> {
  [[nodiscard]] static std::string arguments(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count);
  static CK_RV call(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetSlotInfo> {
  [[nodiscard]] static std::string arguments(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info);
  static CK_RV call(CK_SLOT_ID slot, CK_SLOT_INFO_PTR info);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetTokenInfo> {
  [[nodiscard]] static std::string arguments(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info);
  static CK_RV call(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_OpenSession> {
  [[nodiscard]] static std::string arguments(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application,
                                             CK_NOTIFY notify, CK_SESSION_HANDLE_PTR session);
  static CK_RV call(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR session);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_CloseSession> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session);
  static CK_RV call(CK_SESSION_HANDLE session);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_CloseAllSessions> {
  [[nodiscard]] static std::string arguments(CK_SLOT_ID slot);
  static CK_RV call(CK_SLOT_ID slot);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetSessionInfo> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info);
  static CK_RV call(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_Login> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_USER_TYPE user,
                                             CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
  static CK_RV call(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_Logout> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session);
  static CK_RV call(CK_SESSION_HANDLE session);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_GetAttributeValue> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                             CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
  static CK_RV call(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes,
                    CK_ULONG count);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_FindObjectsInit> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes,
                                             CK_ULONG count);
  static CK_RV call(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_FindObjects> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects,
                                             CK_ULONG maxCount, CK_ULONG_PTR count);
  static CK_RV call(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG maxCount,
                    CK_ULONG_PTR count);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_FindObjectsFinal> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session);
  static CK_RV call(CK_SESSION_HANDLE session);
};

// ---- Private keys ----
//
// `afterFailure` is what C_Sign and C_Decrypt still do when a call of theirs is made to fail.

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_SignInit> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                                             CK_OBJECT_HANDLE key);
  static CK_RV call(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_Sign> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen,
                                             CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
  static CK_RV call(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                    CK_ULONG_PTR signatureLen);
  static void afterFailure(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen,
                           CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_DecryptInit> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                                             CK_OBJECT_HANDLE key);
  static CK_RV call(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_Decrypt> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_BYTE_PTR cipher,
                                             CK_ULONG cipherLen, CK_BYTE_PTR plain, CK_ULONG_PTR plainLen);
  static CK_RV call(CK_SESSION_HANDLE session, CK_BYTE_PTR cipher, CK_ULONG cipherLen, CK_BYTE_PTR plain,
                    CK_ULONG_PTR plainLen);
  static void afterFailure(CK_SESSION_HANDLE session, CK_BYTE_PTR cipher, CK_ULONG cipherLen,
                           CK_BYTE_PTR plain, CK_ULONG_PTR plainLen);
};

template <>
struct Behaviour<&CK_FUNCTION_LIST::C_DeriveKey> {
  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                                             CK_OBJECT_HANDLE baseKey, CK_ATTRIBUTE_PTR attributes,
                                             CK_ULONG count, CK_OBJECT_HANDLE_PTR key);
  static CK_RV call(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE baseKey,
                    CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_OBJECT_HANDLE_PTR key);
};

}  // namespace mirel::test
