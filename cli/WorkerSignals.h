#pragma once

#include <array>
#include <chrono>
#include <csignal>

namespace mirel::cli {

/// The signals by which users and the system end a program.
inline constexpr std::array kUsersSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGABRT, SIGALRM, SIGXCPU};

/// The signals of a process that watches a worker. It catches what ends it, and learns of the worker's end,
/// only while it waits for something; else these signals are held back.
class WorkerSignals {
 public:
  WorkerSignals();
  WorkerSignals(const WorkerSignals&) = delete;
  WorkerSignals& operator=(const WorkerSignals&) = delete;
  ~WorkerSignals();

  /// Signals come as they did before.
  void letGo() const;

  /// For the process that watches.
  void take();

  /// For the process that watches, after the worker's end: a signal that comes from now on does what it did
  /// before. One that was held back until now was meant for the worker as well, and does nothing more.
  void giveBack() const;

  /// Until a signal comes, at most for that time.
  void wait(std::chrono::milliseconds time) const;

  /// The signal of kUsersSignals that has come last, once; 0: none has.
  [[nodiscard]] static int toPassOn() noexcept;

  /// Ends this process as the signal would have.
  [[noreturn]] void die(int signal) const;

 private:
  void restoreHandlers() const;

  sigset_t mask_{};
  struct sigaction childBefore_ {};
  std::array<struct sigaction, kUsersSignals.size()> before_{};
};

}  // namespace mirel::cli
