// paired_runs RUNS [--new FILE] NAME COMMAND... --vs NAME COMMAND...
//
// Runs two commands as whole processes in turn, A B A B ..., after one run of each that is not counted, and
// prints wall time, processor time and peak memory of both with the ratio of the medians. A command's output
// is thrown away; one that fails ends the run. FILE is what both write: it is removed before each run.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace {

constexpr const char* kUsage = "usage: paired_runs RUNS [--new FILE] NAME COMMAND... --vs NAME COMMAND...";

using Clock = std::chrono::steady_clock;

struct Figures {
  std::vector<double> wallMs;
  std::vector<double> cpuMs;
  std::vector<double> peakMiB;
};

struct Command {
  std::string name;
  std::vector<char*> arguments;  // ends with null
  Figures figures;
};

[[noreturn]] void fail(const std::string& message) {
  (void)std::fprintf(stderr, "paired_runs: %s\n", message.c_str());
  std::exit(2);
}

double milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

void runOnce(Command& command, bool counted) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const auto start = Clock::now();
  const int spawned =
      posix_spawnp(&child, command.arguments.front(), &actions, nullptr, command.arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) fail(command.name + " cannot be started");
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child) fail(command.name + " was lost");
  const std::chrono::duration<double, std::milli> wall = Clock::now() - start;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail(command.name + " failed");
  if (!counted) return;
  command.figures.wallMs.push_back(wall.count());
  command.figures.cpuMs.push_back(milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime));
  command.figures.peakMiB.push_back(static_cast<double>(usage.ru_maxrss) / 1024.0);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void printRow(const char* what, const std::vector<double>& a, const std::vector<double>& b) {
  const auto smallest = [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); };
  std::printf("| %s | %.2f | %.2f | %.2f | %.2f | %.2f |\n", what, median(a), smallest(a), median(b),
              smallest(b), median(a) / median(b));
}

Command parseCommand(std::span<char*> words) {
  if (words.size() < 2) fail(kUsage);
  Command command{words.front(), {words.begin() + 1, words.end()}, {}};
  command.arguments.push_back(nullptr);
  return command;
}

}  // namespace

int main(int argc, char** argv) {
  std::span<char*> words{argv + 1, static_cast<std::size_t>(std::max(argc - 1, 0))};
  if (words.empty()) fail(kUsage);
  const int runs = std::atoi(words.front());  // NOLINT(cert-err34-c): 0 is refused
  if (runs < 1) fail("RUNS must be 1 or more");
  words = words.subspan(1);
  const char* newFile = nullptr;
  if (words.size() > 1 && words.front() == std::string_view{"--new"}) {
    newFile = words[1];
    words = words.subspan(2);
  }
  const auto versus =
      std::find_if(words.begin(), words.end(), [](char* word) { return word == std::string_view{"--vs"}; });
  if (versus == words.end()) fail(kUsage);
  const auto split = static_cast<std::size_t>(versus - words.begin());
  Command a = parseCommand(words.first(split));
  Command b = parseCommand(words.subspan(split + 1));

  for (int run = 0; run <= runs; ++run) {
    for (Command* command : {&a, &b}) {
      if (newFile != nullptr) (void)unlink(newFile);
      runOnce(*command, run > 0);
    }
  }
  std::printf(
      "| %d runs each | %s, median | min | %s, median | min | ratio of medians "
      "|\n|---|---|---|---|---|---|\n",
      runs, a.name.c_str(), b.name.c_str());
  printRow("wall ms", a.figures.wallMs, b.figures.wallMs);
  printRow("processor ms", a.figures.cpuMs, b.figures.cpuMs);
  printRow("peak MiB", a.figures.peakMiB, b.figures.peakMiB);
  return 0;
}
