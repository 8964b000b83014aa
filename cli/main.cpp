#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "Command.h"
#include "CommandLineLog.h"
#include "ExitCode.h"
#include "ExitGuard.h"
#include "FirstStart.h"
#include "Json.h"
#include "Options.h"
#include "Output.h"
#include "PinEntry.h"
#include "Session.h"
#include "Usage.h"
#include "Variables.h"
#include "Version.h"
#include "host/Home.h"
#include "host/ModuleFile.h"
#include "host/ModuleLookup.h"
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
  return {FailureKind::kWrongUsage, "wrong usage", why, "see mireltoken --help"};
}

/// Runs the command that was chosen.
Result<void> run(Options& options) {
  const ExitGuard guard{options.json};
  if (options.command->takes(CommandOption::Kind::kPin)) forbidMemoryDumps();
  PlatformServices services = systemServices();
  services.observer = ExitGuard::observer();
  services.log = commandLineLog(services.log, options.verbose);
  if (options.home) {
    std::string home = std::filesystem::absolute(*options.home).string();
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    services.user = userWithHome(services.user, home);
  }
  if (options.modulePath) {
    const auto folders = systemModuleFolders(*services.user);
    const auto file = moduleFileFor(*options.modulePath, folders, options.trustModule);
    if (!file) return file.failure();
    options.modulePath = *file;
  }
  if (auto chosen = chooseModule(services, {options.modulePath, options.trustModule}); !chosen) return chosen;
  Session session{std::move(services), options};
  return options.command->run(session);
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

Result<void> printHelp(const CLI::App& app, const Options& options) {
  const auto text = helpTextOn(app, options.helpOn.value_or(""));
  if (!text) return wrongUsage("there is no command \"" + *options.helpOn + "\"");
  return writeOutput(*text);
}

Result<void> parseAndRun(int argc, char** argv) {
  CLI::App app;
  Options options;
  declareOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return writeOutput(helpText(app));
  } catch (const CLI::CallForVersion&) {
    return writeOutput(versionText());
  } catch (const CLI::ParseError& error) {
    return wrongUsage(refusalText(app, error));
  }
  if (!options.command) return printHelp(app, options);
  if (auto usage = checkUsage(options); !usage) return usage;
  for (auto* name : {&options.in, &options.out}) {
    if (*name == "-") name->reset();
  }
  if (auto descriptor = checkPinDescriptor(options); !descriptor) return descriptor;
  takeVariables(options);
  auto done = run(options);
  return done ? done : namingVariables(std::move(done).failure(), options);
}

/// The same, whatever is thrown.
Result<void> parseAndRunSafely(int argc, char** argv) {
  const auto internal = [](const char* why) {
    return Failure{FailureKind::kInternal, "internal error", why, "please report it"};
  };
  try {
    return parseAndRun(argc, argv);
  } catch (const std::exception& error) {
    return internal(error.what());
  } catch (...) {
    return internal("of an unknown kind");
  }
}

/// Also where the command line makes no sense: whoever writes --json wants to read what is wrong with it.
bool asksForJson(int argc, char** argv) {
  return std::any_of(argv, argv + argc, [](std::string_view word) { return word == "--json"; });
}

/// A script whose command got lost must not go on as if it had been carried out.
ExitCode askForCommand() {
  CLI::App app;
  Options options;
  declareOptions(app, options);
  (void)std::fputs(shortHelpText(app).c_str(), stderr);
  return ExitCode::kUsage;
}

ExitCode start(int argc, char** argv) {
  occupyStandardStreams();
  if (const auto code = runFirstStart(argc, systemDesktop().get(), *systemUserDirectory())) return *code;
  if (argc <= 1) return askForCommand();
  const auto done = parseAndRunSafely(argc, argv);
  return done ? ExitCode::kSuccess : report(done.failure(), asksForJson(argc, argv));
}

}  // namespace
}  // namespace mirel::cli

int main(int argc, char** argv) {
  // A reader of our output that goes away, or a module whose own service does, is an error to be told.
  (void)std::signal(SIGPIPE, SIG_IGN);
  // So is a file that may not grow any more: the write fails then, and what is half written is removed.
  (void)std::signal(SIGXFSZ, SIG_IGN);
  // The texts that a token has for its users follow the user's language.
  (void)std::setlocale(LC_MESSAGES, "");
  try {
    const int code = static_cast<int>(mirel::cli::start(argc, argv));
    mirel::cli::ExitGuard::programEndsWith(code);
    return code;
  } catch (...) {  // no memory to tell what went wrong
    return static_cast<int>(mirel::cli::ExitCode::kInternal);
  }
}
