#pragma once

/// What must hold of a card that was inserted, and of what is said of one, whatever the module has answered.

#include "host/Host.h"

namespace mirel::fuzz {

/// Ends the process unless the published items are within the rules of the card.
void checkItems(const InsertedCard& card);

/// The same for the texts of a second look.
void checkReport(const CardReport& report);

/// Lists and examines all readers, as somebody does whose card cannot be inserted, and checks the texts.
void lookAtReaders(Host& host);

}  // namespace mirel::fuzz
