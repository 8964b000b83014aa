#include "Worker.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string_view>
#include <thread>
#include <utility>

#include "Files.h"
#include "Output.h"

namespace mirel::cli {
namespace {

using std::chrono::milliseconds;

// What the worker is at.
constexpr const char* kNothing = nullptr;
constexpr const char* kLoading = "dlopen";

// The check for leaks runs when all is done, and has an exit code of its own.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kChecksAtExit = true;
#elif defined(__has_feature)
constexpr bool kChecksAtExit = __has_feature(address_sanitizer);
#else
constexpr bool kChecksAtExit = false;
#endif

constexpr std::size_t kLongestCallName = 32;
constexpr int kStillAtWork = -1;

/// The page that both processes have.
struct Page {
  // A call that is under way, and its number: two calls of one function are not one long call.
  std::atomic<std::uint64_t> calls{0};
  std::array<std::atomic<char>, kLongestCallName> call{};  // without a zero where there is none under way
  std::atomic<int> code{kStillAtWork};
  std::atomic<bool> terminalIsChanged{false};
  termios terminal{};
  std::atomic<bool> fileIsThere{false};
  std::array<char, PATH_MAX> file{};
};

Page* page = nullptr;

/// What the work has come to: one of two texts, of which the other one is written. The texts stay as the
/// system gives them, so they cost nothing until they are used.
struct Results {
  static constexpr std::size_t kMost = std::size_t{512} * 1024;  // bytes
  std::atomic<std::uint32_t> last{0};                            // which of them
  std::array<std::atomic<std::uint32_t>, 2> sizes{};
  std::array<std::array<char, kMost>, 2> texts;
};

Results* results = nullptr;

/// Empty where there is none, or none that makes sense.
std::string notedResult() {
  if (!results) return {};
  const std::uint32_t last = results->last;
  if (last > 1) return {};
  const std::uint32_t size = results->sizes[last];
  return size > Results::kMost ? std::string{} : std::string{results->texts[last].data(), size};
}

/// Memory that this process and its children have together, of zeros; null: there is none.
void* sharedMemory(std::size_t size) {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

void noteCall(const char* name) noexcept {
  if (!page) return;
  const std::size_t length = name ? std::min(std::strlen(name), kLongestCallName - 1) : 0;
  for (std::size_t i = 0; i < length; ++i) page->call[i] = name[i];
  page->call[length] = '\0';
  ++page->calls;
}

/// The call that the worker is in; empty: none. Only names have letters, digits and "_".
std::string callUnderWay() {
  std::string name;
  for (const std::atomic<char>& place : page->call) {
    const char letter = place;
    if (letter == '\0') return name;
    if (std::isalnum(static_cast<unsigned char>(letter)) == 0 && letter != '_') break;
    name += letter;
  }
  return {};
}

class CallNotes final : public CryptokiObserver {
 public:
  void callStarts(const char* function) noexcept override { noteCall(function); }
  void callReturned(const char*, std::uint64_t) noexcept override { noteCall(kNothing); }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}
};

class LoaderNotes final : public DynamicLoader {
 public:
  explicit LoaderNotes(std::shared_ptr<DynamicLoader> next) : next_{std::move(next)} {}

  void* open(const char* path) noexcept override {
    noteCall(kLoading);
    void* library = next_->open(path);
    noteCall(kNothing);
    return library;
  }
  void* symbol(void* library, const char* name) noexcept override { return next_->symbol(library, name); }
  bool close(void* library) noexcept override { return next_->close(library); }
  std::string errorText() noexcept override { return next_->errorText(); }

 private:
  std::shared_ptr<DynamicLoader> next_;
};

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
    default: return "signal " + std::to_string(signal);
  }
}

constexpr std::array kUsersSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGABRT, SIGALRM, SIGXCPU};

/// Whether a worker that it ended, and to which it was not passed on, was ended by somebody else than the
/// module.
bool isUsers(int signal) {
  return signal != SIGABRT &&
         std::find(kUsersSignals.begin(), kUsersSignals.end(), signal) != kUsersSignals.end();
}

constexpr Advice kTellMaker =
    "ask the card's maker for a version that does not, and tell them the name of the call";

constexpr const char* kItsError = "that is an error in the card's software";

Failure crash(int signal, const std::string& call) {
  if (call.empty()) {
    return {
        FailureKind::kModuleCrashed, "the program was ended by " + nameOfSignal(signal),
        "no call of the module was under way; a thread of the module can be the cause, or too little memory",
        "run again, and report it if it happens again"};
  }
  return {FailureKind::kModuleCrashed,
          "the module crashed" + placeOf(call) + " (" + nameOfSignal(signal) + ")", kItsError, kTellMaker};
}

Failure exitOfModule(const std::string& call) {
  return {FailureKind::kModuleEndedProgram, "the module ended the program, it called exit" + placeOf(call),
          kItsError, kTellMaker};
}

Failure hang(const std::string& call, std::chrono::seconds waited) {
  const std::string what =
      call == kLoading ? "the module has not been loaded" : "the module has not returned from " + call;
  return {FailureKind::kModuleHangs, what + " for " + std::to_string(waited.count()) + " s",
          "the card, its reader or the service behind it does not answer",
          "take the card out and put it back, then run again; --timeout sets how long to wait"};
}

/// For the handlers, which can be given nothing.
volatile std::sig_atomic_t signalToPassOn = 0;

void noteSignal(int signal) { signalToPassOn = signal; }
void doNothing(int) {}

/// Catches what ends the process, and learns of the worker's end, only while it waits for something.
class Signals {
 public:
  Signals() {
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
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;
  ~Signals() {
    (void)sigaction(SIGCHLD, &childBefore_, nullptr);
    for (std::size_t i = 0; i < kUsersSignals.size(); ++i)
      (void)sigaction(kUsersSignals[i], &before_[i], nullptr);
    letGo();
  }

  /// Signals come as they did before.
  void letGo() const { (void)sigprocmask(SIG_SETMASK, &mask_, nullptr); }

  /// For the process that watches.
  void take() {
    struct sigaction action {};
    action.sa_handler = doNothing;
    (void)sigaction(SIGCHLD, &action, nullptr);
    action.sa_handler = noteSignal;
    for (std::size_t i = 0; i < kUsersSignals.size(); ++i) {
      // A signal that is ignored, as by nohup, stays so.
      if (before_[i].sa_handler != SIG_IGN) (void)sigaction(kUsersSignals[i], &action, nullptr);
    }
  }

  /// Until a signal comes, at most for that time.
  void wait(milliseconds time) const {
    timespec most{};
    most.tv_sec = static_cast<time_t>(time.count() / 1000);
    most.tv_nsec = static_cast<long>(time.count() % 1000 * 1'000'000);
    (void)pselect(0, nullptr, nullptr, nullptr, &most, &mask_);
  }

  /// Ends this process as the signal would have.
  [[noreturn]] void die(int signal) const {
    (void)std::signal(signal, SIG_DFL);
    sigset_t all;
    sigfillset(&all);
    (void)sigprocmask(SIG_UNBLOCK, &all, nullptr);
    (void)raise(signal);
    std::_Exit(128 + signal);
  }

 private:
  sigset_t mask_{};
  struct sigaction childBefore_ {};
  std::array<struct sigaction, kUsersSignals.size()> before_{};
};

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
    std::thread{[end = ends_[0]] {
      char none = 0;
      while (read(end, &none, 1) < 0 && errno == EINTR) continue;
      (void)kill(getpid(), SIGKILL);
    }}.detach();
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

/// What there is to be put right behind a worker that came to no good end.
void tidyUp() {
  if (page->terminalIsChanged) {
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (terminal >= 0) {
      (void)tcsetattr(terminal, TCSANOW, &page->terminal);
      (void)close(terminal);
    }
  }
  if (page->fileIsThere) {
    page->file.back() = '\0';
    const std::string name{page->file.data()};
    // Nothing but a file that was made for this.
    if (std::filesystem::path{name}.filename().string().starts_with(kTemporaryFilePrefix))
      (void)unlink(name.c_str());
  }
}

/// Watches a worker until it ends.
class Watcher {
 public:
  Watcher(pid_t worker, const Watch& watch, Signals& signals, const Salvage& salvage)
      : worker_{worker}, watch_{watch}, signals_{signals}, salvage_{salvage} {}

  [[nodiscard]] Result<ExitCode> watch() {
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

 private:
  static constexpr milliseconds kStep{200};
  static constexpr milliseconds kTimeToTell{2000};

  void passOn() {
    const int signal = signalToPassOn;
    if (signal == 0) return;
    signalToPassOn = 0;
    // Once more from somebody who does not want to wait.
    if (ending_ != 0) (void)kill(worker_, SIGKILL);
    ending_ = signal;
    (void)kill(worker_, signal);
  }

  /// False when the worker has to be ended.
  [[nodiscard]] bool look(milliseconds passed) {
    if (ending_ != 0 || page->code != kStillAtWork) {
      sinceEnd_ += passed;
      return sinceEnd_ < watch_.timeForEnd;
    }
    const std::uint64_t calls = page->calls;
    const std::string call = callUnderWay();
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

  void end() const { (void)kill(worker_, SIGKILL); }

  [[nodiscard]] Result<ExitCode> outcome(int status) const {
    const int code = page->code;
    if (code != kStillAtWork && !(kChecksAtExit && WIFEXITED(status)) && ending_ == 0)
      return static_cast<ExitCode>(code);
    if (code != kStillAtWork && kChecksAtExit && WIFEXITED(status))
      return static_cast<ExitCode>(WEXITSTATUS(status));
    tidyUp();
    if (hungIn_) return salvaged(hang(*hungIn_, *watch_.timeout));
    if (ending_ != 0) signals_.die(ending_);
    if (WIFSIGNALED(status) && isUsers(WTERMSIG(status))) signals_.die(WTERMSIG(status));
    if (WIFSIGNALED(status)) return salvaged(crash(WTERMSIG(status), callUnderWay()));
    return salvaged(exitOfModule(callUnderWay()));
  }

  [[nodiscard]] Failure salvaged(Failure failure) const {
    return salvage_ ? salvage_(std::move(failure), notedResult()) : std::move(failure);
  }

  pid_t worker_;
  const Watch& watch_;
  Signals& signals_;
  const Salvage& salvage_;
  std::uint64_t calls_ = 0;
  milliseconds inCall_{0};
  int ending_ = 0;  // the signal that was passed on
  milliseconds sinceEnd_{0};
  std::optional<std::string> hungIn_;
};

}  // namespace

Result<ExitCode> runInWorker(const std::function<ExitCode()>& work, const Watch& watch,
                             const Salvage& salvage) {
  void* memory = sharedMemory(sizeof(Page));
  const auto noProcess = [] {
    return Failure{FailureKind::kInternal, "no process can be started", std::strerror(errno),
                   "close other programs, then run again"};
  };
  if (!memory) return noProcess();
  page = new (memory) Page;
  // Without it there is nothing to salvage.
  if (void* room = salvage ? sharedMemory(sizeof(Results)) : nullptr) results = new (room) Results;
  Signals signals;
  Leash leash;
  const pid_t worker = fork();
  if (worker < 0) return noProcess();
  if (worker > 0) {
    leash.hold();
    return Watcher{worker, watch, signals, salvage}.watch();
  }

  signals.letGo();
  leash.wear();
  const int code = static_cast<int>(work());
  page->code = code;
  std::exit(code);
}

void endWorker(ExitCode code) noexcept {
  if (page) page->code = static_cast<int>(code);
  std::_Exit(static_cast<int>(code));
}

std::shared_ptr<CryptokiObserver> notingObserver() { return std::make_shared<CallNotes>(); }

std::shared_ptr<DynamicLoader> notingLoader(std::shared_ptr<DynamicLoader> next) {
  return std::make_shared<LoaderNotes>(std::move(next));
}

bool noteResult(std::string_view text) noexcept {
  if (!results || text.size() > Results::kMost) return false;
  const std::uint32_t next = results->last == 0 ? 1 : 0;
  std::copy(text.begin(), text.end(), results->texts[next].begin());
  results->sizes[next] = static_cast<std::uint32_t>(text.size());
  results->last = next;
  return true;
}

void noteTerminal(const termios& settings) noexcept {
  if (!page) return;
  page->terminal = settings;
  page->terminalIsChanged = true;
}

void forgetTerminal() noexcept {
  if (page) page->terminalIsChanged = false;
}

NotedFile::NotedFile(const std::string& name) noexcept {
  if (!page || name.size() >= page->file.size()) return;
  std::copy_n(name.c_str(), name.size() + 1, page->file.begin());
  page->fileIsThere = true;
}

NotedFile::~NotedFile() {
  if (page) page->fileIsThere = false;
}

}  // namespace mirel::cli
