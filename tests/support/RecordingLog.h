#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"

namespace mirel::test {

/// Keeps every line, by channel and all together in their order.
class RecordingLog final : public Log {
 public:
  void systemDefault(std::string_view line) noexcept override { keep(systemDefaultLines, "default", line); }
  void systemError(std::string_view line) noexcept override { keep(systemErrorLines, "error", line); }
  void process(std::string_view line) noexcept override { keep(processLines, "process", line); }

  std::vector<std::string> systemDefaultLines;
  std::vector<std::string> systemErrorLines;
  std::vector<std::string> processLines;
  /// "default: ...", "error: ..." or "process: ...".
  std::vector<std::string> allLines;

 private:
  void keep(std::vector<std::string>& lines, const char* channel, std::string_view line) {
    lines.emplace_back(line);
    allLines.push_back(std::string{channel} + ": " + std::string{line});
  }
};

}  // namespace mirel::test
