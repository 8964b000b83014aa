#pragma once

#include <algorithm>
#include <span>
#include <string_view>

#include "host/Result.h"

namespace mirel::cli {

struct Options;
class Session;

/// An option that a command takes, apart from those that all take.
struct CommandOption {
  enum class Kind {
    kKey,          ///< --key, which must be given; it has its own help
    kOptionalKey,  ///< --key
    kAlgorithm,    ///< --algorithm
    kInput,        ///< --in
    kOutput,       ///< --out
    kPin,          ///< --pin-file, --pin-fd and --last-try; they have their own help
    kFlag,         ///< one without a value, of this command alone
    kFile,         ///< one with a file, of this command alone
    kExec,         ///< --exec, with a command for the shell
    kSeconds,      ///< --for, with a number of seconds
    kWord,         ///< a word without dashes, which may be left out
  };

  Kind kind;
  const char* help = "";
  const char* flag = "";  ///< the name of a flag or a file's option, with its dashes, or of a word
};

/// A command: its file defines it, and Commands.h lists it.
struct Command {
  const char* name;
  const char* help;
  std::span<const CommandOption> options;  ///< in the order of the help
  Result<void> (*run)(Session& session);
  bool usesModule = true;  ///< the module is chosen before, and a failure in that ends the program
  bool hasWorker = true;   ///< it runs in a process of its own; else it starts those that load the module
  /// What is left to do where the module ended the command: see Worker.h. Null: nothing.
  Failure (*salvage)(const Options& options, Failure failure, std::string_view noted) = nullptr;

  [[nodiscard]] bool takes(CommandOption::Kind kind) const noexcept {
    return std::any_of(options.begin(), options.end(),
                       [kind](const CommandOption& option) { return option.kind == kind; });
  }
};

}  // namespace mirel::cli
