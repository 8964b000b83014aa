#include "Output.h"

#include <gtest/gtest.h>

#include <initializer_list>

#include "ExitCode.h"
#include "TextWidth.h"
#include "Wording.h"

namespace mirel::cli {
namespace {

struct TextRow {
  const char* name;
  std::u16string_view text;
  std::string_view expected;
};

void expectEach(std::initializer_list<TextRow> rows, std::string (*shown)(const Text&)) {
  for (const TextRow& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(shown(Text{row.text}), row.expected);
  }
}

TEST(Displayed, KeepsWhatCanBePrinted) {
  expectEach({{"empty", u"", ""},
              {"ASCII", u"Card 1 ~!\"'", "Card 1 ~!\"'"},
              {"beyond", u"\u0100\u20AC", "\xC4\x80\xE2\x82\xAC"},
              {"pair of surrogates", u"\U0001F4B3", "\xF0\x9F\x92\xB3"},
              {"neighbours of invisible ones", u"\u200A\u2010\u2027\u202F\u205F\u2070",
               "\xE2\x80\x8A\xE2\x80\x90\xE2\x80\xA7\xE2\x80\xAF\xE2\x81\x9F\xE2\x81\xB0"}},
             &displayed);
  EXPECT_EQ(displayed(Text{}), "");
}

TEST(Displayed, ShowsWhatCannotBePrintedByNumber) {
  expectEach({{"NUL", std::u16string_view{u"\0", 1}, R"(\x00)"},
              {"NUL between letters", std::u16string_view{u"a\0b", 3}, R"(a\x00b)"},
              {"line ends and tabulator", u"\n\r\t", R"(\x0A\x0D\x09)"},
              {"escape", u"\x1B[1m", R"(\x1B[1m)"},
              {"last control", u"\x1F", R"(\x1F)"},
              {"delete", u"\x7F", R"(\x7F)"},
              {"first and last C1 control", u"\u0080\u009F", R"(\x80\x9F)"},
              {"no-break space", u"\u00A0", R"(\xA0)"},
              {"soft hyphen", u"\u00AD", R"(\xAD)"},
              {"backslash, unlike the control of that number", u"\\x01", R"(\x5Cx01)"},
              {"zero width", u"\u200B\u200D", R"(\u{200B}\u{200D})"},
              {"directions", u"\u200E\u200F\u202A\u202E\u2066\u2069\u061C",
               R"(\u{200E}\u{200F}\u{202A}\u{202E}\u{2066}\u{2069}\u{061C})"},
              {"line and paragraph separator", u"\u2028\u2029", R"(\u{2028}\u{2029})"},
              {"byte order mark", u"\uFEFF", R"(\u{FEFF})"}},
             &displayed);
}

TEST(Displayed, ReplacesHalfAPairOfSurrogates) {
  constexpr char16_t kHalf[] = {u'a', 0xD83D, u'b'};
  EXPECT_EQ(displayed(Text{std::u16string_view{kHalf, 3}}),
            "a\xEF\xBF\xBD"
            "b");
}

TEST(DisplayedName, TakesLatin1ForCharacters) {
  EXPECT_EQ(displayedName(Text{u"\u00A1\u00FF"}), "\xC2\xA1\xC3\xBF");
}

TEST(DisplayedName, KeepsTheBackslash) { EXPECT_EQ(displayedName(Text{u"CN=a\\,b"}), "CN=a\\,b"); }

TEST(DisplayedName, ShowsWhatCannotBePrintedByNumber) {
  EXPECT_EQ(displayedName(Text{u"CN=\x1B[1m\u202E"}), R"(CN=\x1B[1m\u{202E})");
}

TEST(HexOf, GivesTwoDigitsForEachByte) {
  expectEach({{"empty", u"", ""},
              {"NUL", std::u16string_view{u"\0", 1}, "00"},
              {"below sixteen", u"\x01\x0F", "010F"},
              {"letters", u"Az", "417A"},
              {"upper half", u"\u0080\u00FF", "80FF"}},
             static_cast<std::string (*)(const Text&)>(&hexOf));
  EXPECT_EQ(hexOf(Text{}), "");
}

TEST(JoinedWith, PutsTheSeparatorBetweenAndKeepsEmptyParts) {
  EXPECT_EQ(joinedWith(", ", {}), "");
  EXPECT_EQ(joinedWith(", ", {"one"}), "one");
  EXPECT_EQ(joinedWith(", ", {"one", "two", "three"}), "one, two, three");
  EXPECT_EQ(joinedWith(",", {"", "", "a", ""}), ",,a,");
}

TEST(Table, AlignsItsColumns) {
  const struct {
    const char* name;
    std::vector<std::vector<std::string>> rows;
    std::string expected;
    bool coloured = false;
  } rows[] = {
      {"two blanks between", {{"A", "LONG", "C"}, {"wide", "b", "c"}}, "A     LONG  C\nwide  b     c\n"},
      {"no blanks at the end of a line", {{"A", "B"}, {"a", "much longer"}}, "A  B\na  much longer\n"},
      {"characters, not bytes",
       {{"A", "B"}, {"\xC3\xA9\xE2\x82\xAC", "b"}, {"xyz", "c"}},
       "A    B\n\xC3\xA9\xE2\x82\xAC   b\nxyz  c\n"},
      {"rows of different lengths", {{"A"}, {"a", "b"}, {}}, "A\na  b\n\n"},
      {"heading in bold", {{"A", "B"}, {"a", "b"}}, "\x1b[1mA  B\x1b[0m\na  b\n", true},
      {"no rows", {}, ""},
      {"no rows in colour", {}, "", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(table(row.rows, row.coloured), row.expected);
  }
}

TEST(Table, IsBlocksWhereItIsTooWide) {
  const std::vector<std::vector<std::string>> rows{{"NAME", "ID"}, {"first", "01"}, {"", "02", "more"}};
  EXPECT_EQ(table(rows, false, 15), "NAME   ID\nfirst  01\n       02  more\n");
  const std::string blocks = "NAME: first\n  ID: 01\n\nID: 02\n  more\n";
  EXPECT_EQ(table(rows, false, 14), blocks);
  EXPECT_EQ(table(rows, true, 8), "\x1b[1mNAME: first\x1b[0m\n  ID: 01\n\n\x1b[1mID: 02\x1b[0m\n  more\n");
  EXPECT_EQ(table({{"LONG HEADING"}}, false, 8), "LONG HEADING\n");
}

TEST(ColumnsOf, CountsWideCharactersTwiceAndCombiningOnesNot) {
  const std::pair<const char*, std::size_t> rows[] = {
      {"", 0},
      {"abc", 3},
      {"Gr\xC3\xBCn", 4},
      {"e\xCC\x81", 1},                 // an acute accent
      {"\xE7\x8D\xB7\xE5\x8D\xA1", 4},  // Chinese
      {"\xEA\xB0\x80", 2},              // Korean
      {"\xE1\x84\x80\xE1\x85\xA1", 2},  // the same in its parts
      {"\xEF\xBC\xA1", 2},              // a fullwidth letter
      {"\xEF\xBD\xB1", 1},              // a halfwidth one
      {"\xE3\x81\x8B\xE3\x82\x99", 2},  // Japanese, with a mark
      {"\xE0\xB8\x81\xE0\xB8\xB4", 1},  // Thai, with a vowel above
      {"\xF0\x9F\x92\xB3", 2},          // a picture
      {"\xD0\x96", 1},
      {"\xFF", 1},
  };
  for (const auto& [text, columns] : rows) EXPECT_EQ(columnsOf(text), columns) << text;
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
