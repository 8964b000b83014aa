#include "platform/Text.h"

#include <initializer_list>

namespace mirel {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

struct Decoded {
  char32_t codePoint;
  std::size_t length;  // bytes
};

/// Decodes the sequence at the front of `text` (not empty); an invalid one counts as one byte.
Decoded decodeUtf8(std::string_view text) noexcept {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byteAt(0);
  if (first < 0x80) return {first, 1};

  std::size_t length = 0;
  char32_t codePoint = 0;
  char32_t smallest = 0;
  if ((first & 0xE0U) == 0xC0U) {
    length = 2, codePoint = first & 0x1FU, smallest = 0x80;
  } else if ((first & 0xF0U) == 0xE0U) {
    length = 3, codePoint = first & 0x0FU, smallest = 0x800;
  } else if ((first & 0xF8U) == 0xF0U) {
    length = 4, codePoint = first & 0x07U, smallest = 0x10000;
  } else {
    return {kReplacement, 1};
  }
  if (text.size() < length) return {kReplacement, 1};
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(i) & 0xC0U) != 0x80U) return {kReplacement, 1};
    codePoint = (codePoint << 6U) | (byteAt(i) & 0x3FU);
  }
  const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < smallest || codePoint > 0x10FFFF || surrogate) return {kReplacement, 1};
  return {codePoint, length};
}

void appendUtf8(std::string& out, char32_t codePoint) {
  const auto put = [&](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (codePoint < 0x80) {
    put(codePoint);
  } else if (codePoint < 0x800) {
    put(0xC0U | (codePoint >> 6U));
    put(0x80U | (codePoint & 0x3FU));
  } else if (codePoint < 0x10000) {
    put(0xE0U | (codePoint >> 12U));
    put(0x80U | ((codePoint >> 6U) & 0x3FU));
    put(0x80U | (codePoint & 0x3FU));
  } else {
    put(0xF0U | (codePoint >> 18U));
    put(0x80U | ((codePoint >> 12U) & 0x3FU));
    put(0x80U | ((codePoint >> 6U) & 0x3FU));
    put(0x80U | (codePoint & 0x3FU));
  }
}

}  // namespace

Text::Text(std::u16string_view units) : units_{std::make_shared<const std::u16string>(units)} {}

Text Text::fromBytes(std::span<const std::uint8_t> bytes) {
  return Text{std::u16string{bytes.begin(), bytes.end()}};
}

Text Text::fromUtf8(std::string_view utf8) {
  std::u16string units;
  units.reserve(utf8.size());
  while (!utf8.empty()) {
    const auto [codePoint, length] = decodeUtf8(utf8);
    utf8.remove_prefix(length);
    if (codePoint < 0x10000) {
      units.push_back(static_cast<char16_t>(codePoint));
    } else {
      const char32_t offset = codePoint - 0x10000;
      units.push_back(static_cast<char16_t>(0xD800U + (offset >> 10U)));
      units.push_back(static_cast<char16_t>(0xDC00U + (offset & 0x3FFU)));
    }
  }
  return Text{units};
}

std::string Text::toUtf8() const {
  const std::u16string_view units = this->units();
  std::string out;
  out.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    const char32_t unit = units[i];
    const bool high = unit >= 0xD800 && unit <= 0xDBFF;
    const bool low = unit >= 0xDC00 && unit <= 0xDFFF;
    if (high && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
      appendUtf8(out, 0x10000U + ((unit - 0xD800U) << 10U) + (units[++i] - 0xDC00U));
    } else {
      appendUtf8(out, high || low ? kReplacement : unit);
    }
  }
  return out;
}

Text Text::orNullMark() const { return isNull() ? Text{u"(null)"} : *this; }

Text joined(std::initializer_list<Text> parts) {
  std::u16string units;
  for (const Text& part : parts) units += part.orNullMark().units();
  return Text{units};
}

}  // namespace mirel
