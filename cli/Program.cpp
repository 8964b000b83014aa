#include "Program.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CommandLineLog.h"
#include "Commands.h"
#include "ExitCode.h"
#include "FirstStart.h"
#include "Json.h"
#include "Options.h"
#include "Output.h"
#include "PinEntry.h"
#include "Recordings.h"
#include "Session.h"
#include "Usage.h"
#include "UsageChecks.h"
#include "Variables.h"
#include "Version.h"
#include "Worker.h"
#include "host/ModuleFile.h"
#include "host/ModuleLookup.h"
#include "host/NearestName.h"
#include "platform/CryptographyLibrary.h"
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

/// Carries out the command that was chosen.
Result<ExitCode> carryOut(Options& options, RunRecorder& recorder) {
  if (options.command->takes(CommandOption::Kind::kPin)) forbidMemoryDumps();
  PlatformServices services = systemServices();
  ModuleChoice module{options.modulePath, options.trustModule};
  std::function<void()> endReplay;
  if (options.replay) {
    auto ready = replay(options, services, module);
    if (!ready) return ready.failure();
    endReplay = *std::move(ready);
  }
  services.observer = notingObserver();
  services.inspectionObserver = services.observer;
  services.loader = notingLoader(services.loader);
  services.log = commandLineLog(services.log, options.verbose > 0);
  services.user = userOf(options, services.user);
  if (options.modulePath && !options.replay) {
    const auto folders = systemModuleFolders(*services.user);
    const auto lookUp = options.command->usesModule ? moduleFileFor : moduleFileToExamine;
    const auto file = lookUp(*options.modulePath, folders, options.trustModule);
    if (!file) return file.failure();
    options.modulePath = *file;
  }
  module.path = options.modulePath;
  module.trusted = options.trustModule;
  recorder.record(services, module);
  if (options.command->usesModule) {
    if (const auto chosen = chooseModule(services, module); !chosen) return chosen.failure();
  }
  Session session{std::move(services), options, std::move(module)};
  auto done = options.command->run(session);
  if (endReplay) endReplay();
  if (!done) return session.withRemarkOnPin(std::move(done).failure());
  return session.exitCode();
}

/// What `action` answers; an exception is a failure of ours.
template <typename Action>
auto guarded(const Action& action) -> decltype(action()) {
  const auto internal = [](const char* why) {
    return Failure{FailureKind::kInternal, "internal error", why, "please report it"};
  };
  try {
    return action();
  } catch (const std::exception& error) {
    return internal(error.what());
  } catch (...) {
    return internal("of an unknown kind");
  }
}

/// The same in a process of its own, which tells its failures itself.
Result<ExitCode> run(Options& options) {
  const auto recorder = RunRecorder::open(options);
  if (!recorder) return recorder.failure();
  if (!options.command->hasWorker) {
    const auto done = carryOut(options, **recorder);
    return done ? done : namingVariables(done.failure(), options);
  }
  const auto work = [&] {
    const auto done = guarded([&] { return carryOut(options, **recorder); });
    const ExitCode code = done ? *done : report(namingVariables(done.failure(), options), options.json);
    // A command that failed is the one whose trace is needed.
    const auto written = (*recorder)->checkWritten();
    return written ? code : report(written.failure(), options.json);
  };
  const Watch watch{options.timeout > 0 ? std::optional{std::chrono::seconds{options.timeout}} : std::nullopt,
                    !options.json && isatty(STDERR_FILENO) != 0};
  Salvage salvage;
  if (options.command->salvage) {
    salvage = [&options](Failure failure, std::string_view noted) {
      return options.command->salvage(options, std::move(failure), noted);
    };
  }
  const auto whenEnded = [&](const WorkerEnd& end) {
    const auto noted = guarded([&]() -> Result<void> {
      (*recorder)->workerEnded(end);
      return {};
    });
    if (!noted) (void)report(noted.failure(), options.json);
  };
  auto ended = runInWorker(work, watch, salvage, whenEnded);
  const auto stored = guarded([&] { return (*recorder)->store(); });
  if (stored) return ended;
  if (!ended) (void)report(ended.failure(), options.json);
  return report(stored.failure());
}

/// Standard output got that text.
Result<ExitCode> print(const std::string& text) {
  const auto written = writeOutput(text);
  if (!written) return written.failure();
  return ExitCode::kSuccess;
}

Result<ExitCode> printHelp(const CLI::App& app, const Options& options) {
  const std::string name = options.helpOn.value_or("");
  if (const auto text = helpTextOn(app, name)) return print(*text);
  std::vector<std::string> names;
  for (const Command* command : allCommands()) names.emplace_back(command->name);
  names.emplace_back("record");
  return wrongUsage("there is no command \"" + name + "\"" + suggestionFor(name, names));
}

/// What reads the command line, and the command behind "record", if there is one.
struct Parsers {
  CLI::App whole;
  std::optional<CLI::App> recorded;

  [[nodiscard]] const CLI::App& last() const { return recorded ? *recorded : whole; }
};

/// Parses the command line; with "record" in front, what is to be recorded too. `words`: see declareOptions.
/// Throws what the library throws, where help is wanted too.
Result<void> parse(std::span<char* const> line, std::optional<std::span<char* const>> words, Parsers& parsers,
                   Options& options) {
  declareOptions(parsers.whole, options, words);
  parsers.whole.parse(static_cast<int>(line.size()), line.data());
  if (auto behind = commandToRecord(parsers.whole)) {
    if (auto usage = checkRecord(options); !usage) return usage;
    declareOptions(parsers.recorded.emplace(), options, words, true);
    std::reverse(behind->begin(), behind->end());  // the parser takes them from the end
    parsers.recorded->parse(*behind);
    const bool usesCard =
        options.command && options.command != &explainCommand && options.command != &traceCommand;
    if (!usesCard) return wrongUsage("record needs a command that uses a card", "record");
  }
  const CLI::App* const parsed[] = {parsers.recorded ? &*parsers.recorded : nullptr, &parsers.whole};
  options.words = wordsOf(parsed, options);
  return {};
}

/// Parses a command line that is in order, and no question for help. Nothing where it is not. Only what it
/// names is declared: to declare all takes longer than the rest of our own work.
std::optional<Options> parseShort(std::span<char* const> line) {
  Options options;
  Parsers parsers;
  try {
    if (!parse(line, line.subspan(1), parsers, options) || !options.command) return std::nullopt;
  } catch (const CLI::Error&) {
    return std::nullopt;
  }
  return options;
}

/// Parses any command line. Returns what is to be said where there is no more to do.
std::optional<Result<ExitCode>> parseWhole(std::span<char* const> line, Options& options) {
  Parsers parsers;
  try {
    if (const auto usage = parse(line, std::nullopt, parsers, options); !usage) return usage.failure();
    if (!options.command) return printHelp(parsers.whole, options);
  } catch (const CLI::CallForHelp&) {
    return print(helpText(parsers.last()));
  } catch (const CLI::CallForVersion&) {
    return print(versionText());
  } catch (const CLI::ParseError& error) {
    const Refusal refusal = refusalOf(parsers.last(), error);
    return wrongUsage(refusal.why, refusal.command);
  }
  return std::nullopt;
}

Result<ExitCode> parseAndRun(std::span<char* const> line) {
  Options options;
  if (auto parsed = parseShort(line)) {
    options = *std::move(parsed);
  } else if (auto said = parseWhole(line, options)) {
    return *std::move(said);
  }
  takeVariables(options);
  if (const auto usage = checkUsage(options); !usage) return usage.failure();
  for (auto* name : {&options.in, &options.out}) {
    if (*name == "-") name->reset();
  }
  makeNamesAbsolute(options);
  if (const auto descriptor = checkPinDescriptor(options); !descriptor) return descriptor.failure();
  return run(options);
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
  const std::string help = shortHelpText(app);
  (void)writeAll(STDERR_FILENO, {reinterpret_cast<const std::uint8_t*>(help.data()), help.size()});
  return ExitCode::kUsage;
}

ExitCode start(int argc, char** argv) {
  occupyStandardStreams();
  if (const auto code = runFirstStart(argc, systemDesktop().get(), *systemUserDirectory())) return *code;
  if (argc <= 1) return askForCommand();
  const auto done = guarded([&] { return parseAndRun({argv, static_cast<std::size_t>(argc)}); });
  return done ? *done : report(done.failure(), asksForJson(argc, argv));
}

}  // namespace

int runProgram(int argc, char** argv) noexcept {
  // A reader of our output that goes away, or a module whose own service does, is an error to be told.
  (void)std::signal(SIGPIPE, SIG_IGN);
  // So is a file that may not grow any more: the write fails then, and what is half written is removed.
  (void)std::signal(SIGXFSZ, SIG_IGN);
  leaveCryptographyLibraryToExit();
  try {
    return static_cast<int>(start(argc, argv));
  } catch (...) {  // no memory to tell what went wrong
    return static_cast<int>(ExitCode::kInternal);
  }
}

}  // namespace mirel::cli
