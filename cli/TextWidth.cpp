#include "TextWidth.h"

#include <algorithm>
#include <array>

#include "platform/Utf.h"

namespace mirel::cli {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

/// Marks that stand with the character before them, of the scripts that names are mostly written in.
constexpr std::array kWithoutWidth{
    Range{0x0300, 0x036F}, Range{0x0483, 0x0489},  // Latin, Greek, Cyrillic
    Range{0x0591, 0x05BD}, Range{0x05BF, 0x05BF}, Range{0x05C1, 0x05C2}, Range{0x05C4, 0x05C5},
    Range{0x05C7, 0x05C7},  // Hebrew
    Range{0x0610, 0x061A}, Range{0x064B, 0x065F}, Range{0x0670, 0x0670}, Range{0x06D6, 0x06DC},
    Range{0x06DF, 0x06E4}, Range{0x06E7, 0x06E8}, Range{0x06EA, 0x06ED},  // Arabic
    Range{0x0711, 0x0711}, Range{0x0730, 0x074A}, Range{0x07A6, 0x07B0}, Range{0x08E3, 0x0902},
    Range{0x093A, 0x093A}, Range{0x093C, 0x093C}, Range{0x0941, 0x0948}, Range{0x094D, 0x094D},
    Range{0x0951, 0x0957}, Range{0x0962, 0x0963},                         // Devanagari
    Range{0x0E31, 0x0E31}, Range{0x0E34, 0x0E3A}, Range{0x0E47, 0x0E4E},  // Thai
    Range{0x0EB1, 0x0EB1}, Range{0x0EB4, 0x0EBC}, Range{0x0EC8, 0x0ECE},  // Lao
    Range{0x1160, 0x11FF},                                                // the rest of a Korean syllable
    Range{0x1AB0, 0x1AFF}, Range{0x1DC0, 0x1DFF}, Range{0x20D0, 0x20F0}, Range{0x302A, 0x302D},
    Range{0x3099, 0x309A}, Range{0xA66F, 0xA672}, Range{0xA674, 0xA67D}, Range{0xFE20, 0xFE2F},
};

/// Characters of the East Asian Width "wide" and "fullwidth" (Unicode Standard Annex #11), by their blocks.
constexpr std::array kWide{
    Range{0x1100, 0x115F},   Range{0x231A, 0x231B},   Range{0x2329, 0x232A},   Range{0x2E80, 0x303E},
    Range{0x3041, 0x4DBF},   Range{0x4E00, 0xA4CF},   Range{0xA960, 0xA97F},   Range{0xAC00, 0xD7A3},
    Range{0xF900, 0xFAFF},   Range{0xFE10, 0xFE1F},   Range{0xFE30, 0xFE6F},   Range{0xFF01, 0xFF60},
    Range{0xFFE0, 0xFFE6},   Range{0x16FE0, 0x18DFF}, Range{0x1AFF0, 0x1B2FF}, Range{0x1F004, 0x1F004},
    Range{0x1F0CF, 0x1F0CF}, Range{0x1F18E, 0x1F18E}, Range{0x1F191, 0x1F19A}, Range{0x1F200, 0x1F320},
    Range{0x1F32D, 0x1F335}, Range{0x1F337, 0x1F37C}, Range{0x1F37E, 0x1F393}, Range{0x1F3A0, 0x1F3CA},
    Range{0x1F3CF, 0x1F3D3}, Range{0x1F3E0, 0x1F3F0}, Range{0x1F3F8, 0x1F43E}, Range{0x1F442, 0x1F4FC},
    Range{0x1F4FF, 0x1F53D}, Range{0x1F550, 0x1F567}, Range{0x1F5FB, 0x1F64F}, Range{0x1F680, 0x1F6C5},
    Range{0x1F900, 0x1F9FF}, Range{0x1FA70, 0x1FAFF}, Range{0x20000, 0x3FFFD},
};

template <std::size_t kCount>
bool isIn(const std::array<Range, kCount>& ranges, char32_t character) noexcept {
  if (character < ranges.front().first) return false;  // as most characters are
  const auto* const range = std::lower_bound(ranges.begin(), ranges.end(), character,
                                             [](const Range& r, char32_t c) { return r.last < c; });
  return range != ranges.end() && range->first <= character;
}

std::size_t columnsOf(char32_t character) noexcept {
  if (isIn(kWithoutWidth, character)) return 0;
  return isIn(kWide, character) ? 2 : 1;
}

}  // namespace

std::size_t columnsOf(std::string_view utf8) noexcept {
  std::size_t columns = 0;
  while (!utf8.empty()) {
    const DecodedCharacter next = decodedFromUtf8(utf8);
    utf8.remove_prefix(next.size);
    columns += columnsOf(next.character);
  }
  return columns;
}

std::string_view firstColumns(std::string_view utf8, std::size_t columns) noexcept {
  std::size_t size = 0;
  while (size < utf8.size()) {
    const DecodedCharacter next = decodedFromUtf8(utf8.substr(size));
    const std::size_t width = columnsOf(next.character);
    if (width > columns) break;
    columns -= width;
    size += next.size;
  }
  return utf8.substr(0, size);
}

}  // namespace mirel::cli
