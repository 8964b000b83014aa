#include "platform/SecretText.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "FreedBlocks.h"
#include "SecretTextBytes.h"
#include "platform/Memory.h"

namespace mirel {
namespace {

using namespace std::string_view_literals;
using test::FreedBlocks;

/// Odd lengths and those around the steps in which containers grow.
constexpr std::size_t kLengths[] = {2, 3, 4, 6, 7, 8, 9, 15, 16, 17, 33, 64, 1000};

TEST(SecretText, TellsEmptyFromNull) {
  const SecretText null;
  const SecretText empty{u""};
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(empty.isNull());
  EXPECT_FALSE(SecretText::fromUtf8({})->isNull());
  for (const SecretText* text : {&null, &empty}) {
    EXPECT_EQ(text->length(), 0U);
    EXPECT_EQ(utf8Of(*text), "");
  }
}

TEST(SecretText, CannotBeCopiedOrMoved) {
  EXPECT_FALSE(std::is_copy_constructible_v<SecretText>);
  EXPECT_FALSE(std::is_copy_assignable_v<SecretText>);
  EXPECT_FALSE(std::is_move_constructible_v<SecretText>);
  EXPECT_FALSE(std::is_move_assignable_v<SecretText>);
}

TEST(SecretTextCopyUtf8, WritesWhatFitsAndLeavesTheRestAlone) {
  // One, two, three and four bytes.
  const SecretText text{u"1\u00E9\u20AC\U0001F511"};
  const std::string_view whole = "1\xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\x91";
  for (std::size_t room = 0; room <= whole.size() + 2; ++room) {
    SCOPED_TRACE(room);
    std::vector<std::uint8_t> out(16, 0xA5);
    const std::size_t fits = std::min(room, whole.size());
    EXPECT_EQ(text.copyUtf8(std::span{out}.first(room)), fits);
    EXPECT_EQ((std::string{out.begin(), out.begin() + static_cast<std::ptrdiff_t>(fits)}),
              whole.substr(0, fits));
    EXPECT_EQ((std::vector<std::uint8_t>{out.begin() + static_cast<std::ptrdiff_t>(fits), out.end()}),
              std::vector<std::uint8_t>(out.size() - fits, 0xA5));
  }
}

TEST(SecretTextCopyUtf8, WritesNothingForANullText) {
  std::array<std::uint8_t, 8> out{1, 2, 3};
  const auto before = out;
  EXPECT_EQ(SecretText{}.copyUtf8(out), 0U);
  EXPECT_EQ(out, before);
}

TEST(SecretTextCopyUtf8, CanBeRepeated) {
  const SecretText text{u"1234"};
  EXPECT_EQ(utf8Of(text), "1234");
  EXPECT_EQ(utf8Of(text), "1234");
}

/// That the look into freed blocks sees anything at all.
TEST(FreedBlocks, SeesABlockThatWasNotWiped) {
  static constexpr std::u16string_view kUnits = u"a text that is too long for the string itself";
  const FreedBlocks freed{bytesOf(kUnits)};
  { const std::vector<char16_t> kept{kUnits.begin(), kUnits.end()}; }
  EXPECT_EQ(freed.withNeedle(), 1U);
  EXPECT_GE(freed.count(), 1U);
}

TEST(SecretTextMemory, HoldsNothingOfItWhenItIsGivenBack) {
  // The needle is the text's last two digits, so that a part that stays is noticed too.
  for (const std::size_t length : kLengths) {
    SCOPED_TRACE(length);
    for (const std::u16string_view tail : {u"79"sv, u"\u00E9\u00E8"sv}) {
      const std::u16string units = std::u16string(length - 2, tail.front()) + std::u16string{tail};
      const FreedBlocks freed{bytesOf(tail)};
      {
        const SecretText text{units};
        EXPECT_EQ(text.length(), length);
      }
      EXPECT_EQ(freed.withNeedle(), 0U);
      EXPECT_EQ(freed.count(), 1U) << "it has one block, which is never moved";
    }
  }
}

TEST(SecretTextMemory, HoldsNothingOfItWhenItWasDecoded) {
  for (const std::size_t length : kLengths) {
    SCOPED_TRACE(length);
    for (const bool ascii : {true, false}) {
      std::string utf8;
      for (std::size_t i = 2; i < length; ++i) utf8 += ascii ? "5" : "\xF0\x9F\x94\x91";
      utf8 += "79";
      const FreedBlocks freed{bytesOf(u"79"sv)};
      SecretText::fromUtf8(bytesOf(std::string_view{utf8})).reset();
      EXPECT_EQ(freed.withNeedle(), 0U);
      EXPECT_EQ(freed.count(), 2U) << "one block for the object and one for the text, never moved";
    }
  }
}

TEST(SecretTextMemory, HoldsNoUtf8OfIt) {
  static constexpr std::string_view kPin = "24681357";
  const FreedBlocks freed{bytesOf(kPin)};
  std::array<std::uint8_t, 8> out{};
  SecretText::fromUtf8(bytesOf(kPin))->copyUtf8(out);
  EXPECT_EQ(freed.withNeedle(), 0U);
}

TEST(Wipe, ZeroesThoseBytesAndNoOther) {
  for (const std::size_t size : {0U, 1U, 7U, 8U, 9U, 30U}) {
    SCOPED_TRACE(size);
    std::vector<std::uint8_t> bytes(32, 0xA5);
    std::vector<std::uint8_t> expected = bytes;
    std::fill_n(expected.begin() + 1, size, std::uint8_t{0});
    wipe(bytes.data() + 1, size);
    EXPECT_EQ(bytes, expected);
  }
}

TEST(Wipe, TakesNullForNoBytes) { wipe(nullptr, 0); }

TEST(Wipe, IsNotLeftOutBeforeTheMemoryIsGivenBack) {
  static constexpr std::string_view kPin = "24681357";
  const FreedBlocks freed{bytesOf(kPin)};
  {
    std::vector<char> bytes{kPin.begin(), kPin.end()};
    wipe(bytes.data(), bytes.size());
  }
  EXPECT_EQ(freed.withNeedle(), 0U);
  EXPECT_GE(freed.count(), 1U);
}

}  // namespace
}  // namespace mirel
