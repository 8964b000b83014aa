#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Worker.h"
#include "WorkerPage.h"
#include "WorkerSignals.h"

namespace mirel::cli {

/// Watches a worker until it ends.
class WorkerWatcher {
 public:
  /// All but `worker` live longer than this.
  WorkerWatcher(pid_t worker, const Watch& watch, WorkerSignals& signals, const Salvage& salvage,
                const WhenEnded& whenEnded, WorkerPage& page)
      : worker_{worker},
        watch_{watch},
        signals_{signals},
        salvage_{salvage},
        whenEnded_{whenEnded},
        page_{page} {}

  /// Returns when the worker has ended: its code, or why it came to another end. Where it came to no good
  /// one, the terminal is put right, and a file that is not whole is taken away.
  [[nodiscard]] Result<ExitCode> watch();

 private:
  void passOn();
  [[nodiscard]] bool look(std::chrono::milliseconds passed);
  void end() const;
  [[nodiscard]] Result<ExitCode> outcome(int status) const;
  [[nodiscard]] WorkerEnd endOf(int status) const;
  [[nodiscard]] Failure salvaged(Failure failure) const;
  void tidyUp() const;

  pid_t worker_;
  const Watch& watch_;
  WorkerSignals& signals_;
  const Salvage& salvage_;
  const WhenEnded& whenEnded_;
  WorkerPage& page_;
  std::uint64_t calls_ = 0;
  std::chrono::milliseconds inCall_{0};
  int ending_ = 0;  // the signal that was passed on
  std::chrono::milliseconds sinceEnd_{0};
  std::optional<std::string> hungIn_;
};

}  // namespace mirel::cli
