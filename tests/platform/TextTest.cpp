#include "platform/Text.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "SecretTextBytes.h"
#include "platform/Bytes.h"

namespace mirel {
namespace {

using namespace std::string_view_literals;

struct Utf8Row {
  const char* description;
  std::string_view utf8;
  std::u16string_view units;
};

/// Both kinds of texts decode the bytes to the same units, and encode those as `expected`.
void expectDecoded(std::string_view utf8, std::u16string_view units, std::string_view expected) {
  EXPECT_EQ(isValidUtf8(bytesOf(utf8)), utf8 == expected);
  const Text text = Text::fromUtf8(utf8);
  EXPECT_FALSE(text.isNull());
  EXPECT_TRUE(text.units() == units);
  const auto secret = SecretText::fromUtf8(bytesOf(utf8));
  EXPECT_FALSE(secret->isNull());
  EXPECT_EQ(secret->length(), units.size());
  EXPECT_EQ(utf8Of(*secret), expected);
}

/// Both kinds of texts encode the units as these bytes.
void expectEncoded(std::u16string_view units, std::string_view utf8) {
  EXPECT_EQ(Text{units}.toUtf8(), utf8);
  const SecretText secret{units};
  EXPECT_EQ(secret.length(), units.size());
  EXPECT_EQ(utf8Of(secret), utf8);
}

TEST(Text, TellsEmptyFromNull) {
  const Text empty{u""};
  for (const Text& text : {Text{}, empty, Text::fromBytes({})}) {
    EXPECT_TRUE(text.isEmpty());
    EXPECT_EQ(text.length(), 0U);
    EXPECT_TRUE(text.units().empty());
    EXPECT_EQ(text.toUtf8(), "");
  }
  EXPECT_TRUE(Text{}.isNull());
  EXPECT_FALSE(empty.isNull());
  EXPECT_FALSE(Text::fromBytes({}).isNull());
  EXPECT_FALSE(empty == Text{});
  EXPECT_FALSE(Text{} == empty);
  EXPECT_TRUE(empty == Text{u""});
  EXPECT_TRUE(Text{} == Text{});
}

TEST(Text, ComparesByItsUnits) {
  EXPECT_TRUE(Text{u"card"} == Text{u"card"});
  EXPECT_FALSE(Text{u"card"} == Text{u"cart"});
  EXPECT_FALSE(Text{u"card"} == Text{u"car"});
  EXPECT_FALSE((Text{std::u16string_view{u"a\0b", 3}} == Text{std::u16string_view{u"a\0c", 3}}));
}

TEST(Text, KeepsNulUnits) {
  const Text text{std::u16string_view{u"a\0b\0", 4}};
  EXPECT_EQ(text.length(), 4U);
  EXPECT_EQ(text.toUtf8(), "a\0b\0"sv);
}

TEST(Text, SharesItsStorageWithCopiesOnly) {
  const Text text{u"shared"};
  const std::array copies{text, text};
  EXPECT_TRUE(copies[0].sharesStorageWith(copies[1]));
  EXPECT_FALSE(text.sharesStorageWith(Text{u"shared"}));
  EXPECT_TRUE(Text{}.sharesStorageWith(Text{}));
}

TEST(TextFromBytes, TakesEachByteAsTheCharacterOfThatNumber) {
  std::vector<std::uint8_t> bytes(256);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
  const Text text = Text::fromBytes(bytes);
  ASSERT_EQ(text.length(), 256U);
  for (std::size_t i = 0; i < bytes.size(); ++i) EXPECT_EQ(text.units()[i], i);
}

TEST(TextFromUtf8, DecodesTheLimitsOfEveryLength) {
  const Utf8Row rows[] = {
      {"nothing", "", u""},
      {"U+0000", "\0"sv, std::u16string_view{u"\0", 1}},
      {"digits", "123456", u"123456"},
      {"U+0000 between digits", "1\0002"sv, u"1\0002"sv},
      {"U+007F", "\x7F", u"\u007F"},
      {"U+0080", "\xC2\x80", u"\u0080"},
      {"U+07FF", "\xDF\xBF", u"\u07FF"},
      {"U+0800", "\xE0\xA0\x80", u"\u0800"},
      {"U+D7FF, before the surrogates", "\xED\x9F\xBF", u"\uD7FF"},
      {"U+E000, behind the surrogates", "\xEE\x80\x80", u"\uE000"},
      {"U+FFFD itself", "\xEF\xBF\xBD", u"\uFFFD"},
      {"U+FFFF", "\xEF\xBF\xBF", u"\uFFFF"},
      {"U+10000", "\xF0\x90\x80\x80", u"\U00010000"},
      {"U+10FFFF", "\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
      // RFC 3629, section 7
      {"A, not identical to, alpha, full stop", "\x41\xE2\x89\xA2\xCE\x91\x2E", u"A\u2262\u0391."},
      {"hangugeo", "\xED\x95\x9C\xEA\xB5\xAD\xEC\x96\xB4", u"\uD55C\uAD6D\uC5B4"},
      {"nihongo", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", u"\u65E5\u672C\u8A9E"},
      {"byte order mark, stump of tree", "\xEF\xBB\xBF\xF0\xA3\x8E\xB4", u"\uFEFF\U000233B4"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    expectDecoded(row.utf8, row.units, row.utf8);
    expectEncoded(row.units, row.utf8);
  }
}

TEST(TextFromUtf8, ReplacesEachByteThatBelongsToNoValidSequence) {
  const Utf8Row rows[] = {
      {"lone continuation byte", "\x80", u"\uFFFD"},
      {"last continuation byte", "\xBF", u"\uFFFD"},
      {"FF behind a digit", "1\xFF", u"1\uFFFD"},
      {"two continuation bytes", "\x80\xBF", u"\uFFFD\uFFFD"},
      // Bytes that never appear (RFC 3629, section 1)
      {"C0", "\xC0", u"\uFFFD"},
      {"C1", "\xC1", u"\uFFFD"},
      {"F5", "\xF5\x80\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"F8 of a five-byte form", "\xF8\x88\x80\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"FC of a six-byte form", "\xFC\x84\x80\x80\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"FE and FF", "\xFE\xFF", u"\uFFFD\uFFFD"},
      // Longer than needed
      {"NUL in two bytes", "\xC0\x80", u"\uFFFD\uFFFD"},
      {"slash in two bytes", "\xC0\xAF", u"\uFFFD\uFFFD"},
      {"U+007F in two bytes", "\xC1\xBF", u"\uFFFD\uFFFD"},
      {"slash in three bytes", "\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
      {"U+07FF in three bytes", "\xE0\x9F\xBF", u"\uFFFD\uFFFD\uFFFD"},
      {"slash in four bytes", "\xF0\x80\x80\xAF", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"U+FFFF in four bytes", "\xF0\x8F\xBF\xBF", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      // Surrogates
      {"U+D800", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"U+DFFF", "\xED\xBF\xBF", u"\uFFFD\uFFFD\uFFFD"},
      {"a pair of surrogates", "\xED\xA1\x8C\xED\xBE\xB4", u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      // Beyond U+10FFFF
      {"U+110000", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      // Cut short
      {"one of two", "\xC3", u"\uFFFD"},
      {"one of three", "\xE2", u"\uFFFD"},
      {"two of three", "\xE2\x82", u"\uFFFD\uFFFD"},
      {"two of three behind a digit", "1\xE2\x82", u"1\uFFFD\uFFFD"},
      {"one of two before a digit", "\xC3\x31", u"\uFFFD1"},
      {"three of four", "\xF0\x90\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"a letter inside a sequence", "\xE2\x82\x41", u"\uFFFD\uFFFDA"},
      {"a valid sequence inside another", "\xE2\xC3\xA9", u"\uFFFD\u00E9"},
      {"valid ones around", "A\xFF\x42\xC3\xA9\x80", u"A\uFFFDB\u00E9\uFFFD"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    expectDecoded(row.utf8, row.units, Text{row.units}.toUtf8());
  }
}

TEST(TextToUtf8, ReplacesUnpairedSurrogates) {
  const struct {
    const char* description;
    std::u16string units;
    std::string_view utf8;
  } rows[] = {
      {"high alone", {0xD800}, "\xEF\xBF\xBD"},
      {"low alone", {0xDC00}, "\xEF\xBF\xBD"},
      {"the last low alone", {0xDFFF}, "\xEF\xBF\xBD"},
      {"high before a digit", {0xDBFF, u'1'}, "\xEF\xBF\xBD\x31"},
      {"high at the end", {u'a', 0xDBFF}, "a\xEF\xBF\xBD"},
      {"high before a letter", {0xD800, u'a'}, "\xEF\xBF\xBD\x61"},
      {"wrong order", {0xDC00, 0xD800}, "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"high before a pair", {0xD800, 0xD800, 0xDC00}, "\xEF\xBF\xBD\xF0\x90\x80\x80"},
      {"first pair", {0xD800, 0xDC00}, "\xF0\x90\x80\x80"},
      {"last pair", {0xDBFF, 0xDFFF}, "\xF4\x8F\xBF\xBF"},
      {"units beside the surrogates", {0xD7FF, 0xE000}, "\xED\x9F\xBF\xEE\x80\x80"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    expectEncoded(row.units, row.utf8);
  }
}

TEST(TextOrNullMark, ReplacesNullAlone) {
  EXPECT_EQ(Text{}.orNullMark(), Text{u"(null)"});
  EXPECT_EQ(Text{u""}.orNullMark(), Text{u""});
  EXPECT_EQ(Text{u"card"}.orNullMark(), Text{u"card"});
}

TEST(Joined, PutsTheTextsBehindEachOther) {
  const Text nul{std::u16string_view{u"\0", 1}};
  EXPECT_EQ(joined({Text{u"cert_"}, nul, Text{u""}, Text{u"_7"}}),
            (Text{std::u16string_view{u"cert_\0_7", 8}}));
}

TEST(Joined, ShowsNullTexts) { EXPECT_EQ(joined({Text{u"cert_"}, Text{}}), Text{u"cert_(null)"}); }

TEST(Joined, IsEmptyNotNullForNoTexts) { EXPECT_EQ(joined({}), Text{u""}); }

struct Search {
  const char* description;
  std::u16string_view text;
  std::u16string_view letters;
};

TEST(ContainsIgnoringCase, FindsTheLettersInAnyCaseAndPlace) {
  const Search rows[] = {
      {"the same", u"RSA", u"RSA"},
      {"small in the text", u"rsa", u"RSA"},
      {"small in the letters", u"RSA", u"rsa"},
      {"mixed", u"rSa", u"RsA"},
      {"at the front", u"RSA_01_MyKey", u"RSA"},
      {"in the middle", u"1234_Rsa_01", u"RSA"},
      {"at the end", u"1234_rsa", u"RSA"},
      {"across a false start", u"RSRSA", u"RSA"},
      {"A and Z, the ends of the alphabet", u"_az_", u"AZ"},
      {"a and z, the ends of the alphabet", u"_AZ_", u"az"},
      {"behind U+0000", u"a\0RSA"sv, u"RSA"},
      {"with U+0000 in the letters", u"x\0A"sv, u"\0a"sv},
      {"beside other scripts", u"\u9375_rsa_\U0001F511", u"RSA"},
      {"non-letters", u"[1_", u"[1_"},
  };
  for (const auto& row : rows)
    EXPECT_TRUE(containsIgnoringCase(Text{row.text}, row.letters)) << row.description;
}

TEST(ContainsIgnoringCase, FindsNothingElse) {
  EXPECT_FALSE(containsIgnoringCase(Text{}, u"RSA"));
  const Search rows[] = {
      {"empty", u"", u"RSA"},
      {"a part only", u"RS", u"RSA"},
      {"the letters apart", u"R-S-A", u"RSA"},
      {"cut by U+0000", u"RS\0A"sv, u"RSA"},
      // What differs from its neighbour by the same bit as a small letter from its capital
      {"[ and {", u"[", u"{"},
      {"{ and [", u"{", u"["},
      {"@ and grave accent", u"@", u"`"},
      {"^ and ~", u"^", u"~"},
      {"1 and U+0011", u"1", u"\u0011"},
      // Only A to Z have a case here.
      {"e acute", u"\u00C9", u"\u00E9"},
      {"Kelvin sign", u"\u212A", u"k"},
      {"long s", u"R\u017FA", u"RSA"},
      {"fullwidth letters", u"\uFF32\uFF33\uFF21", u"RSA"},
      {"units with the letters in their lower bytes", u"\u0152\u0153\u0141", u"RSA"},
  };
  for (const auto& row : rows)
    EXPECT_FALSE(containsIgnoringCase(Text{row.text}, row.letters)) << row.description;
}

TEST(Bytes, TellsEmptyFromNull) {
  const Bytes null;
  const Bytes empty{std::vector<std::uint8_t>{}};
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(empty.isNull());
  EXPECT_EQ(null.size(), 0U);
  EXPECT_EQ(empty.size(), 0U);
  EXPECT_TRUE(null.view().empty());
  EXPECT_FALSE(null == empty);
  EXPECT_FALSE(empty == null);
  EXPECT_TRUE(null == Bytes{});
  EXPECT_TRUE(empty == Bytes{std::vector<std::uint8_t>{}});
}

TEST(Bytes, ComparesByValue) {
  const Bytes bytes{{0x00, 0x01}};
  EXPECT_TRUE((bytes == Bytes{{0x00, 0x01}}));
  EXPECT_FALSE((bytes == Bytes{{0x00, 0x02}}));
  EXPECT_FALSE((bytes == Bytes{{0x00}}));
}

TEST(Bytes, ShowsWhatItWasMadeOf) {
  const Bytes bytes{{0xDE, 0xAD, 0x00}};
  const std::vector<std::uint8_t> seen(bytes.view().begin(), bytes.view().end());
  EXPECT_EQ(seen, (std::vector<std::uint8_t>{0xDE, 0xAD, 0x00}));
}

TEST(Bytes, SharesItsStorageWithCopiesOnly) {
  const Bytes bytes{{0x01}};
  const std::array copies{bytes, bytes};
  EXPECT_TRUE(copies[0].sharesStorageWith(copies[1]));
  EXPECT_FALSE(bytes.sharesStorageWith(Bytes{{0x01}}));
}

TEST(SecretBytesString, IsTheSameUntilItsLastCopyEndsAndThenWiped) {
  const Bytes original{std::vector<std::uint8_t>{1, 2, 3}};
  {
    Bytes secret = Bytes::secret(original);
    const Bytes copy = secret;
    secret = Bytes{};
    EXPECT_EQ(copy, original);
    EXPECT_EQ(original.view().front(), 1);
  }
  EXPECT_EQ(original, (Bytes{std::vector<std::uint8_t>{0, 0, 0}}));
}

TEST(SecretBytesString, IsNullOfNull) { EXPECT_TRUE(Bytes::secret(Bytes{}).isNull()); }

}  // namespace
}  // namespace mirel
