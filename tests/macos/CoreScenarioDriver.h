#pragma once

#include <memory>

#include "Scenarios.h"
#include "platform/PlatformServices.h"

namespace mirel::test {

/// Plays on the C++ token layer, with the host's objects in the place of the platform's. Of `services`
/// loader, user, notifications, certificates and memory are taken.
[[nodiscard]] std::unique_ptr<ScenarioDriver> coreScenarioDriver(const PlatformServices& services);

}  // namespace mirel::test
