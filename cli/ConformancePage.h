#pragma once

#include <string>

#include "host/Conformance.h"

namespace mirel::cli {

/// What the rules came to as one page (see Page.h). `versions`: as --version prints them; `date`: UTC.
[[nodiscard]] std::string pageOf(const Conformance& conformance, const std::string& versions,
                                 const std::string& date);

}  // namespace mirel::cli
