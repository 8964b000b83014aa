#pragma once

#include <memory>

#include "bridge/P11Bridge.h"
#include "conformance/Rules.h"
#include "host/ModuleFile.h"

namespace mirel {

/// The rules of the module and its slots. `services`: gets the loader that opens the module. The bridge to
/// the module that was started; null where it does not get so far, then `outReason` says why.
[[nodiscard]] std::unique_ptr<P11Bridge> testModule(PlatformServices& services, const ModuleChoice& choice,
                                                    RuleResults& results, std::string& outReason);

/// The rules that need a token in a slot.
void testSlotOfCard(const P11Bridge& bridge, CK_SLOT_ID slotID, RuleResults& results);

}  // namespace mirel
