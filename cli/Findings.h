#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

#include "host/Finding.h"

namespace mirel::cli {

/// A finding with what the catalogue says of it: `id` is its code.
[[nodiscard]] nlohmann::ordered_json jsonOf(const Finding& finding);
[[nodiscard]] nlohmann::ordered_json jsonOf(std::span<const Finding> findings);

/// "the RSA key is too long to sign (RSA, 3072 bits)".
[[nodiscard]] std::string causeText(const Finding& finding);

/// Those that are failures or warnings as a table, one line each, with what to do; empty without any.
[[nodiscard]] std::string findingsTable(std::span<const Finding> findings);

}  // namespace mirel::cli
