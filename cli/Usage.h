#pragma once

#include <optional>
#include <string>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace mirel::cli {

// What users read of the command line. The library that parses it words and wraps such texts otherwise in
// each of its versions; here they are the same with all.

/// The help of the program, or of the command that was chosen in `app`.
[[nodiscard]] std::string helpText(const CLI::App& app);

/// The help of the command of that name, of the program for an empty one; nothing when there is no such
/// command.
[[nodiscard]] std::optional<std::string> helpTextOn(const CLI::App& app, const std::string& command);

/// What the program says to somebody who gives it nothing to do.
[[nodiscard]] std::string shortHelpText(const CLI::App& app);

/// Why a command line was refused.
struct Refusal {
  std::string why;      ///< without a period
  std::string command;  ///< whose help has what was meant; empty: that of the program
};

[[nodiscard]] Refusal refusalOf(const CLI::App& app, const CLI::ParseError& error);

}  // namespace mirel::cli
