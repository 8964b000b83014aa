#pragma once

#include <string>
#include <vector>

namespace mirel::test {

/// Records every line of os_log and NSLog, from any thread, while it lives. One at a time. Without one,
/// os_log writes nowhere and NSLog to standard error.
class LogRecorder {
 public:
  LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;
  ~LogRecorder();

  /// All lines in order, each with its channel's name before it: "default: ", "error: ", "NSLog: ". As a
  /// reader of the stored log sees them: dynamic texts that are not marked public are hidden.
  [[nodiscard]] std::vector<std::string> texts() const;
  void clear();
};

}  // namespace mirel::test
