#include "platform/Log.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>

namespace mirel {
namespace {

class SyslogLog final : public Log {
 public:
  void systemDefault(std::string_view line) noexcept override { toSyslog(LOG_NOTICE, line); }
  void systemError(std::string_view line) noexcept override { toSyslog(LOG_ERR, line); }

  void process(std::string_view line) noexcept override {
    // In one piece, so that lines of several threads or processes do not run into each other.
    const std::string text = printableLine(line) + '\n';
    writeAll(text);
  }

 private:
  // The process's own openlog settings are left alone: the name and the facility of the log belong to
  // the program that this code is part of.
  static void toSyslog(int level, std::string_view line) { syslog(level, "%s", printableLine(line).c_str()); }

  /// What standard error does not take is lost; there is nobody left to tell.
  static void writeAll(std::string_view text) noexcept {
    while (!text.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }
};

}  // namespace

std::shared_ptr<Log> systemLog() { return std::make_shared<SyslogLog>(); }

}  // namespace mirel
