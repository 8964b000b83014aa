#pragma once

#include <memory>

#include "Scenarios.h"

namespace mirel::test {

/// Plays on the extension's Objective-C classes, through the double of the system, with the services that are
/// in force. One at a time.
[[nodiscard]] std::unique_ptr<ScenarioDriver> adapterScenarioDriver();

}  // namespace mirel::test
