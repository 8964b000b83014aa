#pragma once

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

/// Why the command line was refused, without a period.
[[nodiscard]] std::string refusalText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace mirel::cli
