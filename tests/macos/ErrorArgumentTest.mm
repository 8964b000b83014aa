/// What becomes of an error that is there before a call into the core.

#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#import "Errors.h"

namespace mirel::test {
namespace {

using Before = ErrorArgument::Before;

const TKError kOfTheCore{Text{kTKErrorDomain}, -6, Text{}};

NSError* earlierError() { return [NSError errorWithDomain:@"earlier" code:1 userInfo:nil]; }

TEST(ErrorArgument, ReplacesAnEarlierErrorByTheCoresAlone) {
  @autoreleasepool {
    for (const Before before : {Before::kIgnored, Before::kShown}) {
      NSError* const earlier = earlierError();
      NSError* error = earlier;
      { ErrorArgument argument{&error, before}; }
      EXPECT_TRUE(error == earlier);
      {
        ErrorArgument argument{&error, before};
        *argument.pointer() = kOfTheCore;
      }
      EXPECT_EQ([error code], -6);
    }
  }
}

TEST(ErrorArgument, ShowsTheCoreAnEarlierErrorOnlyWhereThatIsAskedFor) {
  @autoreleasepool {
    NSError* error = earlierError();
    ErrorArgument shown{&error, Before::kShown};
    ASSERT_TRUE(shown.pointer()->has_value());
    EXPECT_EQ((*shown.pointer())->domain, Text{u"earlier"});
    ErrorArgument ignored{&error};
    EXPECT_FALSE(ignored.pointer()->has_value());
  }
}

/// What was there when the call began is not put back over what somebody has set since.
TEST(ErrorArgument, DoesNotPutTheEarlierErrorOverALaterOne) {
  @autoreleasepool {
    NSError* const later = [NSError errorWithDomain:@"later" code:2 userInfo:nil];
    NSError* error = earlierError();
    {
      ErrorArgument argument{&error, Before::kShown};
      error = later;
    }
    EXPECT_TRUE(error == later);
  }
}

TEST(ErrorArgument, DoesNotTouchWhatACallerLeavesUndefined) {
  NSError* const undefined = (NSError*)(void*)0x11;
  NSError* error = undefined;
  { ErrorArgument argument{&error}; }
  EXPECT_TRUE(error == undefined);
}

TEST(ErrorArgument, OffersTheCoreNothingWithoutAPlace) {
  ErrorArgument argument{nullptr, Before::kShown};
  EXPECT_EQ(argument.pointer(), nullptr);
}

}  // namespace
}  // namespace mirel::test
