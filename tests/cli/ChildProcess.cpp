#include "ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): posix_openpt is POSIX, not standard C++
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

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

/// A file without a name that takes what a child writes, or gives what it reads.
class ScratchFile {
 public:
  ScratchFile() : file_{std::tmpfile()} { require(file_ != nullptr, "tmpfile"); }

  [[nodiscard]] int descriptor() const { return fileno(file_.get()); }

  void fill(const std::string& text) const {
    require(write(descriptor(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
    require(lseek(descriptor(), 0, SEEK_SET) == 0, "lseek");
  }

  [[nodiscard]] std::string content() const {
    require(lseek(descriptor(), 0, SEEK_SET) == 0, "lseek");
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t got = 0; (got = read(descriptor(), buffer.data(), buffer.size())) > 0;)
      text.append(buffer.data(), static_cast<std::size_t>(got));
    return text;
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
  Terminal()
      : ours_{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt"},
        theirs_{openTheirs(), "ptsname"} {}

  [[nodiscard]] int theirs() const noexcept { return theirs_.get(); }

  /// All that is written until the last process has closed its end.
  [[nodiscard]] std::string content() {
    theirs_.close();
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t got = 0; (got = read(ours_.get(), buffer.data(), buffer.size())) > 0;)
      text.append(buffer.data(), static_cast<std::size_t>(got));
    return text;
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
  [[nodiscard]] const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
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
  errno = posix_spawn(&child, words.front().c_str(), actions.get(), nullptr, pointersTo(words).data(),
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

/// The end of a pipe that nobody will read from.
int openUnreadPipe() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return -1;
  (void)close(ends[0]);
  return ends[1];
}

}  // namespace

Result run(const Invocation& invocation) {
  const ScratchFile in;
  const ScratchFile out;
  const ScratchFile err;
  std::optional<Terminal> terminal;
  std::optional<Descriptor> other;
  in.fill(invocation.input);

  FileActions actions;
  actions.duplicate(in.descriptor(), STDIN_FILENO);
  actions.duplicate(err.descriptor(), STDERR_FILENO);
  switch (invocation.output) {
    case Output::kCaptured: actions.duplicate(out.descriptor(), STDOUT_FILENO); break;
    case Output::kTerminal: actions.duplicate(terminal.emplace().theirs(), STDOUT_FILENO); break;
    case Output::kClosed: actions.close(STDOUT_FILENO); break;
    case Output::kFull: other.emplace(open("/dev/full", O_WRONLY | O_CLOEXEC), "/dev/full"); break;
    case Output::kUnread: other.emplace(openUnreadPipe(), "pipe"); break;
  }
  if (other) {
    actions.duplicate(other->get(), STDOUT_FILENO);
    if (invocation.output == Output::kUnread) actions.close(other->get());
  }
  // The child's own ends of the scratch files are of no use to it under their other numbers.
  for (const ScratchFile* file : {&in, &out, &err}) actions.close(file->descriptor());

  const pid_t child = spawn(invocation, actions);
  std::string shown = terminal ? terminal->content() : std::string{};
  const int exitCode = exitCodeOf(child, invocation);
  return {exitCode, terminal ? std::move(shown) : out.content(), err.content()};
}

}  // namespace mirel::test
