#pragma once

#include <string>

#include "host/Failure.h"
#include "platform/Text.h"

namespace mirel {

class CardService;

/// Whether the card service sees no card in the reader of that name, or sees the card go; if that was only
/// for a moment, where it counts such changes. It looks at its readers now and then, so it is given the time
/// to notice. False where it does not answer, or does not know that reader as one. `service` may be null.
[[nodiscard]] bool seesCardGo(CardService* service, const Text& reader);

/// That it does. `what`: the module did.
[[nodiscard]] Failure cardSeenGoing(const Text& reader, const std::string& what);

}  // namespace mirel
