#include "CommandLineLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/RecordingLog.h"

namespace mirel::cli {
namespace {

using ::testing::ElementsAre;

TEST(CommandLineLog, HandsTheSystemsLinesToItsLogAndAllToTheUserOnRequest) {
  for (const bool verbose : {false, true}) {
    const auto system = std::make_shared<test::RecordingLog>();
    const auto log = commandLineLog(system, verbose);
    log->systemDefault("one");
    log->systemError("two");
    log->process("three");
    EXPECT_THAT(system->systemDefaultLines, ElementsAre("one"));
    EXPECT_THAT(system->systemErrorLines, ElementsAre("two"));
    EXPECT_EQ(system->processLines,
              verbose ? (std::vector<std::string>{"one", "two", "three"}) : std::vector<std::string>{});
  }
}

}  // namespace
}  // namespace mirel::cli
