/// A module that hands every call on to another one, named by the environment's MIREL_WITNESS_MODULE,
/// and writes the objects that its searches find into the file MIREL_WITNESS_FILE, which stays open: one
/// line for each, in the order in which they are handed out, with the class, the ID and the label as
/// hexadecimal digits. What order a module has can differ from process to process, so only a witness in
/// the same process knows it.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

#include "bridge/cryptoki.h"

namespace {

CK_FUNCTION_LIST* real = nullptr;
CK_FUNCTION_LIST ours{};
int witnessFile = -1;

std::string hexOf(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string digits;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    digits += kDigits[byte >> 4U];
    digits += kDigits[byte & 0xFU];
  }
  return digits;
}

std::string attribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  std::array<char, 512> value{};
  CK_ATTRIBUTE entry{type, value.data(), value.size()};
  if (real->C_GetAttributeValue(session, object, &entry, 1) != CKR_OK) return "unreadable";
  return {value.data(), entry.ulValueLen};
}

void witness(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  const std::string objectClass = attribute(session, object, CKA_CLASS);
  const std::string line = std::to_string(static_cast<int>(objectClass.front())) + " " +
                           hexOf(attribute(session, object, CKA_ID)) + " " +
                           hexOf(attribute(session, object, CKA_LABEL)) + "\n";
  if (write(witnessFile, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG room,
                  CK_ULONG_PTR count) {
  const CK_RV rv = real->C_FindObjects(session, objects, room, count);
  for (CK_ULONG i = 0; rv == CKR_OK && i < *count; ++i) witness(session, objects[i]);
  return rv;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  const char* modulePath = std::getenv("MIREL_WITNESS_MODULE");
  const char* filePath = std::getenv("MIREL_WITNESS_FILE");
  if (!modulePath || !filePath) return CKR_ARGUMENTS_BAD;
  void* library = dlopen(modulePath, RTLD_NOW);
  if (!library) return CKR_LIBRARY_LOAD_FAILED;
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  if (!entry || entry(&real) != CKR_OK) return CKR_LIBRARY_LOAD_FAILED;
  if (witnessFile < 0) witnessFile = open(filePath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (witnessFile < 0) return CKR_FUNCTION_FAILED;
  ours = *real;
  ours.C_GetFunctionList = &C_GetFunctionList;
  ours.C_FindObjects = &findObjects;
  *list = &ours;
  return CKR_OK;
}
