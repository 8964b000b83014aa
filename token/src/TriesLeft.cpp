#include "TriesLeft.h"

#include <optional>
#include <string>

namespace mirel {
namespace {

constexpr std::string_view kKey = "VERIFY_TRY_LEFT";

/// The conversions of an unsigned number, behind the percent sign.
constexpr std::u16string_view kUnsigned[] = {u"lu", u"u", u"llu", u"zu", u"1$lu", u"1$u", u"1$llu", u"1$zu"};

/// The length of the conversion that `format` begins with; 0 when it is another one.
std::size_t unsignedConversionLength(std::u16string_view format) noexcept {
  for (const std::u16string_view conversion : kUnsigned) {
    if (format.starts_with(conversion)) return conversion.size();
  }
  return 0;
}

/// Nothing when the format has another conversion, more than one, or none.
std::optional<std::u16string> filled(std::u16string_view format, std::u16string_view number) {
  std::u16string text;
  bool used = false;
  while (!format.empty()) {
    const std::size_t percent = format.find(u'%');
    text += format.substr(0, percent);
    if (percent == std::u16string_view::npos) break;
    format.remove_prefix(percent + 1);
    if (format.starts_with(u'%')) {
      text += u'%';
      format.remove_prefix(1);
      continue;
    }
    const std::size_t length = unsignedConversionLength(format);
    if (length == 0 || used) return std::nullopt;
    text += number;
    used = true;
    format.remove_prefix(length);
  }
  return used ? std::optional{text} : std::nullopt;
}

}  // namespace

Text triesLeftText(LocalizedStrings& strings, std::uint64_t triesLeft) {
  const std::string digits = std::to_string(triesLeft);
  const std::u16string number{digits.begin(), digits.end()};
  const Text format = strings.localizedString(kKey);
  const auto text = filled(format.units(), number);
  if (text) return Text{*text};
  const Text english = Text::fromUtf8(englishString(kKey));
  return Text{filled(english.units(), number).value_or(number)};
}

}  // namespace mirel
