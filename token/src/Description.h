#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/TokenKit.h"

namespace mirel {

/// What "%@" prints for an object: its class and address, "(null)" for none.
[[nodiscard]] inline std::string objectDescription(std::string_view className, const void* object) {
  if (!object) return "(null)";
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string digits;
  for (auto address = reinterpret_cast<std::uintptr_t>(object); address != 0; address >>= 4U) {
    digits.insert(digits.begin(), kDigits[address & 0xFU]);
  }
  std::string text{"<"};
  text.append(className).append(": 0x").append(digits).append(">");
  return text;
}

/// What "%@" prints for an error.
[[nodiscard]] inline std::string errorDescription(const TKError& error) {
  return "Error Domain=" + error.domain.orNullMark().toUtf8() + " Code=" + std::to_string(error.code);
}

/// What "%@" prints for a byte string: its length and its bytes, of a long one only the first and the last.
[[nodiscard]] std::string dataDescription(const Bytes& data);

}  // namespace mirel
