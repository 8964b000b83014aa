#include "platform/ProcessTie.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <thread>

namespace mirel {
namespace {

/// A pipe of which the starting process alone holds the one end, and a thread that waits for it at the other.
class PipeTie final : public ProcessTie {
 public:
  PipeTie() { ready_ = pipe(ends_.data()) == 0; }

  void wear() noexcept override {
    if (!ready_) return;
    (void)close(ends_[1]);
    (void)fcntl(ends_[0], F_SETFD, FD_CLOEXEC);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    // Signals are for the thread that works.
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      std::thread{[end = ends_[0]] {
        char none = 0;
        while (read(end, &none, 1) < 0 && errno == EINTR) continue;
        (void)kill(getpid(), SIGKILL);
      }}.detach();
    } catch (const std::exception&) {  // no thread: the work is worth more than this
    }
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void hold() noexcept override {
    if (ready_) (void)close(ends_[0]);
  }

 private:
  std::array<int, 2> ends_{-1, -1};
  bool ready_ = false;
};

}  // namespace

std::unique_ptr<ProcessTie> newProcessTie() { return std::make_unique<PipeTie>(); }

}  // namespace mirel
