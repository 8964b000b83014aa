#include "RecorderPage.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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

TEST(RecorderPage, HasTheCallThatAnotherProcessHasStarted) {
  RecorderPage page;
  EXPECT_FALSE(page.isCallUnderWay());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    page.callStarts(callOf("C_Login"));
    page.note(callOf("C_Login"));
    page.callStarts(callOf("C_Sign"));
    page.setWriting(RecorderPage::File::kTrace, true);
    page.setError(RecorderPage::File::kRecording, ENOSPC);
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(page.isCallUnderWay());
  EXPECT_EQ(page.callUnderWay("C_Sign"), callOf("C_Sign"));
  EXPECT_FALSE(page.callUnderWay("C_Login"));
  EXPECT_TRUE(page.isWriting(RecorderPage::File::kTrace));
  EXPECT_FALSE(page.isWriting(RecorderPage::File::kRecording));
  EXPECT_EQ(page.error(RecorderPage::File::kTrace), 0);
  EXPECT_EQ(page.error(RecorderPage::File::kRecording), ENOSPC);
}

TEST(RecorderPage, HasNoCallThatHasComeBack) {
  RecorderPage page;
  page.callStarts(callOf("C_Sign"));
  page.note(recording::RecordedTime{});
  EXPECT_TRUE(page.isCallUnderWay());
  page.note(callOf("C_Sign"));
  EXPECT_FALSE(page.isCallUnderWay());
  EXPECT_FALSE(page.callUnderWay("C_Sign"));
}

TEST(RecorderPage, LeavesOutTheArgumentsOfACallThatIsTooLong) {
  RecorderPage page;
  RecordedCall call = callOf("C_Sign");
  page.callStarts(call);
  call.in.push_back({"text", {std::string(2'000'000, 'x')}});
  page.callStarts(call);
  EXPECT_TRUE(page.isCallUnderWay());
  EXPECT_FALSE(page.callUnderWay("C_Sign"));
}

}  // namespace
}  // namespace mirel::cli
