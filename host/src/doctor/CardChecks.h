#pragma once

#include "doctor/Checks.h"
#include "host/Host.h"

namespace mirel {

/// The first check of a card.
inline constexpr Checkpoint kCardCheck{"card", Station::kCard};

/// The checks of one card, from its token to a verified signature. `reader`: holds a token. `pins`: empty: no
/// login is made; `whyNotAsWanted`: why, where one was asked for, else empty. `onCard`: may be empty.
void checkCard(Host& host, const Reader& reader, const PinsForReader& pins, const std::string& whyNotAsWanted,
               const CardListener& onCard, Checks& checks);

/// The names of those checks, for cards that cannot be looked at.
void skipCardChecks(Checks& checks, const std::string& reason);

}  // namespace mirel
