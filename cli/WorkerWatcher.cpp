#include "WorkerWatcher.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <utility>

#include "Files.h"
#include "Output.h"

namespace mirel::cli {
namespace {

using recording::BadEnd;
using std::chrono::milliseconds;

constexpr milliseconds kStep{200};
constexpr milliseconds kTimeToTell{2000};

// The check for leaks runs when all is done, and has an exit code of its own.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kChecksAtExit = true;
#elif defined(__has_feature)
constexpr bool kChecksAtExit = __has_feature(address_sanitizer);
#else
constexpr bool kChecksAtExit = false;
#endif

/// " in C_Sign", " while it was loaded", or nothing.
std::string placeOf(const std::string& call) {
  if (call.empty()) return {};
  return call == kLoading ? " while it was loaded" : " in " + call;
}

std::string nameOfSignal(int signal) {
  switch (signal) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGABRT: return "SIGABRT";
    case SIGTRAP: return "SIGTRAP";
    case SIGSYS: return "SIGSYS";
    case SIGKILL: return "SIGKILL";
    case SIGHUP: return "SIGHUP";
    case SIGINT: return "SIGINT";
    case SIGQUIT: return "SIGQUIT";
    case SIGTERM: return "SIGTERM";
    case SIGALRM: return "SIGALRM";
    case SIGXCPU: return "SIGXCPU";
    default: return "signal " + std::to_string(signal);
  }
}

/// Whether a worker that it ended, and to which it was not passed on, was ended by somebody else than the
/// module.
bool isUsers(int signal) {
  return signal != SIGABRT &&
         std::find(kUsersSignals.begin(), kUsersSignals.end(), signal) != kUsersSignals.end();
}

constexpr Advice kTellMaker =
    "ask the card's maker for a version that does not, and tell them the name of the call";

constexpr const char* kItsError = "that is an error in the card's software";

Failure crash(const std::string& signal, const std::string& call) {
  if (call.empty()) {
    return {
        FailureKind::kModuleCrashed, "the program was ended by " + signal,
        "no call of the module was under way; a thread of the module can be the cause, or too little memory",
        "run again, and report it if it happens again"};
  }
  if (signal == "SIGKILL") {
    return {FailureKind::kModuleCrashed,
            "the program was ended by SIGKILL" +
                (call == kLoading ? " while the module was loaded" : " in " + call),
            "somebody ended it, or the system did because there was too little memory",
            "run again, and report it if it happens again"};
  }
  return {FailureKind::kModuleCrashed, "the module crashed" + placeOf(call) + " (" + signal + ")", kItsError,
          kTellMaker};
}

Failure exitOfModule(const std::string& call) {
  return {FailureKind::kModuleEndedProgram, "the module ended the program, it called exit" + placeOf(call),
          kItsError, kTellMaker};
}

/// A module may have written the page.
bool isExitCode(int code) {
  return (code >= 0 && code <= static_cast<int>(ExitCode::kNotRecorded)) ||
         code == static_cast<int>(ExitCode::kOutputUnread);
}

Failure hang(const std::string& call, std::uint64_t seconds) {
  const std::string what =
      call == kLoading ? "the module has not been loaded" : "the module has not returned from " + call;
  return {FailureKind::kModuleHangs, what + " for " + std::to_string(seconds) + " s",
          "the card, its reader or the service behind it does not answer, or another program holds the card",
          "close other programs that use the card, take the card out and put it back, then run again; "
          "--timeout sets how long to wait"};
}

Failure failureOf(const WorkerEnd& end) {
  Failure failure = end.how.kind == BadEnd::Kind::kHung     ? hang(end.call, end.how.seconds)
                    : end.how.kind == BadEnd::Kind::kExited ? exitOfModule(end.call)
                                                            : crash(end.how.signal, end.call);
  if (end.isReplayed) failure.what += ", as recorded";
  return failure;
}

}  // namespace

Result<ExitCode> WorkerWatcher::watch() {
  signals_.take();
  int status = 0;
  while (true) {
    const pid_t ended = waitpid(worker_, &status, WNOHANG);
    if (ended == worker_ || (ended < 0 && errno != EINTR)) break;
    const auto before = std::chrono::steady_clock::now();
    signals_.wait(kStep);
    // A process that was stopped for a while has not waited for the module.
    const auto passed = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - before);
    passOn();
    if (!look(std::min(passed, kStep))) end();
  }
  return outcome(status);
}

void WorkerWatcher::passOn() {
  const int signal = WorkerSignals::toPassOn();
  if (signal == 0) return;
  // Once more from somebody who does not want to wait.
  if (ending_ != 0) (void)kill(worker_, SIGKILL);
  ending_ = signal;
  (void)kill(worker_, signal);
}

/// False when the worker has to be ended.
bool WorkerWatcher::look(milliseconds passed) {
  if (ending_ != 0 || page_.code != WorkerPage::kStillAtWork) {
    sinceEnd_ += passed;
    return sinceEnd_ < watch_.timeForEnd;
  }
  const std::uint64_t calls = page_.calls;
  const std::string call = page_.callUnderWay();
  if (calls != calls_ || call.empty()) {
    calls_ = calls;
    inCall_ = milliseconds{0};
    return true;
  }
  const bool toldBefore = inCall_ >= kTimeToTell;
  inCall_ += passed;
  if (watch_.tellsOfWaiting && !toldBefore && inCall_ >= kTimeToTell) {
    writeMessage("mireltoken: waiting for the module" + placeOf(call) + " (Ctrl-C ends it)");
  }
  if (!watch_.timeout || inCall_ < *watch_.timeout) return true;
  hungIn_ = call;
  return false;
}

void WorkerWatcher::end() const { (void)kill(worker_, SIGKILL); }

Result<ExitCode> WorkerWatcher::outcome(int status) const {
  const int code = isExitCode(page_.code) ? page_.code.load() : WorkerPage::kStillAtWork;
  if (code != WorkerPage::kStillAtWork && !(kChecksAtExit && WIFEXITED(status)) && ending_ == 0)
    return static_cast<ExitCode>(code);
  if (code != WorkerPage::kStillAtWork && kChecksAtExit && WIFEXITED(status))
    return static_cast<ExitCode>(WEXITSTATUS(status));
  tidyUp();
  const WorkerEnd end = endOf(status);
  signals_.giveBack();  // who does not want to wait for what follows can end it
  if (whenEnded_) whenEnded_(end);
  if (end.how.kind == BadEnd::Kind::kInterrupted) signals_.die(ending_ != 0 ? ending_ : WTERMSIG(status));
  if (auto known = page_.notedFailure()) {
    known->why += "; after that " + failureOf(end).what;
    return *std::move(known);
  }
  return salvaged(failureOf(end));
}

WorkerEnd WorkerWatcher::endOf(int status) const {
  using Kind = BadEnd::Kind;
  if (hungIn_) return {{Kind::kHung, {}, static_cast<std::uint64_t>(watch_.timeout->count())}, *hungIn_};
  const std::string call = page_.callUnderWay();
  if (ending_ != 0) return {{Kind::kInterrupted, nameOfSignal(ending_)}, call};
  if (WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    return {{isUsers(signal) ? Kind::kInterrupted : Kind::kCrashed, nameOfSignal(signal)}, call};
  }
  if (const auto replayed = page_.replayedEnd()) return {*replayed, call, true};
  return {{Kind::kExited}, call};
}

Failure WorkerWatcher::salvaged(Failure failure) const {
  return salvage_ ? salvage_(std::move(failure), notedResult()) : std::move(failure);
}

void WorkerWatcher::tidyUp() const {
  if (page_.terminalIsChanged) {
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (terminal >= 0) {
      (void)tcsetattr(terminal, TCSANOW, &page_.terminal);
      (void)close(terminal);
    }
  }
  if (page_.fileIsThere) {
    page_.file.back() = '\0';
    const std::string name{page_.file.data()};
    // Nothing but a file that was made for this.
    if (std::filesystem::path{name}.filename().string().starts_with(kTemporaryFilePrefix))
      (void)unlink(name.c_str());
  }
}

}  // namespace mirel::cli
