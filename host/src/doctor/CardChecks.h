#pragma once

#include "doctor/Checks.h"
#include "host/Host.h"

namespace mirel {

/// The checks of one card, from its token to a verified signature. `reader`: holds a token. `pins`: null, or
/// empty with `whyNoLogin`: no login.
void checkCard(Host& host, const Reader& reader, const PinsForReader& pins, const std::string& whyNoLogin,
               Checks& checks);

/// The names of those checks, for cards that cannot be looked at.
void skipCardChecks(Checks& checks, const std::string& reason);

}  // namespace mirel
