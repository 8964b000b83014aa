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

TEST_F(SystemLog, WritesEachLineAsOneAtItsLevelAndNeverAsAFormat) {
  using namespace std::string_view_literals;
  const std::pair<std::string_view, const char*> rows[] = {
      {"[MirelSCToken-48] Get token ID fail", "[MirelSCToken-48] Get token ID fail"},
      {"%n%s%s%s%s", "%n%s%s%s%s"},
      {"first\nsecond\0third\xFF"sv, "first\\x0Asecond\\x00third\\xFF"},
  };
  for (const auto& [line, written] : rows) {
    syslogCalls().clear();
    log_->systemDefault(line);
    log_->systemError(line);
    ASSERT_EQ(syslogCalls().size(), 2U);
    EXPECT_EQ(syslogCalls()[0].priority, LOG_NOTICE);
    EXPECT_EQ(syslogCalls()[1].priority, LOG_ERR);
    for (const SyslogCall& call : syslogCalls()) {
      EXPECT_EQ(call.format, "%s");
      EXPECT_EQ(call.text, written);
    }
  }
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
