#include "host/Home.h"

#include <gtest/gtest.h>

#include "support/FakeUserDirectory.h"

namespace mirel::test {
namespace {

TEST(UserWithHome, HasTheUsersName) {
  const auto user = userWithHome(std::make_shared<FakeUserDirectory>("alice", "/home/alice"), "/else/where");
  EXPECT_EQ(user->loginName(), "alice");
}

TEST(UserWithHome, HasThatHome) {
  const auto user = userWithHome(std::make_shared<FakeUserDirectory>("alice", "/home/alice"), "/else/where");
  EXPECT_EQ(user->homeOf("alice"), "/else/where");
}

TEST(UserWithHome, HasThatHomeForAUserWhomNobodyKnows) {
  const auto user = userWithHome(std::make_shared<FakeUserDirectory>("", ""), "/else/where");
  EXPECT_EQ(user->homeOf(user->loginName()), "/else/where");
}

}  // namespace
}  // namespace mirel::test
