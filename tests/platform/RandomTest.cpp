#include "platform/Random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

namespace mirel {
namespace {

constexpr std::size_t kMost = 256;

TEST(RandomBytes, FillEveryPlace) {
  // A good byte is 0 once in 256 times, but not in all of these.
  constexpr int kTimes = 32;
  std::array<std::uint8_t, kMost> seen{};
  for (int i = 0; i < kTimes; ++i) {
    std::array<std::uint8_t, kMost> bytes{};
    ASSERT_TRUE(fillWithRandomBytes(bytes));
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      seen[at] = static_cast<std::uint8_t>(seen[at] | bytes[at]);
    }
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 0);
}

TEST(RandomBytes, StayInTheirPlace) {
  std::array<std::uint8_t, 18> bytes{};
  ASSERT_TRUE(fillWithRandomBytes(std::span{bytes}.subspan(1, 16)));
  EXPECT_EQ(bytes.front(), 0);
  EXPECT_EQ(bytes.back(), 0);
}

TEST(RandomBytes, DifferFromCallToCall) {
  std::array<std::uint8_t, 16> first{};
  std::array<std::uint8_t, 16> second{};
  ASSERT_TRUE(fillWithRandomBytes(first));
  ASSERT_TRUE(fillWithRandomBytes(second));
  EXPECT_NE(first, second);
}

TEST(RandomBytes, MayBeNoneButNotAboveTheMost) {
  EXPECT_TRUE(fillWithRandomBytes({}));
  std::vector<std::uint8_t> bytes(kMost + 1);
  EXPECT_FALSE(fillWithRandomBytes(bytes));
}

}  // namespace
}  // namespace mirel
