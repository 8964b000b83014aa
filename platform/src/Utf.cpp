#include "platform/Utf.h"

namespace mirel {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isHighSurrogate(char32_t unit) noexcept { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char32_t unit) noexcept { return unit >= 0xDC00 && unit <= 0xDFFF; }

}  // namespace

DecodedCharacter decodedFromUtf8(std::string_view utf8) noexcept {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(utf8[i]); };
  const unsigned char first = byteAt(0);
  if (first < 0x80) return {first, 1};

  std::size_t size = 0;
  char32_t character = 0;
  char32_t smallest = 0;
  if ((first & 0xE0U) == 0xC0U) {
    size = 2, character = first & 0x1FU, smallest = 0x80;
  } else if ((first & 0xF0U) == 0xE0U) {
    size = 3, character = first & 0x0FU, smallest = 0x800;
  } else if ((first & 0xF8U) == 0xF0U) {
    size = 4, character = first & 0x07U, smallest = 0x10000;
  } else {
    return {kReplacement, 1};
  }
  if (utf8.size() < size) return {kReplacement, 1};
  for (std::size_t i = 1; i < size; ++i) {
    if ((byteAt(i) & 0xC0U) != 0x80U) return {kReplacement, 1};
    character = (character << 6U) | (byteAt(i) & 0x3FU);
  }
  const bool surrogate = isHighSurrogate(character) || isLowSurrogate(character);
  if (character < smallest || character > 0x10FFFF || surrogate) return {kReplacement, 1};
  return {character, size};
}

DecodedCharacter decodedFromUtf16(std::u16string_view units) noexcept {
  const char32_t first = units[0];
  if (isHighSurrogate(first) && units.size() > 1 && isLowSurrogate(units[1])) {
    return {0x10000U + ((first - 0xD800U) << 10U) + (units[1] - 0xDC00U), 2};
  }
  return {isHighSurrogate(first) || isLowSurrogate(first) ? kReplacement : first, 1};
}

EncodedCharacter encodedAsUtf8(char32_t character) noexcept {
  EncodedCharacter out;
  const auto put = [&](char32_t byte) { out.bytes[out.size++] = static_cast<std::uint8_t>(byte); };
  if (character < 0x80) {
    put(character);
  } else if (character < 0x800) {
    put(0xC0U | (character >> 6U));
    put(0x80U | (character & 0x3FU));
  } else if (character < 0x10000) {
    put(0xE0U | (character >> 12U));
    put(0x80U | ((character >> 6U) & 0x3FU));
    put(0x80U | (character & 0x3FU));
  } else {
    put(0xF0U | (character >> 18U));
    put(0x80U | ((character >> 12U) & 0x3FU));
    put(0x80U | ((character >> 6U) & 0x3FU));
    put(0x80U | (character & 0x3FU));
  }
  return out;
}

}  // namespace mirel
