#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "WatchMessages.h"
#include "Worker.h"
#include "host/Result.h"

namespace mirel::cli {

/// What a helper has in common with the process that started it.
class HelperLine {
 public:
  virtual ~HelperLine() = default;

  /// Sends a text without line ends.
  virtual void send(const std::string& text) = 0;
  /// Returns when the helper is to end; it is killed when it has not done so within `kTimeForEnd`.
  virtual void waitForEnd() = 0;

 protected:
  HelperLine() = default;
  HelperLine(const HelperLine&) = delete;
  HelperLine& operator=(const HelperLine&) = delete;
};

/// How long a helper has to end.
inline constexpr std::chrono::milliseconds kTimeForEnd{2000};

/// A process that works for this one, which has not loaded anything and goes on whatever becomes of the
/// helper. It is watched as a worker of a command is. It takes no signals from the terminal, has nothing on
/// standard input, and what its module writes to standard output goes to standard error. It ends, at the
/// latest, when this process does.
class HelperProcess {
 public:
  /// `endsAtOnce`: the helper is killed as soon as it is told to end; else `work` has kTimeForEnd to come
  /// back, so that it can put right what it began. What `work` throws is a failure.
  [[nodiscard]] static Result<std::unique_ptr<HelperProcess>> start(
      const std::function<void(HelperLine&)>& work, const Watch& watch, bool endsAtOnce);
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;
  /// Kills it, unless it has ended.
  ~HelperProcess();

  /// To be looked at for input: there is some when a text has come. -1 when no more will.
  [[nodiscard]] int descriptor() const noexcept { return texts_; }
  /// The texts that have come. One that is not whole, or too long to be honest, is none.
  [[nodiscard]] std::vector<std::string> takeTexts();
  /// Why it ended before its work was done, when it has.
  [[nodiscard]] const std::optional<ToldFailure>& failure() const noexcept { return failure_; }

  /// Has it end, and waits for nothing. Texts that were not taken are lost.
  void end() noexcept;
  void kill() noexcept;
  /// Whether it has ended and nothing is left of it.
  [[nodiscard]] bool hasEnded() noexcept;

 private:
  HelperProcess() = default;

  pid_t process_ = -1;
  int texts_ = -1;
  int leash_ = -1;
  std::string begun_;  // a text of which the end has not come
  std::optional<ToldFailure> failure_;
};

}  // namespace mirel::cli
