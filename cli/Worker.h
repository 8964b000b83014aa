#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ExitCode.h"
#include "host/Result.h"
#include "platform/CryptokiObserver.h"
#include "platform/DynamicLoader.h"
#include "recording/RecordedCall.h"

struct termios;

namespace mirel::cli {

// A card maker's module can crash, end the process or never return. So a command works in a process of its
// own, the worker, which alone loads the module. The process that the user has started watches it, and can
// always say what happened, put the terminal right and take away a file that is not whole.
//
// They share a page of memory, in which the worker writes what it is at. A module that has lost its way can
// write there too, so what stands in it is checked.

/// How a worker is watched.
struct Watch {
  /// How long one call of the module may take; nothing: as long as it likes.
  std::optional<std::chrono::seconds> timeout;
  /// Whether a call that takes long is told on standard error, while it lasts.
  bool tellsOfWaiting = false;
  /// How long it may take to end, when its work is done or a signal was sent to it.
  std::chrono::milliseconds timeForEnd{5000};
};

/// How a worker came to an end that is not that of its work.
struct WorkerEnd {
  recording::BadEnd how;
  std::string call{};       ///< that was under way, or kLoading of WorkerPage.h; empty: none
  bool isReplayed = false;  ///< it is that of another process, see `endWorkerAs`
};

/// See `runInWorker`.
using WhenEnded = std::function<void(const WorkerEnd& end)>;
using Salvage = std::function<Failure(Failure failure, std::string_view noted)>;

/// Runs `work` in a worker, and returns its exit code. Where the worker came to another end, it tells the
/// user and returns the code for that. A signal that ends the worker for the user, such as SIGINT, ends this
/// process too. Does not return in the worker. Once for each process.
/// `salvage`: may be empty; where the module brought the worker to a bad end, gets that failure and the text
/// that the worker has noted last (see `noteResult`), which a module may have changed, and returns what is
/// told.
/// `whenEnded`: may be empty; told of a bad end, in this process, before the user is told.
[[nodiscard]] Result<ExitCode> runInWorker(const std::function<ExitCode()>& work, const Watch& watch,
                                           const Salvage& salvage = {}, const WhenEnded& whenEnded = {});

/// That the system has started no process; `error`: its errno.
[[nodiscard]] Failure noProcessFailure(int error);

// For the worker; elsewhere they note nothing.

/// Ends the process with that code, in the middle of what it does, as its own decision.
[[noreturn]] void endWorker(ExitCode code) noexcept;

/// Ends the process, and lets the user be told of it as of one that came to this end in the same call.
[[noreturn]] void endWorkerAs(const recording::BadEnd& end) noexcept;

/// Notes which call of the module is under way.
[[nodiscard]] std::shared_ptr<CryptokiObserver> notingObserver();

/// The loader `next`; notes that it is at work, since a library runs code when it is loaded.
[[nodiscard]] std::shared_ptr<DynamicLoader> notingLoader(std::shared_ptr<DynamicLoader> next);

/// Has the watching process put the terminal back to these settings should the worker end before
/// `forgetTerminal` is called.
void noteTerminal(const termios& settings) noexcept;
void forgetTerminal() noexcept;

/// Notes what the work has come to so far, in the place of what was noted before. False where it is too long.
bool noteResult(std::string_view text) noexcept;

/// Notes what has failed, before the module is asked for more about it: that is told where the module then
/// brings the worker to a bad end. Texts are cut where they are very long.
void noteFailure(const Failure& failure) noexcept;

/// Notes the name of a temporary file while there is one; not where WorkerPage::file is too short for it.
class NotedFile {
 public:
  explicit NotedFile(const std::string& name) noexcept;
  NotedFile(const NotedFile&) = delete;
  NotedFile& operator=(const NotedFile&) = delete;
  ~NotedFile();
};

}  // namespace mirel::cli
