#include "host/Result.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace mirel::test {
namespace {

const Failure kFailure{FailureKind::kNoCard, "no card", "none is there", "insert one"};

Result<std::string> textOr(bool good) {
  if (!good) return kFailure;
  return std::string{"text"};
}

Result<void> doneOr(bool good) {
  if (!good) return kFailure;
  return {};
}

TEST(Result, IsTrueWithAValue) {
  auto text = textOr(true);
  ASSERT_TRUE(text);
  text->append("s");
  EXPECT_EQ(*text, "texts");
  // Also with one that is false itself.
  EXPECT_TRUE(Result<bool>{false});
  EXPECT_TRUE(Result<std::string>{std::string{}});
  EXPECT_TRUE(Result<std::unique_ptr<int>>{nullptr});
}

TEST(Result, IsFalseWithAFailure) {
  const auto text = textOr(false);
  ASSERT_FALSE(text);
  EXPECT_EQ(text.failure().kind, FailureKind::kNoCard);
  EXPECT_EQ(text.failure().why, "none is there");
}

TEST(Result, GivesNothingThatIsNotThere) {
  EXPECT_THROW((void)*textOr(false), std::bad_variant_access);
  EXPECT_THROW((void)textOr(false)->size(), std::bad_variant_access);
  EXPECT_THROW((void)textOr(true).failure(), std::bad_variant_access);
  EXPECT_THROW((void)doneOr(true).failure(), std::bad_variant_access);
}

TEST(Result, LetsItsValueBeMovedOut) {
  Result<std::unique_ptr<int>> number{std::make_unique<int>(7)};
  const std::unique_ptr<int> taken = *std::move(number);
  EXPECT_EQ(*taken, 7);
}

TEST(ResultWithoutValue, IsTrueWithoutAFailure) {
  EXPECT_TRUE(doneOr(true));
  EXPECT_TRUE(Result<void>{});
  const auto done = doneOr(false);
  ASSERT_FALSE(done);
  EXPECT_EQ(done.failure().what, "no card");
}

}  // namespace
}  // namespace mirel::test
