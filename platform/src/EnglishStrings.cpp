#include <algorithm>
#include <iterator>

#include "platform/LocalizedStrings.h"

namespace mirel {
namespace {

struct EnglishString {
  std::string_view key;
  std::string_view text;
};

/// Made from the English Localizable.strings.
constexpr EnglishString kEnglishStrings[] = {
#include "EnglishStrings.inc"
};

}  // namespace

std::string_view englishString(std::string_view key) noexcept {
  const auto* const row = std::find_if(std::begin(kEnglishStrings), std::end(kEnglishStrings),
                                       [&](const EnglishString& known) { return known.key == key; });
  return row == std::end(kEnglishStrings) ? key : row->text;
}

}  // namespace mirel
