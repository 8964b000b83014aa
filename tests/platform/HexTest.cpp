#include "platform/Hex.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

namespace mirel {
namespace {

TEST(HexOfNumber, WritesDigitsWithoutLeadingZeros) {
  const std::pair<std::uint64_t, const char*> rows[] = {
      {0, "0"},
      {9, "9"},
      {10, "A"},
      {16, "10"},
      {0xABCDEF, "ABCDEF"},
      {0x0123456789, "123456789"},
      {0x8000000000000000, "8000000000000000"},
      {std::numeric_limits<std::uint64_t>::max(), "FFFFFFFFFFFFFFFF"},
  };
  for (const auto& [number, expected] : rows) EXPECT_EQ(hexOfNumber(number, HexDigits::kUpper), expected);
}

TEST(HexOfNumber, WritesSmallLetters) { EXPECT_EQ(hexOfNumber(0xBEEF09, HexDigits::kLower), "beef09"); }

TEST(HexOfBytes, WritesTwoDigitsForEachByte) {
  const std::array<std::uint8_t, 4> bytes{0x00, 0x09, 0xA0, 0xFF};
  EXPECT_EQ(hexOfBytes(bytes, HexDigits::kUpper), "0009A0FF");
  EXPECT_EQ(hexOfBytes(bytes, HexDigits::kLower), "0009a0ff");
  EXPECT_EQ(hexOfBytes({}, HexDigits::kUpper), "");
}

}  // namespace
}  // namespace mirel
