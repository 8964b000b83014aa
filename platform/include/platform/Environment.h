#pragma once

#include <optional>
#include <string>

namespace mirel {

/// The value of an environment variable; nothing when it is not set, or empty. Also nothing when the program
/// runs with other rights than those of whoever started it: that one must not choose what is done with them.
/// A function of the system, not handed down.
[[nodiscard]] std::optional<std::string> callersVariable(const char* name);

}  // namespace mirel
