#include "host/Home.h"

#include <gtest/gtest.h>

#include "support/FakeUserDirectory.h"

namespace mirel::test {
namespace {

TEST(UserWithHome, HasTheUsersNameAndThatHomeAlsoWhereNobodyKnowsTheUser) {
  for (const char* name : {"alice", ""}) {
    const auto user = userWithHome(std::make_shared<FakeUserDirectory>(name, "/home/alice"), "/else/where");
    EXPECT_EQ(user->loginName(), name);
    EXPECT_EQ(user->homeOf(user->loginName()), "/else/where");
  }
}

}  // namespace
}  // namespace mirel::test
