#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace mirel {

/// What became of a program of the system that was asked something.
struct ProgramAnswer {
  enum class End {
    kExited,
    kMissing,     ///< there is no such program
    kNotStarted,  ///< the system does not start it
    kSignal,      ///< it crashed, or somebody ended it
    kTooSlow,     ///< it was ended, since it did not end in time
    kTooLong,     ///< it was ended, since it did not stop writing
  };

  End end = End::kMissing;
  int code = 0;        ///< kExited: its exit code; kSignal: the signal; kNotStarted: errno
  std::string output;  ///< standard output and standard error as they came: any bytes
};

/// Runs programs of the system and reads what they print.
class ProgramRunner {
 public:
  ProgramRunner() = default;
  ProgramRunner(const ProgramRunner&) = delete;
  ProgramRunner& operator=(const ProgramRunner&) = delete;
  virtual ~ProgramRunner() = default;

  /// `path`: absolute; no shell and no search is between. The program gets nothing to read, none of this
  /// program's open files, and an environment without anything of this one but the home folder.
  [[nodiscard]] virtual ProgramAnswer run(const std::string& path,
                                          const std::vector<std::string>& arguments) noexcept = 0;
};

/// How long a program may take, and how much it may print.
struct ProgramLimits {
  std::chrono::milliseconds time{10'000};
  std::size_t output = std::size_t{256} * 1024;  ///< bytes
};

/// A runner for the system's programs that tell of token extensions; null where the system has none.
[[nodiscard]] std::shared_ptr<ProgramRunner> systemProgramRunner();

/// A runner with these limits, on each system.
[[nodiscard]] std::shared_ptr<ProgramRunner> programRunnerWith(ProgramLimits limits);

}  // namespace mirel
