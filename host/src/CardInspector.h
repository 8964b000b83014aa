#pragma once

#include <vector>

#include "bridge/cryptoki.h"
#include "host/Host.h"
#include "platform/Bytes.h"
#include "platform/PlatformServices.h"

namespace mirel {

class P11Bridge;

/// An object and what the second look was given of it.
struct InspectedObject {
  UnpublishedObject about;
  Bytes data;              ///< of a certificate; null when it was not read
  bool byAbsence = false;  ///< its reason is that another object was not found
};

struct Inspection {
  std::vector<InspectedObject> objects;
  std::string failedRead;  ///< the first call that failed to find or read something; empty: none
};

/// Reads the public keys and certificates of the card in a slot, through a session of its own, and holds
/// them against what the system publishes. Those that are published are left out of the result, which is
/// empty when the bridge has no module.
[[nodiscard]] Inspection inspectCard(const P11Bridge& bridge, CK_SLOT_ID slotID,
                                     CertificateParser& certificates);

}  // namespace mirel
