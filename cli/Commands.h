#pragma once

#include <span>

#include "Command.h"

namespace mirel::cli {

/// The commands, in the order of the help: X(name) for each. A file in commands/ defines it as
/// "<name>Command".
#define MIREL_COMMANDS(X) \
  X(readers)              \
  X(items)                \
  X(certificate)          \
  X(algorithms)           \
  X(login)                \
  X(sign)                 \
  X(decrypt)              \
  X(exchange)             \
  X(doctor)               \
  X(conformance)          \
  X(watch)                \
  X(explain)              \
  X(trace)

#define MIREL_DECLARATION(name) extern const Command name##Command;
MIREL_COMMANDS(MIREL_DECLARATION)
#undef MIREL_DECLARATION

/// Every command, in that order.
[[nodiscard]] std::span<const Command* const> allCommands() noexcept;

}  // namespace mirel::cli
