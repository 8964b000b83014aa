/// fault_matrix [--every N] [--command TEXT] [--only TEXT] [--list]
///
/// Runs every command of the command line on a card whose module has one fault: each call of the command
/// fails with each of many codes, once or from then on; each length, count, handle and flag has the values at
/// its borders; each function is missing; each text attacks the terminal. After each run it is checked that
///
///   - the exit code is 0 only for the right answer: the signature verifies, the plain text is the one that
///     was encrypted, the list is whole or what is missing is told;
///   - a failure is one line, and with --json one object; no text has a character that a terminal acts upon;
///   - there is no internal error, crash, finding of a sanitizer or file left, and it takes 10 s at most.
///
/// Prints a table, and what is wrong with which run; the exit code is 1 then. Build it with the sanitizers:
/// the commands run in processes made of this one, which have them too.
///
///   --every N       every N-th fault of each command
///   --command TEXT  commands that begin with that text
///   --only TEXT     faults with that text, and what each run came to
///   --list          the faults, without runs

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "faults/CardCommand.h"
#include "faults/Faults.h"
#include "support/TemporaryFolder.h"

// What the sanitizers find has an exit code that no command has. A module that makes the program ask for very
// much memory has found a fault. Leaks have tests of their own. Where memory was asked for, which a run with
// the option malloc_context_size tells, takes a third of the time.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();  // NOLINT
extern "C" const char* __asan_default_options() {                                        // NOLINT
  return "exitcode=99:detect_leaks=0:max_allocation_size_mb=256:malloc_context_size=0";
}
extern "C" __attribute__((visibility("default"))) const char* __ubsan_default_options();    // NOLINT
extern "C" const char* __ubsan_default_options() { return "exitcode=99:halt_on_error=1"; }  // NOLINT

namespace mirel::test {
namespace {

struct Wanted {
  std::size_t every = 1;
  std::string command;
  std::string only;
  bool list = false;
};

struct Counts {
  std::size_t faults = 0;
  std::size_t notReached = 0;  ///< runs that did not come to the fault
  std::size_t right = 0;       ///< exit code 0
  std::size_t reports = 0;     ///< exit codes 19 and 20
  std::size_t failures = 0;    ///< other exit codes
  std::size_t wrong = 0;
};

class Matrix {
 public:
  explicit Matrix(Wanted wanted) : wanted_{std::move(wanted)} {
    (void)setenv("TMPDIR", folder_.path().c_str(), 1);
    for (const char* name : {"HOME", "MIRELTOKEN_MODULE", "MIRELTOKEN_READER", "NO_COLOR"})
      (void)unsetenv(name);
  }

  [[nodiscard]] int run() {
    if (!wanted_.list) {
      std::puts("| command | calls | runs | exit 0 | a report | a failure | fault not reached | wrong |");
      std::puts("|---|---|---|---|---|---|---|---|");
    }
    for (const CardCommand& command : runs_.commands()) {
      if (command.name.starts_with(wanted_.command)) runOne(command);
    }
    if (wanted_.list) return 0;
    print("all", 0, all_);
    std::fputs("\nexit codes:", stdout);
    for (const auto& [code, count] : exitCodes_) std::printf(" %d: %zu", code, count);
    std::puts("");
    return all_.wrong == 0 && all_.faults > 0 ? 0 : 1;
  }

 private:
  static void print(const std::string& name, std::size_t calls, const Counts& counts) {
    std::printf("| %s | %zu | %zu | %zu | %zu | %zu | %zu | %zu |\n", name.c_str(), calls, counts.faults,
                counts.right, counts.reports, counts.failures, counts.notReached, counts.wrong);
    (void)std::fflush(stdout);
  }

  void runOne(const CardCommand& command) {
    card_.play({});
    const RunResult good = runCommand(command.arguments);
    const Fault none{.name = "no fault"};
    Counts counts;
    check(command, none, good, good, counts);
    const std::vector<Fault> faults = faultsFor(card_.record());
    const std::size_t numCalls = card_.record().numCalls;
    counts = {.wrong = counts.wrong};
    for (std::size_t i = turn_++ % wanted_.every; i < faults.size(); i += wanted_.every) {
      const Fault& fault = faults[i];
      if (fault.name.find(wanted_.only) == std::string::npos) continue;
      if (wanted_.list) {
        std::printf("%s: %s\n", command.name.c_str(), fault.name.c_str());
        continue;
      }
      card_.play(fault);
      const RunResult result = runCommand(command.arguments);
      check(command, fault, result, good, counts);
      if (!wanted_.only.empty()) show(fault, result);
    }
    if (wanted_.list) return;
    print(command.name, numCalls, counts);
    all_.faults += counts.faults;
    all_.notReached += counts.notReached;
    all_.right += counts.right;
    all_.reports += counts.reports;
    all_.failures += counts.failures;
    all_.wrong += counts.wrong;
  }

  void check(const CardCommand& command, const Fault& fault, const RunResult& result, const RunResult& good,
             Counts& counts) {
    ++counts.faults;
    if (fault.kind != Fault::Kind::kNone) ++exitCodes_[result.exitCode];
    if (!card_.record().fired) ++counts.notReached;
    const bool isReport = result.exitCode == 19 || result.exitCode == 20;
    ++(result.exitCode == 0 ? counts.right : isReport ? counts.reports : counts.failures);
    std::string complaint = runs_.complaint(command, fault, result, good);
    const std::string left = runs_.tidyUp(command, result);
    if (complaint.empty()) complaint = left;
    if (complaint.empty()) return;
    ++counts.wrong;
    std::printf("WRONG: %s: %s: %s (exit code %d)\n  %s", command.name.c_str(), fault.name.c_str(),
                complaint.c_str(), result.exitCode, result.err.c_str());
    if (result.err.empty()) std::puts("");
  }

  static void show(const Fault& fault, const RunResult& result) {
    std::printf("%s: exit code %d\n%s%s", fault.name.c_str(), result.exitCode, result.out.c_str(),
                result.err.c_str());
  }

  Wanted wanted_;
  TemporaryFolder folder_;
  FaultyCard card_;
  RunFolder runs_{card_, folder_.path()};
  Counts all_;
  std::map<int, std::size_t> exitCodes_;
  std::size_t turn_ = 0;
};

int usage() {
  (void)std::fputs("usage: fault_matrix [--every N] [--command TEXT] [--only TEXT] [--list]\n", stderr);
  return 2;
}

int start(int argc, char** argv) {
  Wanted wanted;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--list") {
      wanted.list = true;
      continue;
    }
    if (++i == argc) return usage();
    if (name == "--every") {
      wanted.every = std::strtoul(argv[i], nullptr, 10);
    } else if (name == "--command") {
      wanted.command = argv[i];
    } else if (name == "--only") {
      wanted.only = argv[i];
    } else {
      return usage();
    }
  }
  if (wanted.every == 0) return usage();
  return Matrix{std::move(wanted)}.run();
}

}  // namespace
}  // namespace mirel::test

int main(int argc, char** argv) {
  try {
    return mirel::test::start(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "fault_matrix: %s\n", error.what());
    return 2;
  }
}
