#pragma once

#include "bridge/P11Bridge.h"
#include "conformance/Rules.h"
#include "host/Host.h"

namespace mirel {

class PinSource;

/// The rules that need a login: makes one, and tries each key. `pins`: null: there is none, then what needs
/// one is skipped; `whyNotAsWanted`: why, where one was asked for, else empty. `report`: of the card before
/// the login; after it of what shows then. True when the card has accepted the PIN.
[[nodiscard]] bool testKeys(Host& host, const P11Bridge& bridge, const InsertedCard& card, PinSource* pins,
                            const std::string& whyNotAsWanted, CardReport& ioReport, RuleResults& results,
                            CardAbilities& outAbilities);

}  // namespace mirel
