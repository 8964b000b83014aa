#include "platform/TimeAndChance.h"

#include <gtest/gtest.h>

#include <array>

namespace mirel::test {
namespace {

TEST(TimeAndChance, GoesOnAndIsAnotherEachTime) {
  const auto system = systemTimeAndChance();
  const auto start = system->clock();
  EXPECT_LE(start, system->clock());
  EXPECT_LT(std::chrono::system_clock::now() - system->date(), std::chrono::minutes{1});
  std::array<std::uint8_t, 32> salt{};
  std::array<std::uint8_t, 32> text{};
  ASSERT_TRUE(system->drawSalt(salt));
  ASSERT_TRUE(system->drawTrialText(text));
  EXPECT_NE(salt, text);
  EXPECT_NE(salt, (std::array<std::uint8_t, 32>{}));
}

TEST(TimeAndChance, IsTheGivenOneOrTheSystems) {
  const auto given = systemTimeAndChance();
  EXPECT_EQ(givenOrSystem(given), given);
  EXPECT_NE(givenOrSystem(nullptr), nullptr);
}

}  // namespace
}  // namespace mirel::test
