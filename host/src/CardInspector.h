#pragma once

#include <vector>

#include "bridge/cryptoki.h"
#include "host/Host.h"
#include "platform/PlatformServices.h"

namespace mirel {

/// Reads the public keys and certificates of the card in a slot, through a session of its own, and holds
/// them against what the system publishes. Those that are published are left out of the result.
[[nodiscard]] std::vector<UnpublishedObject> inspectCard(const CK_FUNCTION_LIST& list, CK_SLOT_ID slotID,
                                                         CertificateParser& certificates);

}  // namespace mirel
