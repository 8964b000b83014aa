#pragma once

#include <memory>
#include <string>

#include "bridge/P11Bridge.h"
#include "conformance/Rules.h"
#include "host/ModuleFile.h"

namespace mirel {

/// What keeps cards from being tested.
struct Obstacle {
  std::string reason{};
  std::string noCard{};  ///< what the slots say where the module works and shows no card; empty: it does not
};

/// The rules of the module and its slots. `services`: gets the loader that opens the module. The bridge to
/// the module that was started; null where it does not get so far, then `outObstacle` says why.
[[nodiscard]] std::unique_ptr<P11Bridge> testModule(PlatformServices& services, const ModuleChoice& choice,
                                                    RuleResults& results, Obstacle& outObstacle);

/// The rules that need a token in a slot.
void testSlotOfCard(const P11Bridge& bridge, CK_SLOT_ID slotID, RuleResults& results);

}  // namespace mirel
