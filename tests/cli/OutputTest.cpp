#include "Output.h"

#include <gtest/gtest.h>

#include <array>

#include "ExitCode.h"
#include "Wording.h"

namespace mirel::cli {
namespace {

struct TextRow {
  const char* name;
  std::u16string_view text;
  std::string_view expected;
};

TEST(Displayed, KeepsWhatCanBePrinted) {
  constexpr std::array kRows{
      TextRow{"empty", u"", ""},
      TextRow{"ASCII", u"Card 1 ~!\"'", "Card 1 ~!\"'"},
      TextRow{"Latin 1", u"\u00A1\u00FF", "\xC2\xA1\xC3\xBF"},
      TextRow{"beyond", u"\u0100\u20AC", "\xC4\x80\xE2\x82\xAC"},
      TextRow{"pair of surrogates", u"\U0001F4B3", "\xF0\x9F\x92\xB3"},
      TextRow{"neighbours of invisible ones", u"\u200A\u2010\u2027\u202F\u205F\u2070",
              "\xE2\x80\x8A\xE2\x80\x90\xE2\x80\xA7\xE2\x80\xAF\xE2\x81\x9F\xE2\x81\xB0"},
  };
  for (const TextRow& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(displayed(Text{row.text}), row.expected);
  }
}

TEST(Displayed, ShowsWhatCannotBePrintedByNumber) {
  constexpr std::array kRows{
      TextRow{"NUL", std::u16string_view{u"\0", 1}, R"(\x00)"},
      TextRow{"NUL between letters", std::u16string_view{u"a\0b", 3}, R"(a\x00b)"},
      TextRow{"line ends and tabulator", u"\n\r\t", R"(\x0A\x0D\x09)"},
      TextRow{"escape", u"\x1B[1m", R"(\x1B[1m)"},
      TextRow{"last control", u"\x1F", R"(\x1F)"},
      TextRow{"delete", u"\x7F", R"(\x7F)"},
      TextRow{"first and last C1 control", u"\u0080\u009F", R"(\x80\x9F)"},
      TextRow{"no-break space", u"\u00A0", R"(\xA0)"},
      TextRow{"soft hyphen", u"\u00AD", R"(\xAD)"},
      TextRow{"backslash", u"\\x41", R"(\x5Cx41)"},
      TextRow{"zero width", u"\u200B\u200D", R"(\u{200B}\u{200D})"},
      TextRow{"directions", u"\u200E\u200F\u202A\u202E\u2066\u2069\u061C",
              R"(\u{200E}\u{200F}\u{202A}\u{202E}\u{2066}\u{2069}\u{061C})"},
      TextRow{"line and paragraph separator", u"\u2028\u2029", R"(\u{2028}\u{2029})"},
      TextRow{"byte order mark", u"\uFEFF", R"(\u{FEFF})"},
  };
  for (const TextRow& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(displayed(Text{row.text}), row.expected);
  }
}

TEST(Displayed, ReplacesHalfAPairOfSurrogates) {
  constexpr char16_t kHalf[] = {u'a', 0xD83D, u'b'};
  EXPECT_EQ(displayed(Text{std::u16string_view{kHalf, 3}}),
            "a\xEF\xBF\xBD"
            "b");
}

TEST(Displayed, ShowsANullTextAsNothing) { EXPECT_EQ(displayed(Text{}), ""); }

TEST(Displayed, ShowsDifferentTextsDifferently) {
  EXPECT_NE(displayed(Text{u"\x01"}), displayed(Text{u"\\x01"}));
}

TEST(DisplayedName, KeepsTheBackslash) { EXPECT_EQ(displayedName(Text{u"CN=a\\,b"}), "CN=a\\,b"); }

TEST(DisplayedName, ShowsWhatCannotBePrintedByNumber) {
  EXPECT_EQ(displayedName(Text{u"CN=\x1B[1m\u202E"}), R"(CN=\x1B[1m\u{202E})");
}

TEST(HexOf, GivesTwoDigitsForEachByte) {
  constexpr std::array kRows{
      TextRow{"empty", u"", ""},
      TextRow{"NUL", std::u16string_view{u"\0", 1}, "00"},
      TextRow{"below sixteen", u"\x01\x0F", "010F"},
      TextRow{"letters", u"Az", "417A"},
      TextRow{"upper half", u"\u0080\u00FF", "80FF"},
  };
  for (const TextRow& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(hexOf(Text{row.text}), row.expected);
  }
}

TEST(HexOf, OfANullTextIsEmpty) { EXPECT_EQ(hexOf(Text{}), ""); }

TEST(JoinedWith, PutsTheSeparatorBetween) {
  EXPECT_EQ(joinedWith(", ", {}), "");
  EXPECT_EQ(joinedWith(", ", {"one"}), "one");
  EXPECT_EQ(joinedWith(", ", {"one", "two", "three"}), "one, two, three");
}

TEST(JoinedWith, KeepsEmptyParts) { EXPECT_EQ(joinedWith(",", {"", "", "a", ""}), ",,a,"); }

TEST(Table, AlignsColumnsWithTwoBlanksBetween) {
  EXPECT_EQ(table({{"A", "LONG", "C"}, {"wide", "b", "c"}}, false),
            "A     LONG  C\n"
            "wide  b     c\n");
}

TEST(Table, LeavesNoBlanksAtTheEndOfALine) {
  EXPECT_EQ(table({{"A", "B"}, {"a", "much longer"}}, false),
            "A  B\n"
            "a  much longer\n");
}

TEST(Table, CountsCharactersNotBytes) {
  EXPECT_EQ(table({{"A", "B"}, {"\xC3\xA9\xE2\x82\xAC", "b"}, {"xyz", "c"}}, false),
            "A    B\n"
            "\xC3\xA9\xE2\x82\xAC   b\n"
            "xyz  c\n");
}

TEST(Table, TakesRowsOfDifferentLengths) {
  EXPECT_EQ(table({{"A"}, {"a", "b"}, {}}, false),
            "A\n"
            "a  b\n"
            "\n");
}

TEST(Table, HasItsHeadingInBoldWhenColoured) {
  EXPECT_EQ(table({{"A", "B"}, {"a", "b"}}, true),
            "\x1b[1mA  B\x1b[0m\n"
            "a  b\n");
}

TEST(Table, WithoutRowsIsEmpty) {
  EXPECT_EQ(table({}, false), "");
  EXPECT_EQ(table({}, true), "");
}

TEST(FailureLine, SaysWhatAndWhyAndWhatToDo) {
  EXPECT_EQ(failureLine({FailureKind::kNoCard, "no card", "none is there", "insert one"}),
            "mireltoken: no card: none is there; insert one");
}

TEST(FailureLine, LeavesOutWhatIsNotKnown) {
  EXPECT_EQ(failureLine({FailureKind::kNoCard, "no card", "", "insert one"}),
            "mireltoken: no card; insert one");
  EXPECT_EQ(failureLine({FailureKind::kNoCard, "no card", "none is there", ""}),
            "mireltoken: no card: none is there");
  EXPECT_EQ(failureLine({FailureKind::kNoCard, "no card", "", ""}), "mireltoken: no card");
}

TEST(FailureLine, NamesTheOptionThatAStepTakes) {
  EXPECT_EQ(failureLine({FailureKind::kNoCard, "no card", "none is there", UserStep::kRetryOrNameReader}),
            "mireltoken: no card: none is there; run again, or name the reader with --reader");
}

TEST(Wording, IsThereForEveryStep) {
  constexpr UserStep kLast = UserStep::kRestrictOrTrustModule;
  for (int step = 0; step <= static_cast<int>(kLast); ++step)
    EXPECT_NE(wordsOf(static_cast<UserStep>(step)), "") << step;
}

TEST(WriteMessage, WritesOneLineWhateverTheTextHolds) {
  testing::internal::CaptureStderr();
  writeMessage("a\nb\x1B[1m\xFF");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a\\x0Ab\\x1B[1m\\xFF\n");
}

TEST(WriteOutput, WritesTheTextAsItIs) {
  testing::internal::CaptureStdout();
  EXPECT_TRUE(writeOutput(std::string_view{"a\0b\n", 4}));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("a\0b\n", 4));
}

TEST(ExitCode, IsADifferentOneForEachKindOfFailure) {
  EXPECT_EQ(static_cast<int>(exitCodeOf(FailureKind::kInternal)), 1);
  EXPECT_EQ(static_cast<int>(exitCodeOf(FailureKind::kModuleNotLoadable)), 3);
  EXPECT_EQ(static_cast<int>(exitCodeOf(FailureKind::kModuleRefuses)), 4);
  EXPECT_EQ(static_cast<int>(exitCodeOf(FailureKind::kNoCard)), 5);
  EXPECT_EQ(static_cast<int>(exitCodeOf(FailureKind::kCardEnumerationFailed)), 6);
}

}  // namespace
}  // namespace mirel::cli
