#pragma once

/// What the scripted module does when it is left alone, and how its calls are written down. The
/// library's one source includes this.

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "module/Functions.h"
#include "module/Script.h"

namespace mirel::test {

/// The script of this library.
[[nodiscard]] Script& theScript();

using List = CK_FUNCTION_LIST;

inline constexpr CK_BYTE kFiller = 0xEE;
/// More than any honest caller's data has. Longer data is neither read nor written down.
inline constexpr CK_ULONG kMostBytes = 1UL << 20U;

inline constexpr std::pair<CK_ATTRIBUTE_TYPE, const char*> kAttributeNames[] = {
    {CKA_CLASS, "CKA_CLASS"},
    {CKA_TOKEN, "CKA_TOKEN"},
    {CKA_PRIVATE, "CKA_PRIVATE"},
    {CKA_LABEL, "CKA_LABEL"},
    {CKA_VALUE, "CKA_VALUE"},
    {CKA_CERTIFICATE_TYPE, "CKA_CERTIFICATE_TYPE"},
    {CKA_KEY_TYPE, "CKA_KEY_TYPE"},
    {CKA_SUBJECT, "CKA_SUBJECT"},
    {CKA_ID, "CKA_ID"},
    {CKA_MODULUS, "CKA_MODULUS"},
    {CKA_MODULUS_BITS, "CKA_MODULUS_BITS"},
    {CKA_SENSITIVE, "CKA_SENSITIVE"},
    {CKA_ENCRYPT, "CKA_ENCRYPT"},
    {CKA_VALUE_LEN, "CKA_VALUE_LEN"},
    {CKA_EC_PARAMS, "CKA_EC_PARAMS"},
    {CKA_EC_POINT, "CKA_EC_POINT"}};

inline std::string attributeName(CK_ATTRIBUTE_TYPE type) {
  for (const auto& [known, name] : kAttributeNames) {
    if (known == type) return name;
  }
  return "CKA " + std::to_string(type);
}

inline std::string describedPointer(bool set, const char* name) { return set ? name : "null"; }

inline std::string commaJoined(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : ", ") + part;
  return joined;
}

/// Decimal; all-ones is "none".
inline std::string described(CK_ULONG number) {
  return number == ~CK_ULONG{0} ? "none" : std::to_string(number);
}

/// Hexadecimal digits; "null" with the length, or the length alone where it cannot be true.
inline std::string describedValue(const void* data, CK_ULONG len) {
  if (!data) return "null " + described(len);
  if (len > kMostBytes) return "length " + described(len);
  return hexText({static_cast<const CK_BYTE*>(data), len});
}

/// Attributes with their values.
inline std::string describedTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count) {
  if (!attributes) return "null, " + described(count);
  std::vector<std::string> parts;
  for (CK_ULONG i = 0; i < count; ++i) {
    parts.push_back(attributeName(attributes[i].type) + "=" +
                    describedValue(attributes[i].pValue, attributes[i].ulValueLen));
  }
  return "[" + commaJoined(parts) + "]";
}

/// CKR_OK when the module is initialised and has that session, which is then in `outSession`.
inline CK_RV findSession(CK_SESSION_HANDLE handle, Session*& outSession) {
  if (!theScript().isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  CK_RV code = CKR_SESSION_HANDLE_INVALID;
  outSession = theScript().findSession(handle, code);
  return outSession ? CKR_OK : code;
}

inline std::string describedParameters(const CK_MECHANISM& mechanism) {
  const CK_ULONG len = mechanism.ulParameterLen;
  if (!mechanism.pParameter) return "null " + described(len);
  if (mechanism.mechanism == CKM_RSA_PKCS_PSS && len == sizeof(CK_RSA_PKCS_PSS_PARAMS)) {
    const auto& pss = *static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism.pParameter);
    return "[" + commaJoined({described(pss.hashAlg), described(pss.mgf), described(pss.sLen)}) + "] " +
           described(len);
  }
  if (mechanism.mechanism == CKM_ECDH1_DERIVE && (len == 1 || len == sizeof(CK_ECDH1_DERIVE_PARAMS))) {
    const auto& ecdh = *static_cast<const CK_ECDH1_DERIVE_PARAMS*>(mechanism.pParameter);
    return "[" +
           commaJoined({"kdf " + described(ecdh.kdf),
                        "shared " + describedValue(ecdh.pSharedData, ecdh.ulSharedDataLen),
                        "public " + describedValue(ecdh.pPublicData, ecdh.ulPublicDataLen)}) +
           "] " + described(len);
  }
  return describedValue(mechanism.pParameter, len) + " " + described(len);
}

inline std::string describedMechanism(const CK_MECHANISM* mechanism) {
  if (!mechanism) return "null";
  return "CKM " + described(mechanism->mechanism) + " " + describedParameters(*mechanism);
}

/// Pointers for results, which are written down only when they are null.
template <typename Arg>
inline constexpr bool kIsForResult =
    std::is_same_v<Arg, CK_ULONG_PTR> || std::is_same_v<Arg, CK_INFO_PTR> ||
    std::is_same_v<Arg, CK_SLOT_INFO_PTR> || std::is_same_v<Arg, CK_TOKEN_INFO_PTR> ||
    std::is_same_v<Arg, CK_SESSION_INFO_PTR> || std::is_same_v<Arg, CK_FUNCTION_LIST_PTR_PTR>;

template <typename Arg>
void describeArgument(std::vector<std::string>& parts, Arg arg) {
  if constexpr (kIsForResult<Arg>) {
    if (!arg) parts.emplace_back("null");
  } else if constexpr (std::is_same_v<Arg, CK_MECHANISM_PTR>) {
    parts.push_back(describedMechanism(arg));
  } else if constexpr (std::is_pointer_v<Arg>) {
    parts.push_back(describedPointer(arg, "set"));
  } else {
    parts.push_back(described(CK_ULONG{arg}));
  }
}

/// What the module does in each of its functions, which specialise what they do otherwise. `arguments` writes
/// the arguments of a call down; `call` is what the module does; `afterFailure`, where there is one, what it
/// still does when the call is made to fail. A function without a behaviour of its own is recorded, and not
/// supported.
template <auto Function, typename Type = FunctionType<Function>>
struct Behaviour;
template <auto Function, typename... Args>
struct Behaviour<Function, CK_RV (*)(Args...)> {
  [[nodiscard]] static std::string arguments(Args... args) {
    std::vector<std::string> parts;
    (describeArgument(parts, args), ...);
    return commaJoined(parts);
  }
  static CK_RV call(Args...) { return CKR_FUNCTION_NOT_SUPPORTED; }
};

}  // namespace mirel::test
