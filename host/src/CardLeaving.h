#pragma once

#include "platform/Text.h"

namespace mirel {

class CardService;

/// Whether the card service sees no card in the reader of that name (any more). It looks at its readers now
/// and then, so where it still sees one it is given the time to notice. False where it does not answer, or
/// does not know that reader as one. `service` may be null.
[[nodiscard]] bool seesNoCard(CardService* service, const Text& reader);

}  // namespace mirel
