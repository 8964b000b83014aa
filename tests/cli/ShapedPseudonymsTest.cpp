#include "recording/ShapedPseudonyms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace mirel::recording {
namespace {

using Kind = PseudonymKind;
using Encoding = ShapedPseudonyms::Encoding;

std::span<std::uint8_t> bytesOf(std::string& text) {
  return {reinterpret_cast<std::uint8_t*>(text.data()), text.size()};
}

std::string replaced(ShapedPseudonyms& pseudonyms, Kind kind, std::string text,
                     Encoding encoding = Encoding::kBytes) {
  pseudonyms.replaceText(kind, bytesOf(text), encoding);
  return text;
}

ByteVector replacedNumber(ShapedPseudonyms& pseudonyms, ByteVector number) {
  pseudonyms.replaceNumber(Kind::kSerialNumber, number);
  return number;
}

TEST(ShapedPseudonyms, KeepWhatSeparatesWordsAndTheKindsOfCharacters) {
  ShapedPseudonyms pseudonyms;
  const struct {
    Kind kind;
    const char* text;
    const char* expected;
  } rows[] = {
      {Kind::kLabel, "", ""},
      {Kind::kLabel, "  -- \x01\x1B[", "  -- \x01\x1B["},
      {Kind::kLabel, "Jane  Doe\t(Signature 2)  ", "Laab  Lab\t(Labelaaab 1)  "},
      {Kind::kName, "DOE, jane; JANE.DOE@signature", "LAB, laab; LAAB.LAB@labelaaab"},
      {Kind::kSerialNumber, "AB12345678", "SE00000001"},
      // As long in bytes: two, three and four for each character.
      {Kind::kName, "M\u00FCller M\u00DCLLER", "N\u00E0meab N\u00C0MEAB"},
      {Kind::kName, "\u0416\u0437", "\u00E0\u00E1"},
      {Kind::kName, "\u07FF\u0800", "\u00E0\u4E01"},
      {Kind::kName, "\u5C71\u7530\u3000\U0002070E", "\u4E00\u4E01\u3000\U00020001"},
      // A label in Latin-1, and one whose last character was cut off.
      {Kind::kLabel, "M\xFCller", "N\xE0meab"},
      {Kind::kLabel, "M\u00FCller \u5C71\xE7", "N\u00E0meab \u4E00\xE1"},
  };
  for (const auto& [kind, text, expected] : rows) EXPECT_EQ(replaced(pseudonyms, kind, text), expected);
}

TEST(ShapedPseudonyms, AreTheSameInEveryEncoding) {
  ShapedPseudonyms pseudonyms;
  const std::string utf8 = replaced(pseudonyms, Kind::kName, "M\u00FCller");
  ASSERT_EQ(utf8, "N\u00E0meab");
  using namespace std::string_literals;
  EXPECT_EQ(replaced(pseudonyms, Kind::kName, "\0M\0\xFC\0l\0l\0e\0r"s, Encoding::kUtf16),
            "\0N\0\xE0\0m\0e\0a\0b"s);
  EXPECT_EQ(
      replaced(pseudonyms, Kind::kName, "\0\0\0M\0\0\0\xFC\0\0\0l\0\0\0l\0\0\0e\0\0\0r"s, Encoding::kUtf32),
      "\0\0\0N\0\0\0\xE0\0\0\0m\0\0\0e\0\0\0a\0\0\0b"s);
}

TEST(ShapedPseudonyms, OfDifferentWordsAreDifferent) {
  ShapedPseudonyms pseudonyms;
  for (const std::size_t size : {1U, 2U, 3U, 8U}) {
    std::set<std::string> given;
    std::string word(size, 'a');
    for (char last = 'a'; last <= 'z'; ++last) {
      word.back() = last;
      const std::string pseudonym = replaced(pseudonyms, Kind::kLabel, word);
      EXPECT_NE(pseudonym, word);
      given.insert(pseudonym);
    }
    EXPECT_EQ(given.size(), 26U) << size;
  }
}

TEST(ShapedPseudonyms, OfTheSecondRoundAreNoOriginals) {
  ShapedPseudonyms first;
  ASSERT_EQ(replaced(first, Kind::kName, "Jane Naab"), "Naab Naac");
  ShapedPseudonyms second = ShapedPseudonyms::after(first);
  EXPECT_EQ(replaced(second, Kind::kName, "Jane Naab"), "Naac Naad");
}

TEST(ShapedPseudonyms, OfNumbersKeepSignAndLength) {
  const struct {
    ByteVector number;
    ByteVector expected;
  } rows[] = {
      {{}, {}},
      {{0x05}, {0x01}},
      {{0x12, 0x34, 0x56}, {0x01, 0x00, 0x01}},
      {{0x00, 0xDD, 0xEE}, {0x00, 0x80, 0x01}},
      {{0xDD, 0xEE}, {0x80, 0x01}},
      {{0xFF, 0x12, 0x13}, {0xFF, 0x00, 0x01}},
      // not in the fewest bytes
      {{0x00, 0x12, 0x13}, {0x01, 0x00, 0x01}},
  };
  for (const auto& [number, expected] : rows) {
    ShapedPseudonyms pseudonyms;
    EXPECT_EQ(replacedNumber(pseudonyms, number), expected);
  }
}

TEST(ShapedPseudonyms, OfReadersKeepTheProduct) {
  ShapedPseudonyms pseudonyms;
  const struct {
    const char* name;
    const char* expected;
  } rows[] = {
      {"Maker Twin Reader 00 00", "Maker Twin Reader 00 00"},
      {"Maker Reader (E0FAD7BD) 01 00", "Maker Reader (R0ADE0AB) 01 00"},
      {"Slot ID 0x1dd5ef4f   ", "Slot ID 0e0de0aa0b   "},
  };
  for (const auto& [name, expected] : rows) {
    std::string text = name;
    pseudonyms.replaceInReaderName(bytesOf(text));
    EXPECT_EQ(text.size(), std::string{name}.size());
    EXPECT_EQ(text, expected);
  }
}

TEST(ShapedPseudonyms, ReplaceKnownWordsInOtherTexts) {
  ShapedPseudonyms pseudonyms;
  (void)replaced(pseudonyms, Kind::kLabel, "Key of Jane");
  std::string text = "--key label:JANE of --janet Key1";
  pseudonyms.replaceKnownWords(bytesOf(text));
  EXPECT_EQ(text, "--lab label:LAAB of --janet Key1");
}

TEST(ShapedPseudonyms, AreListedOnceAndCounted) {
  ShapedPseudonyms pseudonyms;
  (void)replaced(pseudonyms, Kind::kLabel, "Jane   ");
  (void)replaced(pseudonyms, Kind::kName, "Jane");
  (void)replaced(pseudonyms, Kind::kLabel, "--");
  (void)replacedNumber(pseudonyms, {0x12, 0x34});
  ASSERT_EQ(pseudonyms.replaced().size(), 2U);
  EXPECT_EQ(pseudonyms.replaced()[0].original, "Jane");
  EXPECT_EQ(pseudonyms.replaced()[0].pseudonym, "Laab");
  EXPECT_EQ(pseudonyms.replaced()[1].original, "1234");
  EXPECT_EQ(pseudonyms.counts(), "labels: 1\nserial numbers: 1\n");
}

}  // namespace
}  // namespace mirel::recording
