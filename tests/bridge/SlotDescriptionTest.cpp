#include "bridge/SlotDescription.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace mirel::test {
namespace {

/// A slot with that description, filled up with blanks.
CK_SLOT_INFO slotNamed(std::string_view description) {
  CK_SLOT_INFO slot{};
  std::fill(std::begin(slot.slotDescription), std::end(slot.slotDescription), CK_UTF8CHAR{' '});
  std::copy(description.begin(), description.end(), slot.slotDescription);
  // What lies behind the description must not be read as a part of it.
  std::fill(std::begin(slot.manufacturerID), std::end(slot.manufacturerID), CK_UTF8CHAR{'x'});
  return slot;
}

const struct {
  const char* what;
  std::u16string name;
  bool begins;
} kNames[] = {
    {"nothing", u"", true},
    {"the beginning", u"Read", true},
    {"the name", u"Reader 1", true},
    {"the name and its padding", u"Reader 1  ", true},
    {"another letter at the start", u"reader 1", false},
    {"another letter at the end", u"Reader 2", false},
    {"another letter in the middle", u"ReaderX1", false},
    {"more than the name", u"Reader 1x", false},
    {"not the beginning", u"1", false},
    {"all 64 bytes", u"Reader 1" + std::u16string(56, u' '), true},
    {"65 bytes, on into the manufacturer", u"Reader 1" + std::u16string(56, u' ') + u"x", false},
    {"on through the manufacturer", u"Reader 1" + std::u16string(56, u' ') + std::u16string(32, u'x'), false},
};

TEST(DescriptionBeginsWith, ComparesUnitByUnit) {
  for (const auto& row : kNames) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(descriptionBeginsWith(slotNamed("Reader 1"), row.name), row.begins);
    EXPECT_EQ(descriptionBeginsWithAscii(slotNamed("Reader 1"),
                                         std::string{row.name.begin(), row.name.end()}.c_str()),
              row.begins);
  }
}

TEST(DescriptionBeginsWith, TakesAZeroForAUnitLikeAnyOther) {
  using namespace std::string_view_literals;
  EXPECT_TRUE(descriptionBeginsWith(slotNamed("A\0B"sv), u"A\0B"sv));
  EXPECT_FALSE(descriptionBeginsWith(slotNamed("A\0B"sv), u"A\0C"sv));
}

TEST(DescriptionBeginsWith, ComparesUnitsBeyondAsciiWithUnsignedBytes) {
  EXPECT_TRUE(descriptionBeginsWith(slotNamed("\xE4"), u"\u00E4"));
  EXPECT_TRUE(descriptionBeginsWith(slotNamed("\xFF"), u"\u00FF"));
  EXPECT_FALSE(descriptionBeginsWith(slotNamed("\xE4"), u"\u01E4"));
  EXPECT_FALSE(descriptionBeginsWith(slotNamed("\xE4"), u"\uFFE4"));
}

TEST(DescriptionBeginsWithAscii, NeverFitsANameBeyondAscii) {
  for (const char* name : {"\x80", "\xE4", "\xFF"})
    EXPECT_FALSE(descriptionBeginsWithAscii(slotNamed(name), name));
  EXPECT_FALSE(descriptionBeginsWithAscii(slotNamed("Reader \xE4"), "Reader \xE4"));
  EXPECT_TRUE(descriptionBeginsWithAscii(slotNamed("Reader \xE4"), "Reader "));
  EXPECT_TRUE(descriptionBeginsWithAscii(slotNamed("\x7F"), "\x7F"));
}

TEST(DescriptionBeginsWithAscii, TakesNoNameForAnEmptyOne) {
  EXPECT_TRUE(descriptionBeginsWithAscii(slotNamed("Reader 1"), nullptr));
}

}  // namespace
}  // namespace mirel::test
