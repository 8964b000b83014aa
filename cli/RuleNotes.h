#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/Conformance.h"

namespace mirel::cli {

/// What the rules came to so far, as the process that watches the worker gets it (see Worker.h).
[[nodiscard]] std::string noteOf(const std::vector<RuleResult>& results);

/// All rules with what such a text has of them; those that came to nothing are skipped. A module may have
/// written there, so each text is made fit for a terminal, and what makes no sense is left out.
[[nodiscard]] std::vector<RuleResult> resultsFrom(std::string_view text);

}  // namespace mirel::cli
