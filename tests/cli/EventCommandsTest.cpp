#include "EventCommands.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/TemporaryFolder.h"

namespace mirel::cli {
namespace {

TEST(EventCommands, CountThoseThatRunAndNoneThatHasEnded) {
  const test::TemporaryFolder folder;
  const std::filesystem::path file = folder.path() / "ran";
  EventCommands commands{"if [ $EVENT = last ]; then : > '" + file.string() + "'; fi"};
  ::testing::internal::CaptureStderr();
  for (std::size_t i = 0; i < EventCommands::kMost; ++i) commands.run("first", "Reader", "1");
  for (int i = 0; i < 1000 && !std::filesystem::exists(file); ++i) {
    commands.run("last", "Reader", "1");
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  }
  (void)::testing::internal::GetCapturedStderr();  // it tells of runs for which there was no room yet
  EXPECT_TRUE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace mirel::cli
