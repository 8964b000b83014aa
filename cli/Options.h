#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace mirel::cli {

struct Command;

/// What was asked for on the command line.
struct Options {
  /// A path, or the name of a configured module (see host/ModuleLookup.h); nothing: the one in the user's
  /// home.
  std::optional<std::string> modulePath;
  bool moduleIsFromVariable = false;  ///< of the environment
  bool trustModule = false;
  std::optional<std::string> home;  ///< nothing: the user's
  std::optional<std::string> reader;
  bool readerIsFromVariable = false;
  int timeout = 30;  ///< seconds for one call of the module; 0: as long as it takes
  bool json = false;
  int verbose = 0;  ///< 1: with the log lines; 2 and more: with a line for each call of the module, too
  std::optional<std::string> trace;     ///< where the calls are written to
  std::optional<std::string> replay;    ///< the recording in place of a module
  std::optional<std::string> recordTo;  ///< where the recording goes; nothing: none is made
  bool anonymous = false;               ///< with pseudonyms in the recording
  std::vector<std::string> words;       ///< of the command line, without the names of files
  const Command* command = nullptr;     ///< the one that was chosen; null when help was
  std::optional<std::string> helpOn;    ///< the command that help is wanted on; nothing: the whole program

  // Of the commands that use a key.
  std::optional<std::string> key;
  std::optional<std::string> algorithm;  ///< nothing: the command's own default
  std::optional<std::string> in;         ///< nothing or "-": standard input
  std::optional<std::string> out;        ///< nothing or "-": standard output
  std::optional<std::string> pinFile;
  std::optional<int> pinFd;
  bool lastTry = false;  ///< a PIN from there may take the last try

  std::optional<std::string> exec;                 ///< a command for the shell
  std::optional<int> seconds;                      ///< after which to end; nothing: never
  std::optional<std::string> word;                 ///< of a command that takes one
  std::map<std::string, bool, std::less<>> flags;  ///< the command's own

  std::map<std::string, std::optional<std::string>, std::less<>> files;  ///< by the command's own options

  /// Whether that flag of the command was given.
  [[nodiscard]] bool has(std::string_view flag) const {
    const auto found = flags.find(flag);
    return found != flags.end() && found->second;
  }
  /// The file that was given with that option of the command.
  [[nodiscard]] std::optional<std::string> fileOf(std::string_view option) const {
    const auto found = files.find(option);
    return found == files.end() ? std::nullopt : found->second;
  }
};

/// Declares everything that the command line takes, with its help. `words`: those of the command line; only
/// the commands and options that they name are declared, without questions for help, which takes far less
/// time. Nothing: all are. `recorded`: of a command behind "record", which does not stand there again.
void declareOptions(CLI::App& app, Options& options,
                    std::optional<std::span<char* const>> words = std::nullopt, bool recorded = false);

/// Makes the names of files absolute, except for "-": a module may change the working folder.
void makeNamesAbsolute(Options& ioOptions);

/// What the value of that option ("--timeout") has to be where not any number will do, such as "a whole
/// number from 0 to 86400"; else nothing.
[[nodiscard]] std::optional<std::string> rangeOf(std::string_view option);

/// The words behind "record" and its own options, which are for another parser; nothing without "record".
/// After `app` has parsed the command line.
[[nodiscard]] std::optional<std::vector<std::string>> commandToRecord(const CLI::App& app);

/// What was given on the command line: the command, and the options in the order of their declaration, each
/// file as the word that the help has for it. `apps`: have parsed the command line, or parts of it; null ones
/// have not.
[[nodiscard]] std::vector<std::string> wordsOf(std::span<const CLI::App* const> apps, const Options& options);

}  // namespace mirel::cli
