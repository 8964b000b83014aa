#pragma once

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace mirel::cli {

/// What was asked for on the command line.
struct Options {
  std::optional<std::string> modulePath;  ///< nothing: the module in the user's home
  std::optional<std::string> home;        ///< nothing: the user's
  std::optional<std::string> reader;
  bool json = false;
  bool verbose = false;
  std::string command;  ///< "readers" or "items"
};

/// Declares everything that the command line takes, with its help.
void declareOptions(CLI::App& app, Options& options);

}  // namespace mirel::cli
