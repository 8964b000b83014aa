#include "Worker.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include "WorkerPage.h"
#include "WorkerSignals.h"
#include "WorkerWatcher.h"

namespace mirel::cli {
namespace {

/// A pipe by which the worker learns that the watching process was killed: nobody would end a module that
/// hangs.
class Leash {
 public:
  Leash() { ready_ = pipe(ends_.data()) == 0; }
  Leash(const Leash&) = delete;
  Leash& operator=(const Leash&) = delete;
  ~Leash() = default;

  /// For the worker, which ends when the other process does.
  void wear() {
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

  /// For the process that watches.
  void hold() const {
    if (ready_) (void)close(ends_[0]);
  }

 private:
  std::array<int, 2> ends_{-1, -1};
  bool ready_ = false;
};

}  // namespace

Result<ExitCode> runInWorker(const std::function<ExitCode()>& work, const Watch& watch,
                             const Salvage& salvage, const WhenEnded& whenEnded) {
  const auto noProcess = [] {
    return Failure{FailureKind::kInternal, "no process can be started", std::strerror(errno),
                   "close other programs, then run again"};
  };
  if (!makeWorkerPage(static_cast<bool>(salvage))) return noProcess();
  WorkerPage& page = *workerPage();
  WorkerSignals signals;
  Leash leash;
  const pid_t worker = fork();
  if (worker < 0) return noProcess();
  if (worker > 0) {
    leash.hold();
    return WorkerWatcher{worker, watch, signals, salvage, whenEnded, page}.watch();
  }

  signals.letGo();
  leash.wear();
  const int code = static_cast<int>(work());
  page.code = code;
  std::exit(code);
}

void endWorker(ExitCode code) noexcept {
  if (WorkerPage* page = workerPage()) page->code = static_cast<int>(code);
  std::_Exit(static_cast<int>(code));
}

void endWorkerAs(const recording::BadEnd& end) noexcept {
  if (WorkerPage* page = workerPage()) page->noteReplayedEnd(end);
  std::_Exit(static_cast<int>(ExitCode::kInternal));
}

}  // namespace mirel::cli
