#include "host/NearestName.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

TEST(NearestName, IsTheOneWithTheFewestChanges) {
  const std::vector<std::string> names{"readers", "items", "sign", "decrypt", "Signature"};
  const struct {
    const char* word;
    const char* nearest;
  } rows[] = {
      {"reader", "readers"},
      {"raeders", "readers"},
      {"itmes", "items"},
      {"sgin", "sign"},
      {"decript", "decrypt"},
      {"ITEMS", "items"},
      {"sign", ""},
      {"signaturr", "Signature"},
      {"cards", ""},
      {"x", ""},
      {"", ""},
      {"sing", "sign"},
      {"completely-other", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(nearestName(row.word, names), row.nearest) << row.word;
  EXPECT_EQ(nearestName(std::string(1000, 's'), names), "");
  EXPECT_EQ(nearestName("sign", {}), "");
}

TEST(NearestName, StandsInASuggestion) {
  EXPECT_EQ(suggestionFor("itmes", {"items"}), " (did you mean \"items\"?)");
  EXPECT_EQ(suggestionFor("cards", {"items"}), "");
}

}  // namespace
}  // namespace mirel::test
