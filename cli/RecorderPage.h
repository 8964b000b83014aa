#pragma once

#include <optional>
#include <string_view>

#include "recording/Recorder.h"

namespace mirel::cli {

/// What the recorder of a worker is at, in memory that the worker shares with the process that watches it:
/// the call of the module that may never come back, with its arguments. A module that has lost its way can
/// write there, so what stands in it is checked.
class RecorderPage final : public recording::RecordSink {
 public:
  /// To be made before the worker, once for each process. Where there is no memory it notes nothing.
  RecorderPage();

  void callStarts(const recording::RecordedCall& call) noexcept override;
  void note(const recording::Record&) noexcept override {}

  /// While a line is being written to a trace, which the other process must not go on with.
  void setWriting(bool now) noexcept;
  [[nodiscard]] bool isWriting() const noexcept;

  /// The call that has started last, when it was of that function.
  [[nodiscard]] std::optional<recording::RecordedCall> lastCallOf(std::string_view function) const;

 private:
  struct Page;
  Page* page_;
};

}  // namespace mirel::cli
