#include "platform/Log.h"

#include <algorithm>

#include "platform/Hex.h"

namespace mirel {
namespace {

/// The length in bytes of the conversion at the front of `format`.
std::size_t conversionLength(std::string_view format) noexcept {
  constexpr std::string_view kLongConversions[] = {"%lu", "%lX", "%hhd"};
  for (const std::string_view conversion : kLongConversions) {
    if (format.starts_with(conversion)) return conversion.size();
  }
  return 2;
}

void appendEscaped(std::string& out, unsigned char byte) {
  out.append("\\x").append(hexOfBytes({&byte, 1}, HexDigits::kUpper));
}

/// The bytes of the UTF-8 character at the front of `line` (not empty); a single byte when none is
/// there.
std::string_view characterAtFront(std::string_view line) {
  const auto first = static_cast<unsigned char>(line.front());
  const std::size_t length = first < 0xC0 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  const std::string_view character = line.substr(0, length);
  return length > 1 && Text::fromUtf8(character).toUtf8() == character ? character : line.substr(0, 1);
}

/// Whether a character turns the direction of writing, so that a line would read otherwise than it is.
bool turnsDirection(char16_t unit) noexcept {
  return unit == 0x061C || unit == 0x200E || unit == 0x200F || (unit >= 0x202A && unit <= 0x202E) ||
         (unit >= 0x2066 && unit <= 0x2069);
}

/// True for a whole UTF-8 character that does not control the terminal, end the line or turn its direction.
bool isPrintable(std::string_view character) {
  const auto first = static_cast<unsigned char>(character.front());
  if (character.size() == 1) return first >= 0x20 && first < 0x7F;
  const char16_t unit = Text::fromUtf8(character).units().front();
  const bool c1Control = unit >= 0x80 && unit < 0xA0;
  const bool lineBreak = unit == 0x2028 || unit == 0x2029;
  return !c1Control && !lineBreak && !turnsDirection(unit);
}

}  // namespace

std::string filledLogLine(std::string_view format, std::initializer_list<LogArgument> arguments) {
  std::string line;
  const LogArgument* argument = arguments.begin();
  while (!format.empty()) {
    const std::size_t percent = format.find('%');
    line += format.substr(0, percent);
    if (percent == std::string_view::npos) break;
    format.remove_prefix(percent);
    if (argument != arguments.end()) line += (argument++)->text();
    format.remove_prefix(std::min(conversionLength(format), format.size()));
  }
  return line;
}

std::string printableLine(std::string_view line) {
  std::string out;
  out.reserve(line.size());
  while (!line.empty()) {
    const std::string_view character = characterAtFront(line);
    line.remove_prefix(character.size());
    if (isPrintable(character)) {
      out += character;
    } else {
      for (const char c : character) appendEscaped(out, static_cast<unsigned char>(c));
    }
  }
  return out;
}

bool isPrintableLine(std::string_view line) {
  while (!line.empty()) {
    const std::string_view character = characterAtFront(line);
    if (!isPrintable(character)) return false;
    line.remove_prefix(character.size());
  }
  return true;
}

}  // namespace mirel
