#include "platform/ProgramRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <thread>

namespace mirel {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A file descriptor that is closed at the end.
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : number_{number} {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  [[nodiscard]] int number() const noexcept { return number_; }
  void reset() noexcept {
    if (number_ >= 0) (void)close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

/// What the program is started with.
class Start {
 public:
  explicit Start(int output) {
    ready_ = posix_spawn_file_actions_init(&actions_) == 0;
    if (!ready_) return;
    if (posix_spawnattr_init(&attributes_) != 0) {
      (void)posix_spawn_file_actions_destroy(&actions_);
      ready_ = false;
      return;
    }
    (void)posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    (void)posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    (void)posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO);
    keepOpenFiles();
    setSignals();
  }
  Start(const Start&) = delete;
  Start& operator=(const Start&) = delete;
  ~Start() {
    if (!ready_) return;
    (void)posix_spawn_file_actions_destroy(&actions_);
    (void)posix_spawnattr_destroy(&attributes_);
  }

  /// 0, or what errno would be.
  [[nodiscard]] int program(pid_t& outChild, const std::string& path, char* const* arguments,
                            char* const* environment) const {
    if (!ready_) return ENOMEM;
    return posix_spawn(&outChild, path.c_str(), &actions_, &attributes_, arguments, environment);
  }

 private:
  /// A file with a PIN is nobody else's, nor is one that the module has opened.
  void keepOpenFiles() {
    constexpr long kMost = 65536;
    const long limit = std::min(std::max(sysconf(_SC_OPEN_MAX), 256L), kMost);
    for (int file = STDERR_FILENO + 1; file < limit; ++file) {
      const int flags = fcntl(file, F_GETFD);
      if (flags >= 0 && (flags & FD_CLOEXEC) == 0) (void)posix_spawn_file_actions_addclose(&actions_, file);
    }
  }

  /// As in a program that nobody has prepared, in a group of its own: all of it can be ended.
  void setSignals() {
    sigset_t none;
    sigset_t standard;
    (void)sigemptyset(&none);
    (void)sigemptyset(&standard);
    for (const int signal : {SIGPIPE, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD, SIGXFSZ})
      (void)sigaddset(&standard, signal);
    (void)posix_spawnattr_setsigmask(&attributes_, &none);
    (void)posix_spawnattr_setsigdefault(&attributes_, &standard);
    (void)posix_spawnattr_setpgroup(&attributes_, 0);
    (void)posix_spawnattr_setflags(&attributes_,
                                   POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }

  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  bool ready_ = false;
};

/// Has the system tell of programs that end: where SIGCHLD is ignored, as a module may have it, it does not.
class EndsToldOf {
 public:
  EndsToldOf() noexcept {
    ignored_ = sigaction(SIGCHLD, nullptr, &before_) == 0 && before_.sa_handler == SIG_IGN;
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    if (ignored_) (void)sigaction(SIGCHLD, &standard, nullptr);
  }
  EndsToldOf(const EndsToldOf&) = delete;
  EndsToldOf& operator=(const EndsToldOf&) = delete;
  ~EndsToldOf() {
    if (ignored_) (void)sigaction(SIGCHLD, &before_, nullptr);
  }

 private:
  struct sigaction before_ {};
  bool ignored_ = false;
};

/// A program that was started. It has ended at the end of this.
class Child {
 public:
  explicit Child(pid_t id) noexcept : id_{id} {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (hasEnded_) return;
    end();
    int status = 0;
    while (waitpid(id_, &status, 0) < 0 && errno == EINTR) continue;
  }

  void end() const noexcept { (void)kill(-id_, SIGKILL); }

  /// False when it still runs at that time.
  [[nodiscard]] bool waitUntil(Clock::time_point limit, int& outStatus) {
    constexpr milliseconds kPause{5};
    while (true) {
      const pid_t ended = waitpid(id_, &outStatus, WNOHANG);
      if (ended == id_) return hasEnded_ = true;
      if (ended < 0 && errno != EINTR) return false;
      if (Clock::now() >= limit) return false;
      std::this_thread::sleep_for(kPause);
    }
  }

 private:
  pid_t id_;
  bool hasEnded_ = false;
};

enum class Reading { kEnd, kTooSlow, kTooLong };

/// All that is written to the pipe.
Reading readAll(int pipe, Clock::time_point limit, std::size_t most, std::string& out) {
  std::array<char, 4096> piece{};
  while (true) {
    const auto left = std::chrono::duration_cast<milliseconds>(limit - Clock::now()).count();
    if (left <= 0) return Reading::kTooSlow;
    pollfd wanted{pipe, POLLIN, 0};
    const int ready = poll(&wanted, 1, static_cast<int>(left));
    if (ready == 0) return Reading::kTooSlow;
    if (ready < 0) {
      if (errno == EINTR) continue;
      return Reading::kEnd;
    }
    const ssize_t count = read(pipe, piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return Reading::kEnd;
    const auto size = static_cast<std::size_t>(count);
    if (size > most - out.size()) {
      out.append(piece.data(), most - out.size());
      return Reading::kTooLong;
    }
    out.append(piece.data(), size);
  }
}

class PosixProgramRunner final : public ProgramRunner {
 public:
  explicit PosixProgramRunner(ProgramLimits limits) : limits_{limits} {}

  ProgramAnswer run(const std::string& path, const std::vector<std::string>& arguments) noexcept override {
    try {
      return answerOf(path, arguments);
    } catch (const std::exception&) {  // no memory
      return {ProgramAnswer::End::kNotStarted, ENOMEM, {}};
    }
  }

 private:
  [[nodiscard]] ProgramAnswer answerOf(const std::string& path,
                                       const std::vector<std::string>& arguments) const {
    using enum ProgramAnswer::End;
    const Clock::time_point limit = Clock::now() + limits_.time;
    std::array<int, 2> ends{-1, -1};
    if (pipe(ends.data()) != 0) return {kNotStarted, errno, {}};
    const Descriptor reading{ends[0]};
    Descriptor writing{ends[1]};
    (void)fcntl(reading.number(), F_SETFD, FD_CLOEXEC);
    (void)fcntl(writing.number(), F_SETFD, FD_CLOEXEC);

    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const char* home = std::getenv("HOME");
    std::vector<std::string> variables{"LC_ALL=C", "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};
    if (home) variables.push_back(std::string{"HOME="} + home);
    const std::vector<char*> wordPointers = pointersTo(words);
    const std::vector<char*> variablePointers = pointersTo(variables);

    const EndsToldOf told;
    pid_t id = 0;
    const Start start{writing.number()};
    const int error = start.program(id, path, wordPointers.data(), variablePointers.data());
    if (error != 0) return {error == ENOENT || error == ENOTDIR ? kMissing : kNotStarted, error, {}};
    Child child{id};
    writing.reset();

    ProgramAnswer answer;
    switch (readAll(reading.number(), limit, limits_.output, answer.output)) {
      case Reading::kTooSlow: answer.end = kTooSlow; return answer;
      case Reading::kTooLong: answer.end = kTooLong; return answer;
      case Reading::kEnd: break;
    }
    int status = 0;
    if (!child.waitUntil(limit, status)) {
      answer.end = kTooSlow;
    } else if (WIFEXITED(status)) {
      answer.end = kExited;
      answer.code = WEXITSTATUS(status);
    } else {
      answer.end = kSignal;
      answer.code = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    return answer;
  }

  /// Null-terminated, as the system wants them; they live as long as the texts.
  [[nodiscard]] static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  ProgramLimits limits_;
};

}  // namespace

std::shared_ptr<ProgramRunner> programRunnerWith(ProgramLimits limits) {
  return std::make_shared<PosixProgramRunner>(limits);
}

}  // namespace mirel
