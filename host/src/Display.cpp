#include "host/Display.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/Hex.h"

namespace mirel {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

/// Code units that are shown by number: controls, invisible ones, and those that turn the direction of
/// writing.
bool needsEscape(char16_t unit) noexcept {
  if (unit < 0x20) return true;
  if (unit >= 0x7F && unit <= 0xA0) return true;
  if (unit == 0xAD || unit == 0xFEFF || unit == 0x061C) return true;
  return (unit >= 0x200B && unit <= 0x200F) || (unit >= 0x2028 && unit <= 0x202E) ||
         (unit >= 0x2060 && unit <= 0x206F);
}

std::string hexDigits(unsigned value, int minDigits) {
  std::string digits;
  for (; value != 0 || minDigits > 0; value >>= 4U, --minDigits)
    digits.insert(digits.begin(), kHexDigits[value & 0xFU]);
  return digits;
}

std::string escaped(char16_t unit) {
  return unit <= 0xFF ? "\\x" + hexDigits(unit, 2) : "\\u{" + hexDigits(unit, 4) + "}";
}

/// `alsoEscaped`: further code units to be shown by number.
std::string withEscapes(const Text& text, std::u16string_view alsoEscaped) {
  std::u16string printable;
  for (const char16_t unit : text.units()) {
    if (needsEscape(unit) || alsoEscaped.find(unit) != std::u16string_view::npos) {
      for (const char c : escaped(unit)) printable.push_back(static_cast<char16_t>(c));
    } else {
      printable.push_back(unit);
    }
  }
  return Text{printable}.toUtf8();
}

}  // namespace

std::string displayed(const Text& text) { return withEscapes(text, u"\\"); }

std::string displayedName(const Text& name) { return withEscapes(name, u""); }

std::string idText(const Text& id) {
  const std::u16string_view units = id.units();
  if (std::any_of(units.begin(), units.end(), [](char16_t unit) { return unit > 0xFF; }))
    return displayed(id);
  const std::vector<std::uint8_t> bytes{units.begin(), units.end()};
  return hexOfBytes(bytes, HexDigits::kLower);
}

}  // namespace mirel
