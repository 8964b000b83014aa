#include "TriesLeft.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FakeLocalizedStrings.h"

namespace mirel::test {
namespace {

using ::testing::Each;

class TriesLeft : public ::testing::Test {
 protected:
  [[nodiscard]] std::string textOf(const Text& format, std::uint64_t triesLeft = 2) {
    strings.texts["VERIFY_TRY_LEFT"] = format;
    return triesLeftText(strings, triesLeft).toUtf8();
  }

  [[nodiscard]] static std::string english(const std::string& triesLeft) {
    return "The card did not accept the PIN (tries left: " + triesLeft +
           "; 0 means that the card's software does not say).";
  }

  FakeLocalizedStrings strings;
};

TEST_F(TriesLeft, FillsTheNumberIntoTheTextOfOneKey) {
  EXPECT_EQ(textOf(Text{u"%lu left"}, 0), "0 left");
  EXPECT_EQ(textOf(Text{u"%lu left"}, 15), "15 left");
  EXPECT_EQ(textOf(Text{u"%lu left"}, 0xFFFFFFFFFFFFFFFF), "18446744073709551615 left");
  EXPECT_THAT(strings.askedFor, Each("VERIFY_TRY_LEFT"));
}

TEST_F(TriesLeft, TakesAFormatWithOneUnsignedNumber) {
  const struct {
    std::u16string_view format;
    const char* expected;
  } rows[] = {
      // The conversion itself.
      {u"%lu", "2"},
      {u"%u", "2"},
      {u"%llu", "2"},
      {u"%zu", "2"},
      {u"%1$lu", "2"},
      {u"%1$u", "2"},
      // In a text.
      {u"%lu left", "2 left"},
      {u"left: %lu", "left: 2"},
      {u"left: %lu.", "left: 2."},
      {u"%lull", "2ll"},
      {u"Noch %lu M\u00F6glichkeiten \u2014 \u6B8B\u308A \U0001F511",
       "Noch 2 M\u00F6glichkeiten \u2014 \u6B8B\u308A \U0001F511"},
      // With percent signs that stand for themselves.
      {u"100%% %lu", "100% 2"},
      {u"%lu%%", "2%"},
      {u"%%%lu%%", "%2%"},
      {u"%%s %lu %%n", "%s 2 %n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(Text{row.format}.toUtf8());
    EXPECT_EQ(textOf(Text{row.format}), row.expected);
  }
}

TEST_F(TriesLeft, SpeaksEnglishWhenTheFormatIsAnother) {
  using namespace std::string_view_literals;
  const std::u16string_view formats[] = {// No conversion.
                                         u"", u"no number", u"VERIFY_TRY_LEFT", u"100%%", u"%%lu", u"%%%%u",
                                         // Of another type.
                                         u"%s", u"%n", u"%@", u"%d", u"%i", u"%ld", u"%lld", u"%p", u"%c",
                                         u"%f", u"%hn", u"%ln", u"%S", u"%1$s", u"%1$n",
                                         // More than one.
                                         u"%lu %lu", u"%lu%lu", u"%u of %u", u"%lu %s", u"%s %lu", u"%lu %n",
                                         u"%n %lu", u"%@ %s", u"%lu %@", u"%1$lu %1$lu",
                                         // Of another argument.
                                         u"%2$lu", u"%0$lu", u"%1$lu %2$s", u"%*lu",
                                         // Cut short.
                                         u"%", u"%l", u"%1$", u"left %lu %", u"% %lu", u"%lu %%%",
                                         // Hidden behind a NUL.
                                         u"%lu\0%s"sv, u"%\0lu"sv};
  for (const auto format : formats) {
    SCOPED_TRACE(Text{format}.toUtf8());
    EXPECT_EQ(textOf(Text{format}), english("2"));
  }
}

TEST_F(TriesLeft, FillsTheNumberIntoTheEnglishText) {
  EXPECT_EQ(textOf(Text{}, 0), english("0"));
  EXPECT_EQ(textOf(Text{u"%s"}, 0xFFFFFFFFFFFFFFFF), english("18446744073709551615"));
}

}  // namespace
}  // namespace mirel::test
