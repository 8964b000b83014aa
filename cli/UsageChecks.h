#pragma once

#include <string>

#include "Options.h"
#include "host/Result.h"

namespace mirel::cli {

// What a command line must satisfy beyond what the parser knows.

/// Whether the options of a command, with what the environment adds to them, make sense together. No file is
/// opened.
[[nodiscard]] Result<void> checkUsage(const Options& options);

/// Whether the options of "record" itself do.
[[nodiscard]] Result<void> checkRecord(const Options& options);

[[nodiscard]] Failure wrongUsage(const std::string& why);

}  // namespace mirel::cli
