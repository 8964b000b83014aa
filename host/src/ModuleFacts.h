#pragma once

#include <optional>

#include "host/ModuleFile.h"

namespace mirel {

/// Nothing where the user has no home and names no module.
[[nodiscard]] std::optional<ModuleFacts> factsOfModule(const PlatformServices& services,
                                                       const ModuleChoice& choice);

}  // namespace mirel
