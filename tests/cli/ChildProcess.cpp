#include "ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): posix_openpt is POSIX, not standard C++
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

constexpr std::chrono::seconds kLongestRun{60};
constexpr std::chrono::milliseconds kPause{1};

void require(bool done, const char* what) {
  if (!done) throw std::system_error{errno, std::generic_category(), what};
}

struct CloseFile {
  void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};

/// All that can be read until the end, or until the last process at the other end has gone.
std::string allFrom(int descriptor) {
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t got = 0; (got = read(descriptor, buffer.data(), buffer.size())) > 0;)
    text.append(buffer.data(), static_cast<std::size_t>(got));
  return text;
}

void writeTo(int descriptor, const std::string& text) {
  require(write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
}

/// A file without a name that takes what a child writes, or gives what it reads.
class ScratchFile {
 public:
  ScratchFile() : file_{std::tmpfile()} { require(file_ != nullptr, "tmpfile"); }

  [[nodiscard]] int descriptor() const { return fileno(file_.get()); }

  void fill(const std::string& text) const {
    writeTo(descriptor(), text);
    require(lseek(descriptor(), 0, SEEK_SET) == 0, "lseek");
  }

  [[nodiscard]] std::string content() const {
    require(lseek(descriptor(), 0, SEEK_SET) == 0, "lseek");
    return allFrom(descriptor());
  }

 private:
  std::unique_ptr<std::FILE, CloseFile> file_;
};

/// A descriptor of our own, closed at the end of its life and not passed on.
class Descriptor {
 public:
  Descriptor(int descriptor, const char* what) : descriptor_{descriptor} { require(descriptor >= 0, what); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : descriptor_{std::exchange(other.descriptor_, -1)} {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() { close(); }

  [[nodiscard]] int get() const noexcept { return descriptor_; }
  void close() noexcept {
    if (descriptor_ >= 0) (void)::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_;
};

/// A terminal, with us at the other end of its line.
class Terminal {
 public:
  explicit Terminal(unsigned short columns)
      : ours_{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt"}, theirs_{openTheirs(), "ptsname"} {
    winsize size{};
    size.ws_col = columns;
    require(ioctl(theirs(), TIOCSWINSZ, &size) == 0, "ioctl");
  }

  [[nodiscard]] int theirs() const noexcept { return theirs_.get(); }

  /// All that is written until the last process has closed its end.
  [[nodiscard]] std::string content() {
    theirs_.close();
    return allFrom(ours_.get());
  }

 private:
  [[nodiscard]] int openTheirs() const {
    if (grantpt(ours_.get()) != 0 || unlockpt(ours_.get()) != 0) return -1;
    return open(ptsname(ours_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }

  Descriptor ours_;
  Descriptor theirs_;
};

class FileActions {
 public:
  FileActions() { require(posix_spawn_file_actions_init(&actions_) == 0, "posix_spawn_file_actions_init"); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { (void)posix_spawn_file_actions_destroy(&actions_); }

  void duplicate(int from, int to) {
    require(posix_spawn_file_actions_adddup2(&actions_, from, to) == 0, "posix_spawn_file_actions_adddup2");
  }
  void close(int descriptor) {
    require(posix_spawn_file_actions_addclose(&actions_, descriptor) == 0,
            "posix_spawn_file_actions_addclose");
  }
  void open(int descriptor, const char* path, int flags) {
    require(posix_spawn_file_actions_addopen(&actions_, descriptor, path, flags, 0) == 0,
            "posix_spawn_file_actions_addopen");
  }
  [[nodiscard]] const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

/// A session of its own for the child, so that it does not ask at the terminal from which the tests are run,
/// and signals that end it, though they be ignored here.
class Attributes {
 public:
  explicit Attributes(bool keepsIgnoredSignals) {
    sigset_t ending{};
    (void)sigemptyset(&ending);
    if (!keepsIgnoredSignals) {
      for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXFSZ}) (void)sigaddset(&ending, signal);
    }
    constexpr short kFlags = POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF;
    require(posix_spawnattr_init(&attributes_) == 0, "posix_spawnattr_init");
    require(posix_spawnattr_setflags(&attributes_, kFlags) == 0, "posix_spawnattr_setflags");
    require(posix_spawnattr_setsigdefault(&attributes_, &ending) == 0, "posix_spawnattr_setsigdefault");
  }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() { (void)posix_spawnattr_destroy(&attributes_); }

  [[nodiscard]] const posix_spawnattr_t* get() const noexcept { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

/// A pipe that the child reads from; what it leaves there, we read.
class Pipe {
 public:
  explicit Pipe(const std::string& content) : Pipe{opened()} { fill(content); }

  [[nodiscard]] int forChild() const noexcept { return out_.get(); }
  void fill(const std::string& text) const { writeTo(in_.get(), text); }
  void end() noexcept { in_.close(); }

  [[nodiscard]] std::string rest() {
    end();
    return allFrom(out_.get());
  }

 private:
  static std::array<int, 2> opened() {
    std::array<int, 2> ends{};
    require(pipe(ends.data()) == 0, "pipe");
    for (const int end : ends) require(fcntl(end, F_SETFD, FD_CLOEXEC) == 0, "fcntl");
    return ends;
  }
  explicit Pipe(std::array<int, 2> ends) : out_{ends[0], "pipe"}, in_{ends[1], "pipe"} {}

  Descriptor out_;
  Descriptor in_;
};

/// The array that C wants, pointing into `texts`.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

pid_t spawn(const Invocation& invocation, const FileActions& actions) {
  std::vector<std::string> words{invocation.program.string()};
  words.insert(words.end(), invocation.arguments.begin(), invocation.arguments.end());
  std::vector<std::string> variables;
  for (const auto& [name, value] : invocation.environment)
    variables.emplace_back(name).append("=").append(value);

  pid_t child = -1;
  errno = posix_spawn(&child, words.front().c_str(), actions.get(),
                      Attributes{invocation.keepsIgnoredSignals}.get(), pointersTo(words).data(),
                      pointersTo(variables).data());
  require(errno == 0, words.front().c_str());
  return child;
}

int exitCodeOf(pid_t child, const Invocation& invocation) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestRun;
  bool signalled = invocation.signal == 0;
  int status = 0;
  for (pid_t ended = 0; ended == 0; std::this_thread::sleep_for(kPause)) {
    ended = waitpid(child, &status, WNOHANG);
    require(ended >= 0, "waitpid");
    if (ended != 0) break;
    if (!signalled && std::filesystem::exists(invocation.signalFile))
      signalled = kill(child, invocation.signal) == 0;
    if (std::chrono::steady_clock::now() > deadline) (void)kill(child, SIGKILL);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Fills the numbers of the standard streams, so that nothing opened later gets one of them: the child has
/// them for its own.
void fillStandardStreams() {
  int descriptor = 0;
  do descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  require(descriptor >= 0, "/dev/null");
  (void)close(descriptor);
}

/// Keeps from the child what this process was started with or has opened, except for the standard streams.
void keepDescriptors() {
  constexpr int kHighest = 255;
  for (int descriptor = STDERR_FILENO + 1; descriptor <= kHighest; ++descriptor)
    (void)fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

/// The end of a pipe that nobody will read from.
int openUnreadPipe() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return -1;
  (void)close(ends[0]);
  return ends[1];
}

}  // namespace

struct RunningChild::State {
  Invocation invocation;
  ScratchFile in;
  ScratchFile out;
  ScratchFile err;
  std::optional<Terminal> terminal;
  std::optional<Descriptor> other;
  std::map<int, Pipe> pipes;
  pid_t pid = -1;

  void prepareOutput(FileActions& actions) {
    switch (invocation.output) {
      case Output::kCaptured: actions.duplicate(out.descriptor(), STDOUT_FILENO); break;
      case Output::kTerminal:
        actions.duplicate(terminal.emplace(invocation.columns).theirs(), STDOUT_FILENO);
        break;
      case Output::kClosed: actions.close(STDOUT_FILENO); break;
      case Output::kFull: other.emplace(open("/dev/full", O_WRONLY | O_CLOEXEC), "/dev/full"); break;
      case Output::kUnread: other.emplace(openUnreadPipe(), "pipe"); break;
    }
    if (other) actions.duplicate(other->get(), STDOUT_FILENO);
  }

  void preparePipes(FileActions& actions) {
    for (const auto& [descriptor, content] : invocation.pipes) {
      Pipe& pipe = pipes.emplace(descriptor, Pipe{content}).first->second;
      actions.duplicate(pipe.forChild(), descriptor);
      if (!invocation.pipesStayOpen) pipe.end();
    }
  }

  void start() {
    in.fill(invocation.input);
    FileActions actions;
    if (invocation.inputIsClosed) {
      actions.close(STDIN_FILENO);
    } else {
      actions.duplicate(in.descriptor(), STDIN_FILENO);
    }
    actions.duplicate(err.descriptor(), STDERR_FILENO);
    prepareOutput(actions);
    if (invocation.terminal) {
      // The first terminal that the leader of a session opens becomes the session's.
      constexpr int kAnyDescriptor = 30;
      actions.open(kAnyDescriptor, invocation.terminal->name().c_str(), O_RDWR);
      actions.close(kAnyDescriptor);
    }
    preparePipes(actions);
    for (const auto& [theirs, ours] : invocation.descriptors) actions.duplicate(ours, theirs);
    keepDescriptors();
    pid = spawn(invocation, actions);
  }
};

RunningChild::RunningChild(const Invocation& invocation) {
  fillStandardStreams();
  state_ = std::make_unique<State>();
  state_->invocation = invocation;
  state_->start();
}

RunningChild::~RunningChild() {
  if (state_->pid <= 0) return;
  constexpr int kTries = 5000;
  (void)kill(state_->pid, SIGTERM);
  for (int i = 0; i < kTries; ++i, std::this_thread::sleep_for(kPause)) {
    if (waitpid(state_->pid, nullptr, WNOHANG) != 0) return;
  }
  (void)kill(state_->pid, SIGKILL);
  (void)waitpid(state_->pid, nullptr, 0);
}

pid_t RunningChild::pid() const noexcept { return state_->pid; }

pid_t RunningChild::worker() const {
  const std::string process = std::to_string(state_->pid);
  for (int i = 0; i < 20000; ++i) {
    std::ifstream children{"/proc/" + process + "/task/" + process + "/children"};
    if (pid_t worker = 0; children >> worker) return worker;
    std::this_thread::sleep_for(kPause);
  }
  throw std::runtime_error{"the program has started no process"};
}

void RunningChild::writeToPipe(int descriptor, const std::string& text) const {
  state_->pipes.at(descriptor).fill(text);
}

Result RunningChild::wait() {
  for (auto& [descriptor, pipe] : state_->pipes) pipe.end();
  Result result;
  if (state_->terminal) result.out = state_->terminal->content();
  result.exitCode = exitCodeOf(std::exchange(state_->pid, -1), state_->invocation);
  if (!state_->terminal) result.out = state_->out.content();
  result.err = state_->err.content();
  for (auto& [descriptor, pipe] : state_->pipes) result.leftInPipes[descriptor] = pipe.rest();
  return result;
}

Result run(const Invocation& invocation) { return RunningChild{invocation}.wait(); }

}  // namespace mirel::test
