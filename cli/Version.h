#pragma once

#include <string>

namespace mirel::cli {

/// What --version prints: the version, with the commit where it is known, and those of the libraries.
[[nodiscard]] std::string versionText();

/// The version alone: "0.1.0".
[[nodiscard]] std::string programVersion();

}  // namespace mirel::cli
