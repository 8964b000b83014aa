#include "WorkerSignals.h"

#include <sys/select.h>

#include <cstddef>
#include <cstdlib>

namespace mirel::cli {
namespace {

/// For the handlers, which can be given nothing.
volatile std::sig_atomic_t signalToPassOn = 0;

void noteSignal(int signal) { signalToPassOn = signal; }
void doNothing(int) {}

}  // namespace

WorkerSignals::WorkerSignals() {
  // Where it is ignored, nothing is told of a worker's end.
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  (void)sigaction(SIGCHLD, &standard, &childBefore_);
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGCHLD);
  for (std::size_t i = 0; i < kUsersSignals.size(); ++i) {
    (void)sigaction(kUsersSignals[i], nullptr, &before_[i]);
    if (before_[i].sa_handler != SIG_IGN) sigaddset(&held, kUsersSignals[i]);
  }
  (void)sigprocmask(SIG_BLOCK, &held, &mask_);
}

// A signal that came when the work was done already ends nothing of what follows.
WorkerSignals::~WorkerSignals() { giveBack(); }

void WorkerSignals::letGo() const { (void)sigprocmask(SIG_SETMASK, &mask_, nullptr); }

void WorkerSignals::giveBack() const {
  letGo();
  restoreHandlers();
}

void WorkerSignals::restoreHandlers() const {
  (void)sigaction(SIGCHLD, &childBefore_, nullptr);
  for (std::size_t i = 0; i < kUsersSignals.size(); ++i)
    (void)sigaction(kUsersSignals[i], &before_[i], nullptr);
}

void WorkerSignals::take() {
  struct sigaction action {};
  action.sa_handler = doNothing;
  (void)sigaction(SIGCHLD, &action, nullptr);
  action.sa_handler = noteSignal;
  for (std::size_t i = 0; i < kUsersSignals.size(); ++i) {
    // A signal that is ignored, as by nohup, stays so.
    if (before_[i].sa_handler != SIG_IGN) (void)sigaction(kUsersSignals[i], &action, nullptr);
  }
}

void WorkerSignals::wait(std::chrono::milliseconds time) const {
  timespec most{};
  most.tv_sec = static_cast<time_t>(time.count() / 1000);
  most.tv_nsec = static_cast<long>(time.count() % 1000 * 1'000'000);
  (void)pselect(0, nullptr, nullptr, nullptr, &most, &mask_);
}

int WorkerSignals::toPassOn() noexcept {
  const int signal = signalToPassOn;
  if (signal != 0) signalToPassOn = 0;
  return signal;
}

void WorkerSignals::die(int signal) const {
  (void)std::signal(signal, SIG_DFL);
  sigset_t all;
  sigfillset(&all);
  (void)sigprocmask(SIG_UNBLOCK, &all, nullptr);
  (void)raise(signal);
  std::_Exit(128 + signal);
}

}  // namespace mirel::cli
