#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LeakCheck.h"

namespace {

/// What a test leaves to the autorelease pool goes with the test.
class PoolForEachTest final : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { pool_ = [[NSAutoreleasePool alloc] init]; }
  void OnTestEnd(const testing::TestInfo&) override {
    [pool_ release];
    pool_ = nil;
  }

  NSAutoreleasePool* pool_ = nil;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new PoolForEachTest);
  const int result = RUN_ALL_TESTS();
  mirel::test::checkForLeaks();
  return result;
}
