#include "platform/Environment.h"

#include <gtest/gtest.h>

#include "ScopedVariable.h"

namespace mirel {
namespace {

TEST(CallersVariable, IsNothingWhenItIsUnsetOrEmpty) {
  constexpr const char* kName = "MIREL_TEST_VARIABLE";
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {nullptr, std::nullopt}, {"", std::nullopt}, {" a=b ", " a=b "}};
  for (const auto& [value, expected] : rows) {
    const ScopedVariable variable{kName, value};
    EXPECT_EQ(callersVariable(kName), expected);
  }
}

}  // namespace
}  // namespace mirel
