#include "RecorderPage.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace mirel::cli {
namespace {

using recording::RecordedCall;

RecordedCall callOf(const char* function) {
  RecordedCall call;
  call.function = function;
  call.road = recording::Road::kHost;
  call.in = {{"session", {std::uint64_t{7}}}, {"data", {recording::HiddenBytes{20}}}};
  call.thread = 2;
  return call;
}

TEST(RecorderPage, HasTheLastCallThatAnotherProcessHasStarted) {
  RecorderPage page;
  EXPECT_FALSE(page.lastCallOf("C_Sign"));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    page.callStarts(callOf("C_Login"));
    page.callStarts(callOf("C_Sign"));
    page.setWriting(true);
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(page.lastCallOf("C_Sign"), callOf("C_Sign"));
  EXPECT_FALSE(page.lastCallOf("C_Login"));
  EXPECT_TRUE(page.isWriting());
}

TEST(RecorderPage, HasNoCallThatIsTooLong) {
  RecorderPage page;
  RecordedCall call = callOf("C_Sign");
  page.callStarts(call);
  call.in.push_back({"text", {std::string(2'000'000, 'x')}});
  page.callStarts(call);
  EXPECT_FALSE(page.lastCallOf("C_Sign"));
}

}  // namespace
}  // namespace mirel::cli
