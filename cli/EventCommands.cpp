#include "EventCommands.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "HelperProcess.h"
#include "Output.h"

namespace mirel::cli {
namespace {

constexpr int kShellHasNone = 127;  // the exit code of a shell that could not be started
constexpr std::chrono::milliseconds kTimeAfterKill{1000};

[[noreturn]] void becomeShell(const std::string& command, const std::string& event, const std::string& reader,
                              const std::string& serialNumber) {
  (void)setpgid(0, 0);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGPIPE, SIGXFSZ})
    (void)std::signal(signal, SIG_DFL);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing >= 0) (void)dup2(nothing, STDIN_FILENO);
  (void)dup2(STDERR_FILENO, STDOUT_FILENO);
  (void)setenv("EVENT", event.c_str(), 1);
  (void)setenv("READER", reader.c_str(), 1);
  (void)setenv("SERIAL", serialNumber.c_str(), 1);
  (void)execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
  _exit(kShellHasNone);
}

void tell(const std::string& what, const std::string& why) {
  writeMessage("mireltoken: the command of --exec " + what + ": " + why);
}

}  // namespace

EventCommands::~EventCommands() {
  takeLeave();
  for (const Running& one : running_) (void)kill(-one.process, SIGTERM);
  waitForEnds(kTimeForEnd);
  for (Running& one : running_) one.whyNotEnded = kill(-one.process, SIGKILL) == 0 ? 0 : errno;
  waitForEnds(kTimeAfterKill);
  // A program that has become another user's is not ours to end.
  for (const Running& one : running_) {
    const std::string why = one.whyNotEnded != 0 ? std::strerror(one.whyNotEnded) : "it does not end";
    tell("goes on for " + one.what, why + "; end process " + std::to_string(one.process) + " yourself");
  }
}

void EventCommands::waitForEnds(std::chrono::milliseconds most) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + most;
  const auto hasEnded = [](const Running& one) { return waitpid(one.process, nullptr, WNOHANG) != 0; };
  while (std::erase_if(running_, hasEnded), !running_.empty() && Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
}

void EventCommands::run(const std::string& event, const std::string& reader,
                        const std::string& serialNumber) {
  const std::string what = event + ", reader \"" + reader + "\"";
  if (running_.size() == kMost) takeLeave();
  if (running_.size() == kMost)
    return tell("was not run for " + what, "32 are still running; see why they do not end");
  const pid_t process = fork();
  if (process == 0) becomeShell(command_, event, reader, serialNumber);
  if (process < 0)
    return tell("was not run for " + what, std::string{std::strerror(errno)} + "; close other programs");
  (void)setpgid(process, process);
  running_.push_back({process, what});
}

void EventCommands::takeLeave() {
  std::erase_if(running_, [](const Running& one) {
    int status = 0;
    if (waitpid(one.process, &status, WNOHANG) == 0) return false;
    if (WIFSIGNALED(status))
      tell("failed for " + one.what, "signal " + std::to_string(WTERMSIG(status)) + " ended it");
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
      tell("failed for " + one.what, "its exit code is " + std::to_string(WEXITSTATUS(status)));
    return true;
  });
}

}  // namespace mirel::cli
