#pragma once

#include <csignal>

namespace mirel::cli {

/// While it lives, SIGINT, SIGTERM and SIGHUP are requests to end; those that are ignored stay so. One more
/// than kMostRequests ends the process, whatever it does. One for a process.
class WatchSignals {
 public:
  static constexpr int kMostRequests = 2;

  WatchSignals();
  WatchSignals(const WatchSignals&) = delete;
  WatchSignals& operator=(const WatchSignals&) = delete;
  ~WatchSignals();

  /// To be looked at for input: there is some when a signal has come, also one of a process that has ended.
  [[nodiscard]] int descriptor() const noexcept { return output_; }
  /// Takes that input away.
  void take() const noexcept;
  /// How often an end was asked for.
  [[nodiscard]] int numRequests() const noexcept;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGCHLD};

  int output_ = -1;
  struct sigaction before_[4]{};
};

}  // namespace mirel::cli
