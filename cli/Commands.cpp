#include "Commands.h"

namespace mirel::cli {

std::span<const Command* const> allCommands() noexcept {
#define MIREL_ADDRESS(name) &name##Command,
  static constexpr const Command* kCommands[] = {MIREL_COMMANDS(MIREL_ADDRESS)};
#undef MIREL_ADDRESS
  return kCommands;
}

}  // namespace mirel::cli
