#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <filesystem>
#include <string>
#include <utility>

#include "Command.h"
#include "CommandLineLog.h"
#include "ExitCode.h"
#include "ExitGuard.h"
#include "FirstStart.h"
#include "Options.h"
#include "Output.h"
#include "PinEntry.h"
#include "Session.h"
#include "Usage.h"
#include "host/Home.h"
#include "host/ModuleFile.h"
#include "platform/Desktop.h"
#include "platform/MemoryDumps.h"
#include "platform/PlatformServices.h"

namespace mirel::cli {
namespace {

/// Fills the places of standard streams that are closed, so that no file which the module opens takes one
/// and gets our output written into it. Reading from them and writing to them goes on failing.
void occupyStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    const int useless = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (fcntl(stream, F_GETFD) == -1 && errno == EBADF) (void)open("/dev/null", useless | O_CLOEXEC);
  }
}

Failure wrongUsage(const std::string& why) {
  return {FailureKind::kBadInput, "wrong usage", why, "see mireltoken --help"};
}

ExitCode run(const Options& options) {
  const ExitGuard guard;
  if (options.command->takes(CommandOption::Kind::kPin)) forbidMemoryDumps();
  PlatformServices services = systemServices();
  services.observer = ExitGuard::observer();
  services.log = commandLineLog(services.log, options.verbose);
  if (options.home) {
    std::string home = std::filesystem::absolute(*options.home).string();
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    services.user = userWithHome(services.user, home);
  }
  if (const auto chosen = chooseModule(services, {options.modulePath, options.trustModule}); !chosen)
    return report(chosen.failure());
  Session session{std::move(services), options};
  const auto done = options.command->run(session);
  return done ? ExitCode::kSuccess : report(done.failure());
}

ExitCode print(const std::string& text) {
  const auto written = writeOutput(text);
  return written ? ExitCode::kSuccess : report(written.failure());
}

/// Whether options that the parser lets pass make sense.
Result<void> checkUsage(const Options& options) {
  const struct {
    const char* name;
    const std::optional<std::string>& value;
  } texts[] = {{"--module", options.modulePath},   {"--home", options.home}, {"--key", options.key},
               {"--algorithm", options.algorithm}, {"--in", options.in},     {"--out", options.out},
               {"--pin-file", options.pinFile}};
  for (const auto& [name, value] : texts) {
    if (value && value->empty()) return wrongUsage(std::string{name} + " is empty");
  }
  if (!options.key && options.command->takes(CommandOption::Kind::kKey))
    return wrongUsage("--key is missing");
  const bool readsInput = options.command->takes(CommandOption::Kind::kInput);
  if (options.pinFd == STDIN_FILENO && readsInput && options.in.value_or("-") == "-") {
    return wrongUsage("--pin-fd 0 and the data cannot both be standard input");
  }
  return {};
}

ExitCode parseAndRun(int argc, char** argv) {
  occupyStandardStreams();
  if (const auto code = runFirstStart(argc, systemDesktop().get(), *systemUserDirectory())) return *code;
  CLI::App app;
  Options options;
  declareOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return print(helpText(app));
  } catch (const CLI::CallForVersion&) {
    return print("mireltoken " MIREL_VERSION "\n");
  } catch (const CLI::ParseError& error) {
    return report(wrongUsage(refusalText(app, error)));
  }
  if (const auto usage = checkUsage(options); !usage) return report(usage.failure());
  for (auto* name : {&options.in, &options.out}) {
    if (*name == "-") name->reset();
  }
  if (const auto descriptor = checkPinDescriptor(options); !descriptor) return report(descriptor.failure());
  return run(options);
}

}  // namespace
}  // namespace mirel::cli

int main(int argc, char** argv) {
  using mirel::cli::ExitCode;
  // A reader of our output that goes away, or a module whose own service does, is an error to be told.
  (void)std::signal(SIGPIPE, SIG_IGN);
  // So is a file that may not grow any more: the write fails then, and what is half written is removed.
  (void)std::signal(SIGXFSZ, SIG_IGN);
  // The texts that a token has for its users follow the user's language.
  (void)std::setlocale(LC_MESSAGES, "");
  try {
    const int code = static_cast<int>(mirel::cli::parseAndRun(argc, argv));
    mirel::cli::ExitGuard::programEndsWith(code);
    return code;
  } catch (const std::exception& error) {
    mirel::cli::writeMessage("mireltoken: internal error: " + std::string{error.what()} +
                             "; please report it");
  } catch (...) {
    mirel::cli::writeMessage("mireltoken: internal error: of an unknown kind; please report it");
  }
  return static_cast<int>(ExitCode::kInternal);
}
