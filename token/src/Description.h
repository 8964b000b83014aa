#pragma once

#include <cstdint>
#include <string>
#include <string_view>

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

}  // namespace mirel
