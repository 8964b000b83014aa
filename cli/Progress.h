#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace mirel::cli {

/// Tells whoever waits at a terminal how far long work is: on one line, which is written over and over, and
/// taken away at the end. Nothing is shown of work that is done within two seconds, nor where there is no
/// terminal. Nothing else may be written to the terminal while there is a line: call `clear` before.
class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  /// The work begins. `what`: what is done, one line such as "reading the input". `wanted`: false when
  /// nothing is to be shown, as with --json. `descriptor`: where to show it.
  Progress(std::string_view what, bool wanted, int descriptor = STDERR_FILENO,
           std::function<Clock::time_point()> now = &Clock::now);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  /// So much is done, of all that is to do or of an unknown whole, in bytes.
  void doneBytes(std::uint64_t done, std::optional<std::uint64_t> all);
  /// So many steps of an unknown number are done; `next`: the one that begins, in a few words.
  void doneSteps(std::size_t done, std::string_view next);

  /// Takes the line away, until more is done.
  void clear();

 private:
  /// False when nothing would be shown just now.
  [[nodiscard]] bool isDue();
  void show(const std::string& state);

  std::string what_;
  bool wanted_;
  int descriptor_;
  std::function<Clock::time_point()> now_;
  Clock::time_point next_;  ///< nothing is shown before
  std::size_t width_ = 0;   ///< of the line that is there
};

}  // namespace mirel::cli
