#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <filesystem>

#include "CommandLineLog.h"
#include "Commands.h"
#include "ExitCode.h"
#include "Options.h"
#include "Output.h"
#include "host/Home.h"
#include "host/Host.h"
#include "platform/PlatformServices.h"

namespace mirel::cli {
namespace {

ExitCode fail(const Failure& failure) {
  writeMessage(failureLine(failure));
  return exitCodeOf(failure.kind);
}

/// Fills the places of standard streams that are closed, so that no file which the module opens takes one
/// and gets our output written into it. Writing to them goes on failing.
void occupyStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) == -1 && errno == EBADF) (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
}

ExitCode wrongUsage(const std::string& why) {
  writeMessage("mireltoken: wrong usage: " + why + "; see mireltoken --help");
  return ExitCode::kUsage;
}

ExitCode runCommand(PlatformServices services, const Options& options) {
  Host host{std::move(services), options.modulePath.value_or(std::string{})};
  return options.command == "readers" ? runReaders(host, options) : runItems(host, options);
}

ExitCode run(const Options& options) {
  PlatformServices services = systemServices();
  services.log = commandLineLog(services.log, options.verbose);
  if (options.home) {
    std::string home = std::filesystem::absolute(*options.home).string();
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    services.user = userWithHome(services.user, home);
  }
  if (!options.modulePath) return runCommand(std::move(services), options);

  const auto created = PrivateHome::create(*options.modulePath);
  if (const auto* failure = std::get_if<Failure>(&created)) return fail(*failure);
  const PrivateHome& privateHome = *std::get<std::unique_ptr<PrivateHome>>(created);
  privateHome.removeOnSignals();
  services.user = userWithHome(services.user, privateHome.path());
  return runCommand(std::move(services), options);
}

ExitCode print(const std::string& text) {
  return writeOutput(text) ? ExitCode::kSuccess : ExitCode::kInternal;
}

ExitCode parseAndRun(int argc, char** argv) {
  occupyStandardStreams();
  CLI::App app;
  Options options;
  declareOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return print(app.help());
  } catch (const CLI::CallForVersion&) {
    return print(app.version() + "\n");
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining();
    return wrongUsage(unknown.empty() ? error.what() : "there is no \"" + unknown.front() + "\"");
  }
  if (options.modulePath && options.modulePath->empty()) return wrongUsage("--module is empty");
  if (options.home && options.home->empty()) return wrongUsage("--home is empty");
  return run(options);
}

}  // namespace
}  // namespace mirel::cli

int main(int argc, char** argv) {
  using mirel::cli::ExitCode;
  // A reader of our output that goes away, or a module whose own service does, is an error to be told.
  (void)std::signal(SIGPIPE, SIG_IGN);
  try {
    return static_cast<int>(mirel::cli::parseAndRun(argc, argv));
  } catch (const std::exception& error) {
    mirel::cli::writeMessage("mireltoken: internal error: " + std::string{error.what()} +
                             "; please report it");
  } catch (...) {
    mirel::cli::writeMessage("mireltoken: internal error: of an unknown kind; please report it");
  }
  return static_cast<int>(ExitCode::kInternal);
}
