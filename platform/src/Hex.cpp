#include "platform/Hex.h"

#include <string_view>

namespace mirel {
namespace {

std::string_view alphabetOf(HexDigits digits) noexcept {
  return digits == HexDigits::kUpper ? "0123456789ABCDEF" : "0123456789abcdef";
}

}  // namespace

std::string hexOfNumber(std::uint64_t number, HexDigits digits) {
  std::string text;
  do {
    text.insert(text.begin(), alphabetOf(digits)[number & 0xFU]);
    number >>= 4U;
  } while (number != 0);
  return text;
}

std::string hexOfBytes(std::span<const std::uint8_t> bytes, HexDigits digits) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    text += alphabetOf(digits)[byte >> 4U];
    text += alphabetOf(digits)[byte & 0xFU];
  }
  return text;
}

std::optional<unsigned> valueOfHexDigit(char digit) noexcept {
  if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<unsigned>(digit - 'a' + 10);
  if (digit >= 'A' && digit <= 'F') return static_cast<unsigned>(digit - 'A' + 10);
  return std::nullopt;
}

}  // namespace mirel
