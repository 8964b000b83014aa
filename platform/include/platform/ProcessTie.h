#pragma once

#include <memory>

namespace mirel {

/// Ties a process to the one that starts it: the system ends it with SIGKILL when that one ends, whatever
/// ended it. As good as it goes: a failure is ignored. Made before the fork, for one process.
class ProcessTie {
 public:
  ProcessTie() = default;
  ProcessTie(const ProcessTie&) = delete;
  ProcessTie& operator=(const ProcessTie&) = delete;
  virtual ~ProcessTie() = default;

  /// For the process that was started, in the thread that goes on, before it does anything else. This object
  /// may be destroyed after it.
  virtual void wear() noexcept = 0;

  /// For the process that has started it, in the thread that did so; both have to stay.
  virtual void hold() noexcept = 0;
};

/// What the running system has for this.
[[nodiscard]] std::unique_ptr<ProcessTie> newProcessTie();

}  // namespace mirel
