#include "host/Display.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

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
