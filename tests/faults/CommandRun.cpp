#include "faults/CommandRun.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "Program.h"

namespace mirel::test {
namespace {

/// Memory that takes what a run writes.
class Captured {
 public:
  explicit Captured(const char* name) : descriptor_{memfd_create(name, MFD_CLOEXEC)} {
    if (descriptor_ < 0) throw std::system_error{errno, std::generic_category(), "memfd_create"};
  }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;
  ~Captured() { (void)close(descriptor_); }

  void standFor(int stream) const { (void)dup2(descriptor_, stream); }

  [[nodiscard]] std::string taken() const {
    std::string text(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END)), '\0');
    if (pread(descriptor_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) text.clear();
    return text;
  }

 private:
  int descriptor_;
};

[[noreturn]] void become(const std::vector<std::string>& arguments, const Captured& out,
                         const Captured& err) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  (void)dup2(nothing, STDIN_FILENO);
  out.standFor(STDOUT_FILENO);
  err.standFor(STDERR_FILENO);
  (void)alarm(kLongestRun);
  std::vector<std::string> words{"mireltoken"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::exit(cli::runProgram(static_cast<int>(words.size()), argv.data()));
}

}  // namespace

RunResult runCommand(const std::vector<std::string>& arguments) {
  const Captured out{"out"};
  const Captured err{"err"};
  (void)std::fflush(nullptr);  // or the child would write it too
  const pid_t child = fork();
  if (child < 0) throw std::system_error{errno, std::generic_category(), "fork"};
  if (child == 0) become(arguments, out, err);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  RunResult result;
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  result.out = out.taken();
  result.err = err.taken();
  return result;
}

}  // namespace mirel::test
