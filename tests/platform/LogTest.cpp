#include "platform/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "CapturedStandardError.h"
#include "platform/Hex.h"

namespace mirel {
namespace {

std::string upper(std::uint64_t number) { return hexOfNumber(number, HexDigits::kUpper); }

using namespace std::string_view_literals;

TEST(LogLine, PutsTheArgumentsInTheirPlaces) {
  EXPECT_EQ(logLine("[%s-%d] %s path = %s", "-[P11Bridge pkcs11_Load:]", 30, "P11Bridge", "/lib"),
            "[-[P11Bridge pkcs11_Load:]-30] P11Bridge path = /lib");
}

TEST(LogLine, WritesANullTextAsNullMark) {
  const char* missing = nullptr;
  EXPECT_EQ(logLine("%@ %s %@", Text{}, missing, Text{u""}), "(null) (null) ");
}

TEST(LogLine, KeepsTheWholeOfATextThatHoldsNul) {
  EXPECT_EQ(logLine("<%@>", Text{std::u16string_view{u"a\0b", 3}}), "<a\0b>"sv);
}

TEST(LogLine, LeavesConversionsInsideArgumentsAlone) {
  EXPECT_EQ(logLine("%s|%s", "%s%n%@", "%d"), "%s%n%@|%d");
}

TEST(LogLine, TakesTheWholeOfEachConversion) {
  const struct {
    const char* description;
    std::string line;
    const char* expected;
  } rows[] = {
      {"none", logLine("plain"), "plain"},
      {"%s", logLine("<%s>", "a"), "<a>"},
      {"%d", logLine("<%d>", -7), "<-7>"},
      {"%d of the lowest", logLine("%d", std::numeric_limits<int>::min()), "-2147483648"},
      {"%lu of the highest", logLine("%lu", ~std::uint64_t{0}), "18446744073709551615"},
      {"%@ beyond ASCII", logLine("%@", Text{u"\u00E9\u20AC"}), "\xC3\xA9\xE2\x82\xAC"},
      {"%@", logLine("<%@>", Text{u"a"}), "<a>"},
      {"%lu", logLine("<%lu>", 7UL), "<7>"},
      {"%lX", logLine("<%lX>", upper(0xBEEF)), "<BEEF>"},
      {"%hhd", logLine("<%hhd %hhd %hhd>", 1, true, false), "<1 1 0>"},
      // The letters of longer conversions behind shorter ones
      {"%d before lu", logLine("%dlu", 1), "1lu"},
      {"%s before hd", logLine("%shd", "a"), "ahd"},
      {"%lX before X", logLine("%lXX", upper(10)), "AX"},
      {"%hhd before d", logLine("%hhdd", 1), "1d"},
      {"all in a row", logLine("%lX%hhd%lu%@%s%d", upper(255), 0, 2UL, Text{u"3"}, "4", 5), "FF02345"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.line, row.expected) << row.description;
}

TEST(PrintableLine, LeavesPrintableCharactersAlone) {
  const std::string_view rows[] = {
      "",
      " ~",
      "back\\slash",
      "\xC2\xA0",          // the first behind the C1 controls
      "\xC3\xA9",          // e acute
      "\xE2\x80\xA7",      // U+2027, before the line separator
      "\xD8\x9B",          // U+061B, before the Arabic letter mark
      "\xD8\x9D",          // U+061D, behind it
      "\xE2\x80\x8D",      // U+200D, before the marks of direction
      "\xE2\x80\x90",      // U+2010, behind them
      "\xE2\x80\xAF",      // U+202F, behind the overrides
      "\xE2\x81\xA5",      // U+2065, before the isolates
      "\xE2\x81\xAA",      // U+206A, behind them
      "\xEF\xBF\xBD",      // a U+FFFD that is really there
      "\xF0\x9F\x94\x91",  // a key
  };
  for (const std::string_view row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(printableLine(row), row);
    EXPECT_TRUE(isPrintableLine(row));
  }
}

TEST(PrintableLine, EscapesEveryAsciiControlCharacter) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (unsigned int c = 0; c < 0x80; ++c) {
    if (c >= 0x20 && c != 0x7F) continue;
    SCOPED_TRACE(c);
    const std::string expected = std::string{"a\\x"} + kDigits[c / 16] + kDigits[c % 16] + "b";
    EXPECT_EQ(printableLine(std::string{'a', static_cast<char>(c), 'b'}), expected);
    EXPECT_FALSE(isPrintableLine(std::string{'a', static_cast<char>(c), 'b'}));
  }
}

TEST(PrintableLine, EscapesWhatIsNotPrintable) {
  const struct {
    const char* description;
    std::string_view line;
    std::string_view expected;
  } rows[] = {
      {"a line end that would forge a line", "ok\n[P11Bridge-30] forged", "ok\\x0A[P11Bridge-30] forged"},
      {"an escape sequence of the terminal", "\x1B[31m", "\\x1B[31m"},
      {"NUL", "a\0b"sv, "a\\x00b"},
      // Control characters beyond ASCII
      {"U+0080", "\xC2\x80", "\\xC2\\x80"},
      {"U+0085, next line", "a\xC2\x85\x62", "a\\xC2\\x85b"},
      {"U+009B, control sequence introducer", "\xC2\x9B\x33\x31m", "\\xC2\\x9B31m"},
      {"U+009F", "\xC2\x9F", "\\xC2\\x9F"},
      {"U+2028, line separator", "\xE2\x80\xA8", "\\xE2\\x80\\xA8"},
      {"U+2029, paragraph separator", "\xE2\x80\xA9", "\\xE2\\x80\\xA9"},
      // Characters that turn the direction of writing
      {"U+061C", "\xD8\x9C", "\\xD8\\x9C"},
      {"U+200E", "\xE2\x80\x8E", "\\xE2\\x80\\x8E"},
      {"U+200F", "\xE2\x80\x8F", "\\xE2\\x80\\x8F"},
      {"U+202A", "\xE2\x80\xAA", "\\xE2\\x80\\xAA"},
      {"U+202E, right-to-left override", "a\xE2\x80\xAE\x62", "a\\xE2\\x80\\xAEb"},
      {"U+2066", "\xE2\x81\xA6", "\\xE2\\x81\\xA6"},
      {"U+2069", "\xE2\x81\xA9", "\\xE2\\x81\\xA9"},
      // Bytes that are not UTF-8
      {"a lone continuation byte", "a\x80", "a\\x80"},
      {"FF", "\xFF", "\\xFF"},
      {"NUL in two bytes", "\xC0\x80", "\\xC0\\x80"},
      {"a surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
      {"cut short at the end", "a\xE2\x82", "a\\xE2\\x82"},
      {"cut short by a letter", "\xE2\x82\x61", "\\xE2\\x82a"},
      {"cut short by a line end", "\xE2\n", "\\xE2\\x0A"},
      // Valid characters beside invalid bytes stay.
      {"a continuation byte too many", "\xC3\xA9\xA9", "\xC3\xA9\\xA9"},
      {"a valid character inside another", "\xE2\xC3\xA9", "\\xE2\xC3\xA9"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    EXPECT_EQ(printableLine(row.line), row.expected);
    EXPECT_FALSE(isPrintableLine(row.line));
  }
}

TEST(ProcessLog, WritesOneLineToStandardErrorAloneInOneWrite) {
  const std::pair<std::string_view, const char*> rows[] = {
      {"[P11Bridge-30] loaded", "[P11Bridge-30] loaded\n"},
      {"first\nsecond\r\0third\xFF"sv, "first\\x0Asecond\\x0D\\x00third\\xFF\n"},
      {"", "\n"},
  };
  for (const auto& [line, written] : rows) {
    testing::internal::CaptureStdout();
    CapturedStandardError standardError;
    systemLog()->process(line);
    EXPECT_EQ(standardError.writes(), std::vector<std::string>{written});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
}

TEST(ProcessLog, DoesNotWaitWhenStandardErrorIsFull) {
  std::array<int, 2> ends{-1, -1};
  ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK), 0);
  const int saved = dup(STDERR_FILENO);
  ASSERT_GE(dup2(ends[1], STDERR_FILENO), 0);
  systemLog()->process(std::string(1'000'000, 'x'));  // far more than a pipe holds
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::array<char, 16> taken{};
  EXPECT_EQ(read(ends[0], taken.data(), taken.size()), 16);
  EXPECT_EQ(std::string_view(taken.data(), taken.size()), std::string(16, 'x'));
  for (const int end : ends) close(end);
}

}  // namespace
}  // namespace mirel
