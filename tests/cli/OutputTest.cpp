#include "Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <thread>

#include "ExitCode.h"
#include "TextWidth.h"
#include "Wording.h"

namespace mirel::cli {
namespace {

TEST(HexOf, GivesTwoDigitsForEachByte) {
  EXPECT_EQ(hexOf(Text{std::u16string_view{u"\0\x0FzA\u00FF", 5}}), "000F7A41FF");
  EXPECT_EQ(hexOf(Text{u""}), "");
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

TEST(FirstColumns, CutNoCharacter) {
  const std::string text =
      "a\xE7\x8D\xB7"
      "e\xCC\x81z";  // of one, two, one column with its accent, and one
  const std::pair<std::size_t, std::size_t> rows[] = {{0, 0}, {1, 1}, {2, 1}, {3, 4}, {4, 7}, {5, 8}, {6, 8}};
  for (const auto& [columns, size] : rows)
    EXPECT_EQ(firstColumns(text, columns), text.substr(0, size)) << columns;
}

TEST(FailureLine, SaysWhatIsKnownAndNamesTheOptionThatAStepTakes) {
  const struct {
    const char* why;
    Advice advice;
    const char* line;
  } rows[] = {
      {"none is there", "insert one", "mireltoken: no card: none is there; insert one"},
      {"", "insert one", "mireltoken: no card; insert one"},
      {"none is there", "", "mireltoken: no card: none is there"},
      {"", "", "mireltoken: no card"},
      {"none is there", UserStep::kRetryOrNameReader,
       "mireltoken: no card: none is there; run again, or name the reader with --reader"},
  };
  for (const auto& [why, advice, line] : rows)
    EXPECT_EQ(failureLine({FailureKind::kNoCard, "no card", why, advice}), line);
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

/// What a slow reader gets of what `write` writes to that descriptor, a pipe that does not block.
std::string readSlowly(int descriptor, const std::function<void()>& write) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  EXPECT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const int before = dup(descriptor);
  EXPECT_GE(dup2(ends[1], descriptor), 0);
  (void)close(ends[1]);
  std::string got;
  std::thread reader{[&] {
    std::this_thread::sleep_for(std::chrono::milliseconds{50});
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = read(ends[0], piece.data(), piece.size())) > 0;)
      got.append(piece.data(), static_cast<std::size_t>(count));
  }};
  write();
  (void)dup2(before, descriptor);
  reader.join();
  for (const int end : {before, ends[0]}) (void)close(end);
  return got;
}

const std::string kLongText(std::size_t{1} << 20U, 'x');  // more than a pipe holds

TEST(WriteOutput, WaitsForTheReaderWhereStandardOutputIsNotBlocking) {
  EXPECT_EQ(readSlowly(STDOUT_FILENO, [] { EXPECT_TRUE(writeOutput(kLongText)); }), kLongText);
}

TEST(WriteMessage, WaitsForTheReaderWhereStandardErrorIsNotBlocking) {
  EXPECT_EQ(readSlowly(STDERR_FILENO, [] { writeMessage(kLongText); }), kLongText + "\n");
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
