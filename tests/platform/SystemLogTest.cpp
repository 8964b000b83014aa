#include <gtest/gtest.h>
#include <syslog.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "CapturedStandardError.h"
#include "platform/Log.h"

namespace {

struct SyslogCall {
  int priority;
  std::string format;
  std::string text;
};

std::vector<SyslogCall>& syslogCalls() {
  static std::vector<SyslogCall> calls;
  return calls;
}

void record(int priority, const char* format, va_list arguments) {
  std::array<char, 4096> text{};
  // The analyzer takes va_start for an assignment of nothing.
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  (void)std::vsnprintf(text.data(), text.size(), format, arguments);
  syslogCalls().push_back({priority, format, text.data()});
}

}  // namespace

// These stand in for the C library's own in this program, so that a test sees what would go to the
// system's log. The second is what fortified builds call.
extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

namespace mirel {
namespace {

class SystemLog : public testing::Test {
 protected:
  void SetUp() override { syslogCalls().clear(); }
  std::shared_ptr<Log> log_ = systemLog();
};

TEST_F(SystemLog, WritesDefaultLinesAtNoticeLevel) {
  log_->systemDefault("CTK [MirelSCToken-29] +++START+++");
  ASSERT_EQ(syslogCalls().size(), 1U);
  EXPECT_EQ(syslogCalls()[0].priority, LOG_NOTICE);
  EXPECT_EQ(syslogCalls()[0].text, "CTK [MirelSCToken-29] +++START+++");
}

TEST_F(SystemLog, WritesErrorLinesAtErrorLevel) {
  log_->systemError("[MirelSCToken-48] Get token ID fail");
  ASSERT_EQ(syslogCalls().size(), 1U);
  EXPECT_EQ(syslogCalls()[0].priority, LOG_ERR);
  EXPECT_EQ(syslogCalls()[0].text, "[MirelSCToken-48] Get token ID fail");
}

TEST_F(SystemLog, NeverUsesALineAsAFormat) {
  log_->systemError("%n%s%s%s%s");
  ASSERT_EQ(syslogCalls().size(), 1U);
  EXPECT_EQ(syslogCalls()[0].format, "%s");
  EXPECT_EQ(syslogCalls()[0].text, "%n%s%s%s%s");
}

TEST_F(SystemLog, BringsAnythingToOneLine) {
  using namespace std::string_view_literals;
  log_->systemDefault("first\nsecond\0third\xFF"sv);
  log_->systemError("first\nsecond\0third\xFF"sv);
  ASSERT_EQ(syslogCalls().size(), 2U);
  EXPECT_EQ(syslogCalls()[0].text, "first\\x0Asecond\\x00third\\xFF");
  EXPECT_EQ(syslogCalls()[1].text, "first\\x0Asecond\\x00third\\xFF");
}

TEST_F(SystemLog, KeepsTheProcessLogOutOfTheSystemLog) {
  CapturedStandardError standardError;
  log_->process("line");
  EXPECT_EQ(standardError.writes(), std::vector<std::string>{"line\n"});
  EXPECT_TRUE(syslogCalls().empty());
}

TEST_F(SystemLog, WritesNothingToStandardError) {
  CapturedStandardError standardError;
  log_->systemDefault("line");
  log_->systemError("line");
  EXPECT_EQ(standardError.writes(), std::vector<std::string>{});
}

}  // namespace
}  // namespace mirel
