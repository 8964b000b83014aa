/// A module that hands every call on to another one, named by the environment's MIREL_CALLS_MODULE, and
/// writes the calls to the file MIREL_CALLS_FILE, each as a statement in C:
///
///     { struct mechanism m = {3UL, 0, 0}; CALL(42, 0UL, UL, P, UL)(1UL, &m, 2UL)); }
///
/// bench/bare_calls.c includes that file and so makes the same calls, with nothing around them. It is written
/// for the calls that the command line makes; another one ends the process. A PIN is never written: `pin`
/// stands for it.

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "module/Functions.h"

namespace {

using namespace mirel::test;

CK_FUNCTION_LIST* real = nullptr;
CK_FUNCTION_LIST ours{};
std::FILE* calls = nullptr;

[[noreturn]] void fail(const std::string& what) {
  (void)std::fprintf(stderr, "call_writer: %s\n", what.c_str());
  std::abort();
}

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  if (!value) fail(std::string{name} + " is not set");
  return value;
}

std::string number(CK_ULONG value) { return std::to_string(value) + "UL"; }

/// Declares an array with those bytes. Returns its name.
std::string bytes(std::string& before, const char* name, const void* data, CK_ULONG size) {
  if (!data) return "0";
  before += std::string{"static unsigned char "} + name + "[] = {0";
  before.resize(before.size() - 1);
  const auto* const byte = static_cast<const CK_BYTE*>(data);
  for (CK_ULONG i = 0; i < size; ++i) before += std::to_string(byte[i]) + ",";
  before += "0}; ";
  return name;
}

/// What is asked of an object, or looked for.
std::string attributes(std::string& before, const CK_ATTRIBUTE* list, CK_ULONG count, bool forSearch) {
  if (!list || count == 0) return "0";
  std::string entries;
  for (CK_ULONG i = 0; i < count; ++i) {
    const CK_ATTRIBUTE& entry = list[i];
    const std::string name = "v" + std::to_string(i);
    std::string value = "0";
    if (forSearch) {
      value = bytes(before, name.c_str(), entry.pValue, entry.ulValueLen);
    } else if (entry.pValue) {
      before += "static unsigned char " + name + "[" + number(entry.ulValueLen) + " + 1]; ";
      value = name;
    }
    entries += "{" + number(entry.type) + ", " + value + ", " + number(entry.ulValueLen) + "}, ";
  }
  before += "struct attribute a[] = {" + entries + "}; ";
  return "a";
}

/// Room for a count or a length. Returns its name.
std::string counter(std::string& before, const char* name, const CK_ULONG* count) {
  if (!count) return "0";
  before += std::string{"unsigned long "} + name + " = " + number(*count) + "; ";
  return std::string{"&"} + name;
}

std::string room(std::string& before, const char* name, const void* there, CK_ULONG size) {
  if (!there) return "0";
  before += std::string{"static unsigned char "} + name + "[" + number(size) + " + 1]; ";
  return name;
}

/// The arguments in C, and what has to be declared before.
template <auto Function, typename... Args>
std::string arguments(std::string& before, Args... args) {
  constexpr std::string_view kName = mirel::kCryptokiNameOf<Function>;
  const std::tuple given{args...};
  if constexpr (kName == "C_Initialize") {
    if (!std::get<0>(given)) return "0";
    before += "struct initialize i = {0, 0, 0, 0, 2UL, 0}; ";  // CKF_OS_LOCKING_OK
    return "&i";
  } else if constexpr (kName == "C_GetInfo" || kName == "C_Finalize") {
    return kName == "C_Finalize" ? "0" : room(before, "r", std::get<0>(given), sizeof(CK_INFO));
  } else if constexpr (kName == "C_GetSlotList") {
    const auto [present, list, count] = given;
    const CK_ULONG most = count ? *count : 0;
    return number(present) + ", " + room(before, "r", list, most * sizeof(CK_SLOT_ID)) + ", " +
           counter(before, "n", count);
  } else if constexpr (kName == "C_GetSlotInfo" || kName == "C_GetTokenInfo" || kName == "C_GetSessionInfo") {
    return number(std::get<0>(given)) + ", " + room(before, "r", std::get<1>(given), 512);
  } else if constexpr (kName == "C_OpenSession") {
    CK_ULONG none = 0;
    return number(std::get<0>(given)) + ", " + number(std::get<1>(given)) + ", 0, 0, " +
           counter(before, "n", &none);
  } else if constexpr (kName == "C_CloseSession" || kName == "C_Logout" || kName == "C_FindObjectsFinal") {
    return number(std::get<0>(given));
  } else if constexpr (kName == "C_Login") {
    return number(std::get<0>(given)) + ", " + number(std::get<1>(given)) + ", pin, pinLen";
  } else if constexpr (kName == "C_GetAttributeValue") {
    const auto [session, object, list, count] = given;
    return number(session) + ", " + number(object) + ", " + attributes(before, list, count, false) + ", " +
           number(count);
  } else if constexpr (kName == "C_FindObjectsInit") {
    const auto [session, list, count] = given;
    return number(session) + ", " + attributes(before, list, count, true) + ", " + number(count);
  } else if constexpr (kName == "C_FindObjects") {
    const auto [session, list, most, count] = given;
    return number(session) + ", " + room(before, "r", list, most * sizeof(CK_OBJECT_HANDLE)) + ", " +
           number(most) + ", " + counter(before, "n", count);
  } else if constexpr (kName == "C_SignInit" || kName == "C_DecryptInit") {
    const auto [session, mechanism, key] = given;
    if (!mechanism || mechanism->pParameter) fail("a mechanism with parameters");
    before += "struct mechanism m = {" + number(mechanism->mechanism) + ", 0, 0}; ";
    return number(session) + ", &m, " + number(key);
  } else if constexpr (kName == "C_Sign" || kName == "C_Decrypt") {
    const auto [session, data, dataLen, out, outLen] = given;
    return number(session) + ", " + bytes(before, "d", data, dataLen) + ", " + number(dataLen) + ", " +
           room(before, "r", out, outLen ? *outLen : 0) + ", " + counter(before, "n", outLen);
  } else {
    fail("a call that is not known: " + std::string{kName});
  }
}

template <auto Function, typename Type = FunctionType<Function>>
struct Entry;

template <auto Function, typename... Args>
struct Entry<Function, CK_RV (*)(Args...)> {
  static CK_RV call(Args... args) {
    std::string before;
    const std::string given = arguments<Function>(before, args...);
    const CK_RV rv = (real->*Function)(args...);
    std::string types;
    ((types += std::is_pointer_v<Args> ? ", P" : ", UL"), ...);
    (void)std::fprintf(calls, "{ %sCALL(%zu, %luUL%s)(%s)); }\n", before.c_str(),
                       functionPosition(mirel::kCryptokiNameOf<Function>), rv, types.c_str(), given.c_str());
    (void)std::fflush(calls);
    return rv;
  }
};

template <auto... Functions>
void fill(mirel::FunctionPack<Functions...>) {
  ours.version = real->version;
  ((ours.*Functions = &Entry<Functions>::call), ...);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = &ours;
  if (real) return CKR_OK;
  void* library = dlopen(variable("MIREL_CALLS_MODULE").c_str(), RTLD_NOW);
  if (!library) return CKR_LIBRARY_LOAD_FAILED;
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  if (!entry || entry(&real) != CKR_OK) return CKR_LIBRARY_LOAD_FAILED;
  calls = std::fopen(variable("MIREL_CALLS_FILE").c_str(), "w");
  if (!calls) return CKR_FUNCTION_FAILED;
  fill(mirel::AllFunctions{});
  return CKR_OK;
}
