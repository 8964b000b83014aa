#pragma once

#include <optional>
#include <string_view>

#include "recording/Recorder.h"

namespace mirel::cli {

/// What the recorder of a worker is at, in memory that the worker shares with the process that watches it:
/// the call of the module that may never come back, with its arguments, and how its files do. A module that
/// has lost its way can write there, so what stands in it is checked.
class RecorderPage final : public recording::RecordSink {
 public:
  enum class File { kTrace, kRecording };

  /// To be made before the worker, once for each process. Throws std::bad_alloc.
  RecorderPage();

  void callStarts(const recording::RecordedCall& call) noexcept override;
  /// A call has come back.
  void note(const recording::Record& record) noexcept override;

  /// A line is being written, or is there in part: the other process must not go on behind it.
  void setWriting(File file, bool now) noexcept;
  [[nodiscard]] bool isWriting(File file) const noexcept;

  /// Why no more is written to the file, an errno; 0: nothing is wrong.
  void setError(File file, int error) noexcept;
  [[nodiscard]] int error(File file) const noexcept;

  /// Whether a call has started and not come back.
  [[nodiscard]] bool isCallUnderWay() const noexcept;
  /// That call, when it is of that function and not too long.
  [[nodiscard]] std::optional<recording::RecordedCall> callUnderWay(std::string_view function) const;

 private:
  struct Page;
  Page* page_;
};

}  // namespace mirel::cli
