// worker_cost worker|plain
//
// Nothing, in a worker or not: run by paired_runs, the difference is what the worker adds to every command.
// The process is as large as that of the command line, since it is linked with the same libraries.

#include <cstring>

#include "Worker.h"
#include "host/Host.h"

int main(int argc, char** argv) {
  using namespace mirel::cli;
  const auto nothing = [] { return ExitCode::kSuccess; };
  if (argc == 2 && std::strcmp(argv[1], "worker") == 0) {
    const auto done = runInWorker(nothing, Watch{std::chrono::seconds{30}, false});
    return done ? static_cast<int>(*done) : 1;
  }
  return static_cast<int>(nothing());
}
