#pragma once

/// The two encodings of Unicode that texts pass between: UTF-8 (RFC 3629) and UTF-16 (RFC 2781).

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace mirel {

struct DecodedCharacter {
  char32_t character = 0;  ///< U+FFFD for what is not valid
  std::size_t size = 0;    ///< bytes or code units that it takes up
};

struct EncodedCharacter {
  std::array<std::uint8_t, 4> bytes{};
  std::size_t size = 0;
};

/// The character at the front of `utf8` (not empty); an invalid sequence counts as one byte.
[[nodiscard]] DecodedCharacter decodedFromUtf8(std::string_view utf8) noexcept;

/// The character at the front of `units` (not empty); an unpaired surrogate counts as one unit.
[[nodiscard]] DecodedCharacter decodedFromUtf16(std::u16string_view units) noexcept;

[[nodiscard]] EncodedCharacter encodedAsUtf8(char32_t character) noexcept;

/// `Units`: a container of char16_t.
template <typename Units>
void appendUtf16(Units& units, char32_t character) {
  if (character < 0x10000) {
    units.push_back(static_cast<char16_t>(character));
    return;
  }
  const char32_t offset = character - 0x10000;
  units.push_back(static_cast<char16_t>(0xD800U + (offset >> 10U)));
  units.push_back(static_cast<char16_t>(0xDC00U + (offset & 0x3FFU)));
}

}  // namespace mirel
