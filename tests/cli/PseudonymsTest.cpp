#include "Pseudonyms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirel::cli {
namespace {

using Kind = Pseudonyms::Kind;

TEST(Pseudonyms, StandForTheSameTextEverywhere) {
  Pseudonyms pseudonyms;
  pseudonyms.add(Kind::kLabel, "Jane's key");
  pseudonyms.add(Kind::kReader, "Reader 1");
  pseudonyms.add(Kind::kLabel, "Other");
  pseudonyms.add(Kind::kName, "Jane's key");
  EXPECT_EQ(pseudonyms.replacedIn("Jane's key, Other; \"Jane's key\" in Reader 1"),
            "label-1, label-2; \"label-1\" in reader-1");
  EXPECT_EQ(pseudonyms.counts(), "names of readers (reader-N): 1\nlabels (label-N): 2\n");
}

TEST(Pseudonyms, AreFoundInEveryFormThatIsShown) {
  Pseudonyms pseudonyms;
  pseudonyms.add(Kind::kLabel, "J\u00C3\u00BCrgen");  // the bytes of a label, one character for each
  pseudonyms.add(Kind::kCard, "Card\x04\\");
  EXPECT_EQ(pseudonyms.replacedIn("J\u00C3\u00BCrgen J\u00FCrgen"), "label-1 label-1");
  EXPECT_EQ(pseudonyms.replacedIn("Card\x04\\ Card\\x04\\x5C Card\\x04\\"), "card-1 card-1 card-1");
}

TEST(Pseudonyms, ReplaceLikeThis) {
  Pseudonyms pseudonyms;
  for (const char* label : {"", "K", "Key", "Card", "Key of Jane", "label", "Signature", "12345", "a\"b"})
    pseudonyms.add(Kind::kLabel, label);
  pseudonyms.add(Kind::kHome, "/home/jane");
  const struct {
    const char* text;
    const char* expected;
  } rows[] = {
      {"", ""},
      {"nothing to replace", "nothing to replace"},
      // the longest first, and no pseudonym within a pseudonym
      {"Key of Jane", "label-4"},
      {"Key of John", "label-2 of John"},
      {"label Key", "label-5 label-2"},
      // short ones and plain words by themselves alone
      {"SCardKey K Kk", "SCardKey label-1 Kk"},
      {"cert_Key_01", "cert_label-2_01"},
      {"zKeyz ZKeyZ 0Key 9Key Key0", "zKeyz ZKeyZ 0Key 9Key Key0"},
      {"mySignatures \\x0412345", "mylabel-6s \\x04label-7"},
      // quotations
      {"reader \"unknown\" and \"unknown\", \"other\"", "reader \"text-1\" and \"text-1\", \"text-2\""},
      {"\"a\"b\" and \"\"", "\"label-8\" and \"\""},
      {"open \"to the end", "open \"text-3"},
      // folders of users
      {"/home/jane/lib.so", "home-1/lib.so"},
      {"/home/john/lib.so /Users/john", "/home/user-1/lib.so /Users/user-1"},
      {"/home/", "/home/"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(pseudonyms.replacedIn(text), expected);
}

}  // namespace
}  // namespace mirel::cli
