#pragma once

#include <string>
#include <vector>

namespace mirel::test {

enum class LogChannel { kDefault, kError, kNSLog };

struct LogLine {
  LogChannel channel = LogChannel::kNSLog;
  /// As a reader of the stored log sees it: dynamic texts that are not marked public are hidden.
  std::string text;

  [[nodiscard]] bool operator==(const LogLine&) const = default;
};

/// Records every line of os_log and NSLog, from any thread, while it lives. One at a time. Without one,
/// os_log writes nowhere and NSLog to standard error.
class LogRecorder {
 public:
  LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;
  ~LogRecorder();

  [[nodiscard]] std::vector<LogLine> lines() const;
  /// The texts of all lines, in order, each with its channel's name and a colon before it:
  /// "default: ", "error: ", "NSLog: ".
  [[nodiscard]] std::vector<std::string> texts() const;
  void clear();
};

}  // namespace mirel::test
