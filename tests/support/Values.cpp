#include "support/Values.h"

#include <cstring>

#include "platform/Bytes.h"
#include "platform/Log.h"

namespace mirel {

void PrintTo(const Text& text, std::ostream* out) {
  *out << (text.isNull() ? "null" : '"' + printableLine(text.toUtf8()) + '"');
}

void PrintTo(const Bytes& bytes, std::ostream* out) {
  *out << (bytes.isNull() ? "null" : test::hexText(bytes.view()));
}

}  // namespace mirel

namespace mirel::test {
namespace {

template <typename Structure>
Value firstBytes(const Structure& structure, std::size_t size) {
  Value bytes(size);
  std::memcpy(bytes.data(), &structure, size);
  return bytes;
}

}  // namespace

Value membersOf(const CK_SLOT_INFO& info) {
  return firstBytes(info, offsetof(CK_SLOT_INFO, firmwareVersion) + sizeof info.firmwareVersion);
}
Value membersOf(const CK_TOKEN_INFO& info) {
  return firstBytes(info, offsetof(CK_TOKEN_INFO, utcTime) + sizeof info.utcTime);
}
Value membersOf(const CK_SESSION_INFO& info) { return firstBytes(info, sizeof info); }

std::vector<std::string> inOrder(std::initializer_list<std::vector<std::string>> lists) {
  std::vector<std::string> all;
  for (const auto& list : lists) all.insert(all.end(), list.begin(), list.end());
  return all;
}

std::vector<std::string> lookUpCalls(CK_OBJECT_HANDLE object, const std::string& idText) {
  const std::string read = "C_GetAttributeValue(5, " + std::to_string(object) + ", [CKA_ID room ";
  return {read + "255])",
          read + "2])",
          "C_FindObjectsInit(5, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=" + idText + "])",
          "C_FindObjects(5, 1)",
          "C_FindObjects(5, 1)",
          "C_FindObjectsFinal(5)"};
}

std::vector<std::string> modulusCalls(CK_OBJECT_HANDLE object) {
  const std::string read = "C_GetAttributeValue(5, " + std::to_string(object) + ", [CKA_MODULUS ";
  return {read + "null 0])", read + "room 256])", read + "room 256])"};
}

}  // namespace mirel::test
