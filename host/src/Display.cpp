#include "host/Display.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "platform/Hex.h"
#include "platform/Utf.h"

namespace mirel {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

struct Range {
  char32_t first;
  char32_t last;
};

/// Characters that are shown by number, in order: controls, invisible ones, those that turn the direction of
/// writing, and those that are no characters.
constexpr std::array kShownByNumber{
    Range{0x0, 0x1F},        Range{0x7F, 0xA0},       Range{0xAD, 0xAD},        Range{0x034F, 0x034F},
    Range{0x061C, 0x061C},   Range{0x115F, 0x1160},   Range{0x17B4, 0x17B5},    Range{0x180B, 0x180F},
    Range{0x200B, 0x200F},   Range{0x2028, 0x202E},   Range{0x2060, 0x206F},    Range{0x2800, 0x2800},
    Range{0x3164, 0x3164},   Range{0xFDD0, 0xFDEF},   Range{0xFE00, 0xFE0F},    Range{0xFEFF, 0xFEFF},
    Range{0xFFA0, 0xFFA0},   Range{0xFFF0, 0xFFFB},   Range{0xFFFE, 0xFFFF},    Range{0x1BCA0, 0x1BCA3},
    Range{0x1D173, 0x1D17A}, Range{0xE0000, 0xE0FFF}, Range{0xF0000, 0x10FFFF},
};

bool isShownByNumber(char32_t character) noexcept {
  const auto* const range = std::lower_bound(kShownByNumber.begin(), kShownByNumber.end(), character,
                                             [](const Range& r, char32_t c) { return r.last < c; });
  return range != kShownByNumber.end() && range->first <= character;
}

std::string hexDigits(char32_t value, int minDigits) {
  std::string digits;
  for (; value != 0 || minDigits > 0; value >>= 4U, --minDigits)
    digits.insert(digits.begin(), kHexDigits[value & 0xFU]);
  return digits;
}

/// `largestByte`: up to there the number is shown as that of a byte.
std::string numberOf(char32_t character, char32_t largestByte) {
  return character <= largestByte ? "\\x" + hexDigits(character, 2) : "\\u{" + hexDigits(character, 4) + "}";
}

std::string withCharactersByNumber(const Text& text, std::string_view alsoByNumber) {
  const std::string utf8 = text.toUtf8();
  std::string shown;
  for (std::string_view rest = utf8; !rest.empty();) {
    const DecodedCharacter next = decodedFromUtf8(rest);
    const std::string_view bytes = rest.substr(0, next.size);
    rest.remove_prefix(next.size);
    const bool byNumber =
        isShownByNumber(next.character) || alsoByNumber.find(bytes) != std::string_view::npos;
    shown += byNumber ? numberOf(next.character, 0xFF) : std::string{bytes};
  }
  return shown;
}

/// The bytes of a text of the card; of another one, its UTF-8.
std::string bytesOf(const Text& text) {
  const std::u16string_view units = text.units();
  if (std::any_of(units.begin(), units.end(), [](char16_t unit) { return unit > 0xFF; }))
    return text.toUtf8();
  std::string bytes;
  for (const char16_t unit : units) bytes.push_back(static_cast<char>(unit));
  return bytes;
}

}  // namespace

std::string displayed(std::string_view utf8) {
  std::string shown;
  while (!utf8.empty()) {
    const DecodedCharacter next = decodedFromUtf8(utf8);
    const std::string_view bytes = utf8.substr(0, next.size);
    utf8.remove_prefix(next.size);
    const auto byte = static_cast<unsigned char>(bytes.front());
    if (next.size == 1 && byte >= 0x80) {  // part of no character
      shown += numberOf(byte, 0xFF);
    } else if (isShownByNumber(next.character) || byte == '\\') {
      shown += numberOf(next.character, 0x7F);
    } else {
      shown += bytes;
    }
  }
  return shown;
}

std::string displayed(const Text& text) { return displayed(std::string_view{bytesOf(text)}); }

std::string displayedName(const Text& name) { return withCharactersByNumber(name, ""); }

std::string displayedAsLatin1(const Text& text) { return withCharactersByNumber(text, "\\"); }

std::string idText(const Text& id) {
  const std::u16string_view units = id.units();
  if (std::any_of(units.begin(), units.end(), [](char16_t unit) { return unit > 0xFF; }))
    return displayed(id);
  const std::vector<std::uint8_t> bytes{units.begin(), units.end()};
  return hexOfBytes(bytes, HexDigits::kLower);
}

}  // namespace mirel
