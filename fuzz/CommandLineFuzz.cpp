// What a user types: words after the program's name, parsed as the program parses them. No command is run.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Check.h"
#include "Commands.h"
#include "Input.h"
#include "Options.h"
#include "Presentable.h"
#include "Usage.h"
#include "host/KeyChoice.h"
#include "platform/Log.h"

namespace mirel::fuzz {
namespace {

/// The words, which the input has zeros between: no word of a command line has one.
std::vector<std::string> wordsFrom(Input& input) {
  std::vector<std::string> words{"mireltoken"};
  const std::string all{input.rest().begin(), input.rest().end()};
  for (std::size_t start = 0; start < all.size();) {
    const std::size_t end = std::min(all.find('\0', start), all.size());
    words.push_back(all.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

bool isKnown(const cli::Command* command) {
  const auto commands = cli::allCommands();
  return std::find(commands.begin(), commands.end(), command) != commands.end();
}

void checkOptions(const cli::Options& options) {
  check(options.timeout >= 0 && options.timeout <= 86400, "a time to wait is within its limits");
  check(!options.command || isKnown(options.command), "a command is one of ours");
  check(!options.pinFile || !options.pinFd, "there is one source of the PIN");
  check(!options.modulePath || !options.home, "the module is named in one way");
  if (!options.key) return;
  if (const auto key = checkKeyName(*options.key); !key) checkFailure(key.failure());
}

/// What the parser makes of these words when it knows all commands, or only those that are among them;
/// nothing where it takes them not, or prints something.
std::optional<cli::Options> parsed(std::span<char* const> line, bool knowsAll) {
  CLI::App app;
  cli::Options options;
  std::optional<std::span<char* const>> words;
  if (!knowsAll) words = line.subspan(1);
  cli::declareOptions(app, options, words);
  try {
    app.parse(static_cast<int>(line.size()), line.data());
  } catch (const CLI::Error&) {
    return std::nullopt;
  }
  const CLI::App* const apps[] = {&app};
  options.words = cli::wordsOf(apps, options);
  return options;
}

/// Commands that a command line does not name make no difference to what it means.
void checkShortParsing(std::span<char* const> line) {
  const auto whole = parsed(line, true);
  const auto fewer = parsed(line, false);
  check(whole.has_value() == fewer.has_value(), "both parsers take the same command lines");
  if (!whole || !fewer) return;
  check(whole->command == fewer->command && whole->words == fewer->words, "both see the same in it");
}

void run(Input& input) {
  std::vector<std::string> words = wordsFrom(input);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  checkShortParsing(argv);
  CLI::App app;
  cli::Options options;
  cli::declareOptions(app, options);
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    checkOptions(options);
    if (!options.command) (void)cli::helpTextOn(app, options.helpOn.value_or(""));
  } catch (const CLI::CallForHelp&) {
    check(!cli::helpText(app).empty(), "there is help");
  } catch (const CLI::CallForVersion&) {
    // has nothing to do with what was typed
  } catch (const CLI::ParseError& error) {
    const std::string why = cli::refusalText(app, error);
    check(!why.empty(), "a command line is not refused without a word");
    // The words of the user, which stand in it, are made printable where it is written.
    check(isPrintableLine(printableLine(why)), "a refusal can be made printable");
  }
}

}  // namespace
}  // namespace mirel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  mirel::fuzz::Input input{{data, size}};
  mirel::fuzz::run(input);
  return 0;
}
