#include "Worker.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "WorkerPage.h"
#include "WorkerSignals.h"
#include "WorkerWatcher.h"
#include "platform/ProcessTie.h"

namespace mirel::cli {

Failure noProcessFailure(int error) {
  const std::string words = std::strerror(error);
  std::string why = words;
  if (error == EAGAIN) why = "too many processes are running (" + words + ")";
  if (error == ENOMEM) why = "there is no memory left (" + words + ")";
  return {FailureKind::kInternal, "no process can be started", std::move(why),
          "close other programs, then run again"};
}

Result<ExitCode> runInWorker(const std::function<ExitCode()>& work, const Watch& watch,
                             const Salvage& salvage, const WhenEnded& whenEnded) {
  if (!makeWorkerPage(static_cast<bool>(salvage))) return noProcessFailure(errno);
  WorkerPage& page = *workerPage();
  WorkerSignals signals;
  // Nobody would end a module that hangs when the watching process was killed.
  const auto tie = newProcessTie();
  const pid_t worker = fork();
  if (worker < 0) return noProcessFailure(errno);
  if (worker > 0) {
    tie->hold();
    return WorkerWatcher{worker, watch, signals, salvage, whenEnded, page}.watch();
  }

  signals.letGo();
  tie->wear();
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
