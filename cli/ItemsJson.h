#pragma once

#include <nlohmann/json_fwd.hpp>

#include "host/CardReport.h"
#include "host/Host.h"

namespace mirel::cli {

/// All that `items` tells a program: the items with what the card's report knows of them, what is not
/// published, and the findings.
[[nodiscard]] nlohmann::ordered_json itemsJson(const InsertedCard& card, const CardReport& report);

/// "RSA", "EC" or "other".
[[nodiscard]] const char* keyTypeName(CertificateKeyType type) noexcept;

}  // namespace mirel::cli
