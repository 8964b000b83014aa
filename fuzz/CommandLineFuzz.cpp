// What a user types: words after the program's name, parsed as the program parses them. No command is run.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <utility>
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

/// The program's command line, declared once for all runs: that takes many times as long as to read words
/// with it.
class CommandLine {
 public:
  CommandLine() { cli::declareOptions(app, options); }

  /// Forgets the words that were read. The app does so itself; it knows the members of the maps by their
  /// address.
  void reset() {
    auto flags = std::move(options.flags);
    auto files = std::move(options.files);
    options = cli::Options{};
    for (auto& [name, isSet] : flags) isSet = false;
    for (auto& [name, file] : files) file.reset();
    options.flags = std::move(flags);
    options.files = std::move(files);
  }

  CLI::App app;
  cli::Options options;
};

/// "-v-home" is "-v --home" to the library. Who knows only what the words name does not take it, and then the
/// parser that knows all is asked.
bool joinsOptions(std::string_view word) {
  return word.size() > 2 && word[0] == '-' && word[1] != '-' && word.find('-', 2) != std::string_view::npos;
}

/// Commands that a command line does not name make no difference to what it means. `whole`: what the parser
/// that knows all of them makes of it; null where it takes the words not, or prints something.
void checkShortParsing(std::span<char* const> line, const CLI::App& parser, const cli::Options* whole) {
  CLI::App app;
  cli::Options options;
  cli::declareOptions(app, options, line.subspan(1));
  bool taken = true;
  try {
    app.parse(static_cast<int>(line.size()), line.data());
  } catch (const CLI::Error&) {
    taken = false;
  }
  const bool mayDiffer = !taken && std::any_of(line.begin(), line.end(), &joinsOptions);
  check(mayDiffer || taken == (whole != nullptr), "both parsers take the same command lines");
  if (!whole || !taken) return;
  const CLI::App* const fewer[] = {&app};
  const CLI::App* const all[] = {&parser};
  check(options.command == whole->command && cli::wordsOf(fewer, options) == cli::wordsOf(all, *whole),
        "both see the same in it");
}

}  // namespace

void runTarget(Input& input) {
  static CommandLine line;
  auto& [app, options] = line;
  line.reset();
  std::vector<std::string> words = wordsFrom(input);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  bool taken = false;
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    taken = true;
    checkOptions(options);
    if (!options.command) (void)cli::helpTextOn(app, options.helpOn.value_or(""));
  } catch (const CLI::CallForHelp&) {
    check(!cli::helpText(app).empty(), "there is help");
  } catch (const CLI::CallForVersion&) {
    // has nothing to do with what was typed
  } catch (const CLI::ParseError& error) {
    const std::string why = cli::refusalOf(app, error).why;
    check(!why.empty(), "a command line is not refused without a word");
    // The words of the user, which stand in it, are made printable where it is written.
    check(isPrintableLine(printableLine(why)), "a refusal can be made printable");
  }
  checkShortParsing(argv, app, taken ? &options : nullptr);
}

}  // namespace mirel::fuzz
