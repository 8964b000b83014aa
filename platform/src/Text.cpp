#include "platform/Text.h"

#include <algorithm>

#include "platform/Utf.h"

namespace mirel {
Text::Text(std::u16string_view units) : units_{std::make_shared<const std::u16string>(units)} {}

Text Text::fromBytes(std::span<const std::uint8_t> bytes) {
  return Text{std::u16string{bytes.begin(), bytes.end()}};
}

Text Text::fromUtf8(std::string_view utf8) {
  std::u16string units;
  units.reserve(utf8.size());
  while (!utf8.empty()) {
    const DecodedCharacter next = decodedFromUtf8(utf8);
    utf8.remove_prefix(next.size);
    appendUtf16(units, next.character);
  }
  return Text{units};
}

std::string Text::toUtf8() const {
  std::u16string_view rest = units();
  std::string out;
  out.reserve(rest.size());
  while (!rest.empty()) {
    const DecodedCharacter next = decodedFromUtf16(rest);
    rest.remove_prefix(next.size);
    const EncodedCharacter encoded = encodedAsUtf8(next.character);
    out.append(encoded.bytes.begin(), encoded.bytes.begin() + static_cast<std::ptrdiff_t>(encoded.size));
  }
  return out;
}

Text Text::orNullMark() const { return isNull() ? Text{u"(null)"} : *this; }

Text joined(std::initializer_list<Text> parts) {
  std::u16string units;
  for (const Text& part : parts) units += part.orNullMark().units();
  return Text{units};
}

bool containsIgnoringCase(const Text& text, std::u16string_view letters) noexcept {
  const auto folded = [](char16_t unit) {
    return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
  };
  const std::u16string_view units = text.units();
  return !text.isNull() &&
         std::search(units.begin(), units.end(), letters.begin(), letters.end(),
                     [&](char16_t a, char16_t b) { return folded(a) == folded(b); }) != units.end();
}

bool isValidUtf8(std::span<const std::uint8_t> bytes) noexcept {
  std::string_view rest{reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  while (!rest.empty()) {
    const DecodedCharacter next = decodedFromUtf8(rest);
    // The replacement character itself takes three bytes.
    if (next.character == 0xFFFD && next.size == 1) return false;
    rest.remove_prefix(next.size);
  }
  return true;
}

}  // namespace mirel
