#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "doctor/Checks.h"
#include "host/Host.h"
#include "platform/CardService.h"

namespace mirel {

class FailureDiary;
class P11Bridge;

/// The checks from the module's file to its slots. `services`: gets the loader that opens the module.
/// Nothing where it does not get as far as the slots; then `outReason` says why.
[[nodiscard]] std::optional<std::vector<Reader>> checkModule(PlatformServices& services,
                                                             const ModuleChoice& choice, Checks& checks,
                                                             std::string& outReason);

/// The card service and the readers. `slots`: all that the module lists; nothing: it does not get so far.
/// What the service tells.
[[nodiscard]] CardServiceView checkReaders(const PlatformServices& services,
                                           const std::optional<std::vector<Reader>>& slots, Checks& checks);

}  // namespace mirel
