#include "platform/PlatformServices.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(SystemServices, SetsEveryServiceOfTheRunningSystemAndLeavesTheObserverToTheCaller) {
  const PlatformServices services = systemServices();
  EXPECT_NE(services.loader, nullptr);
  EXPECT_NE(services.user, nullptr);
  EXPECT_NE(services.log, nullptr);
  EXPECT_NE(services.notifications, nullptr);
  EXPECT_NE(services.certificates, nullptr);
  EXPECT_NE(services.memory, nullptr);
  EXPECT_NE(services.strings, nullptr);
  EXPECT_NE(services.cardService, nullptr);
  EXPECT_EQ(services.observer, nullptr);
}

}  // namespace
}  // namespace mirel
