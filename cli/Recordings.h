#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ExitCode.h"
#include "Options.h"
#include "RecorderPage.h"
#include "Worker.h"
#include "host/ModuleFile.h"
#include "host/Result.h"
#include "recording/RecordedCall.h"

namespace mirel::cli {

/// A recording that was read.
struct LoadedRecording {
  recording::Recording recording;
  bool isCutOff = false;  ///< it ends in the middle of a record
};

[[nodiscard]] Result<LoadedRecording> loadRecording(const std::string& file);

/// Where the calls of a run are written to: a trace, a recording, or both. The process that watches a run
/// opens the files, before there is a worker: a name that makes no sense is told before anything is done, and
/// what was written stays when the worker ends. The worker writes, each record when it has happened.
class RunRecorder {
 public:
  /// What the options ask for, which may be nothing.
  [[nodiscard]] static Result<std::unique_ptr<RunRecorder>> open(const Options& options);
  RunRecorder(const RunRecorder&) = delete;
  RunRecorder& operator=(const RunRecorder&) = delete;
  ~RunRecorder();

  // For the worker.

  /// Puts itself between the services and the module (see recording/Recorder.h), and has it noted in `choice`
  /// what is found of the module's file.
  void record(PlatformServices& services, ModuleChoice& choice);
  /// Whether the trace could be written. Of a recording `store` tells.
  [[nodiscard]] Result<void> checkWritten() const;

  // For the process that watches, after the worker's end.

  /// Notes the bad end to which the worker came, with the call that did not return. Where that was a signal
  /// of the user's, by which this process ends, too: puts the recording in its place, and tells the user.
  void workerEnded(const WorkerEnd& end);
  /// Puts the recording in its place; a trace is there already.
  [[nodiscard]] Result<void> store() const;

 private:
  class LineFile;

  explicit RunRecorder(const Options& options);
  void noteEnd(const WorkerEnd& end);

  const Options& options_;
  std::shared_ptr<RecorderPage> page_;
  std::optional<recording::RecordedEnd> end_;
  std::shared_ptr<LineFile> trace_;
  std::shared_ptr<LineFile> recording_;
};

/// Puts the recording that the options name in place of the module and of what else it holds. A call that it
/// does not have ends the process, with a failure that names it; the one that did not return ends it so that
/// the user is told what was told when it was recorded. `ioOptions` gets what the recorded run was
/// told of the module. Returns what is to be called when the command has done its work.
[[nodiscard]] Result<std::function<void()>> replay(Options& ioOptions, PlatformServices& services,
                                                   ModuleChoice& choice);

}  // namespace mirel::cli
