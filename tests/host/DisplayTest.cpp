#include "host/Display.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "platform/Log.h"

namespace mirel::test {
namespace {

struct BytesRow {
  const char* name;
  std::string bytes;
  std::string expected;
};

Text cardText(const std::string& bytes) {
  return Text::fromBytes({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

TEST(Displayed, ShowsUtf8AsItsCharacters) {
  const BytesRow rows[] = {
      {"two bytes", "Gr\xC3\xBCn", "Gr\xC3\xBCn"},
      {"three bytes", "\xE2\x82\xAC", "\xE2\x82\xAC"},
      {"four bytes", "\xF0\x9F\x92\xB3", "\xF0\x9F\x92\xB3"},
      {"combining", "e\xCC\x81", "e\xCC\x81"},
      {"East Asian", "\xE7\x8D\xB7", "\xE7\x8D\xB7"},
  };
  for (const BytesRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(displayed(cardText(row.bytes)), row.expected);
    EXPECT_EQ(displayed(std::string_view{row.bytes}), row.expected);
  }
}

TEST(Displayed, ShowsBytesThatAreNoUtf8ByNumber) {
  const BytesRow rows[] = {
      {"Latin 1", "Gr\xFCn", R"(Gr\xFCn)"},
      {"among UTF-8", "\xC3\xBC\xFF", "\xC3\xBC\\xFF"},
      {"overlong", "\xC0\xAF\xE0\x80\x9B\xF0\x80\x80\x9B", R"(\xC0\xAF\xE0\x80\x9B\xF0\x80\x80\x9B)"},
      {"surrogate", "\xED\xA0\x80", R"(\xED\xA0\x80)"},
      {"beyond Unicode", "\xF4\x90\x80\x80", R"(\xF4\x90\x80\x80)"},
      {"cut off", "a\xE2\x82", R"(a\xE2\x82)"},
      {"continuation alone", "\x9B", R"(\x9B)"},
  };
  for (const BytesRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(displayed(cardText(row.bytes)), row.expected);
  }
}

TEST(Displayed, LetsNoCharacterControlOrMisleadATerminal) {
  const BytesRow rows[] = {
      {"escape", "\x1B[2J", R"(\x1B[2J)"},
      {"control of two bytes", "\xC2\x9B", R"(\u{009B})"},
      {"line ends", "\n\r\xE2\x80\xA8", R"(\x0A\x0D\u{2028})"},
      {"right to left", "\xE2\x80\xAE\xE2\x81\xA7", R"(\u{202E}\u{2067})"},
      {"zero width", "\xE2\x80\x8B\xEF\xBB\xBF", R"(\u{200B}\u{FEFF})"},
      {"variation", "\xEF\xB8\x8F", R"(\u{FE0F})"},
      {"invisible tags", "\xF3\xA0\x81\x81", R"(\u{E0041})"},
      {"filler", "\xE3\x85\xA4", R"(\u{3164})"},
      {"no characters", "\xEF\xBF\xBE\xEF\xB7\x90", R"(\u{FFFE}\u{FDD0})"},
      {"blank that is none, and soft hyphen", "\xC2\xA0\xC2\xAD", R"(\u{00A0}\u{00AD})"},
      {"backslash", "\\", R"(\x5C)"},
  };
  for (const BytesRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(displayed(cardText(row.bytes)), row.expected);
  }
}

TEST(Displayed, GivesBackNoControlWhateverTheBytesAre) {
  for (unsigned first = 0; first < 0x100; ++first) {
    for (unsigned second = 0; second < 0x100; ++second) {
      const std::string bytes{static_cast<char>(first), static_cast<char>(second)};
      const std::string shown = displayed(cardText(bytes));
      EXPECT_TRUE(isPrintableLine(shown)) << first << " " << second;
      EXPECT_TRUE(isValidUtf8({reinterpret_cast<const std::uint8_t*>(shown.data()), shown.size()}));
    }
  }
}

// A text with characters that are no bytes.
TEST(Displayed, ShowsCharactersByTheSameRules) {
  constexpr char16_t kHalf[] = {u'\u0100', 0xD83D, u'b'};
  const struct {
    const char* name;
    Text text;
    const char* expected;
  } rows[] = {
      {"null", Text{}, ""},
      {"empty", Text{u""}, ""},
      {"ASCII", Text{u"Card 1 ~!\"'"}, "Card 1 ~!\"'"},
      {"beyond bytes", Text{u"\u0100\u20AC\U0001F4B3"}, "\u0100\u20AC\U0001F4B3"},
      {"neighbours of invisible ones", Text{u"\u200A\u2010\u2027\u202F\u205F\u2070"},
       "\u200A\u2010\u2027\u202F\u205F\u2070"},
      {"half a pair of surrogates", Text{std::u16string_view{kHalf, 3}}, "\u0100\uFFFDb"},
      {"NUL, delete and C1", Text{std::u16string_view{u"a\0\x7F\u0080\u009F", 5}}, R"(a\x00\x7F\x80\x9F)"},
      {"bytes that are no UTF-8", Text{u"\u00A0\u00AD"}, R"(\xA0\xAD)"},
      {"zero width", Text{u"\u200B\u200D\uFEFF"}, R"(\u{200B}\u{200D}\u{FEFF})"},
      {"directions", Text{u"\u200E\u200F\u202A\u202E\u2066\u2069\u061C"},
       R"(\u{200E}\u{200F}\u{202A}\u{202E}\u{2066}\u{2069}\u{061C})"},
      {"line and paragraph separator", Text{u"\u2028\u2029"}, R"(\u{2028}\u{2029})"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(displayed(row.text), row.expected);
  }
}

TEST(DisplayedName, KeepsLatin1AndTheBackslashAndShowsControlsByNumber) {
  EXPECT_EQ(displayedName(Text{u"CN=\u00A1\u00FF\\,b\x1B[1m\u202E"}), "CN=\u00A1\u00FF\\,b\\x1B[1m\\u{202E}");
}

TEST(DisplayedAsLatin1, TakesEachByteForACharacter) {
  EXPECT_EQ(displayedAsLatin1(cardText("\x01\xFF\x80\\")), "\\x01\xC3\xBF\\x80\\x5C");
}

TEST(IdText, GivesTwoDigitsInLowerCaseForEachByte) {
  const struct {
    const char* name;
    Text id;
    const char* expected;
  } rows[] = {
      {"null", Text{}, ""},
      {"empty", Text{u""}, ""},
      {"one byte", Text{u"\x01"}, "01"},
      {"NUL first", Text{std::u16string_view{u"\0\x17", 2}}, "0017"},
      {"characters are bytes too", Text{u"A\u00FF"}, "41ff"},
      {"no bytes", Text{u"\u0100"}, "\u0100"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(idText(row.id), row.expected);
  }
}

}  // namespace
}  // namespace mirel::test
