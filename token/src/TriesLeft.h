#pragma once

#include <cstdint>

#include "platform/LocalizedStrings.h"

namespace mirel {

/// The text for a user whose PIN was refused, with the number of tries left. A localised format is only used
/// when it has exactly one conversion, of an unsigned number; otherwise an English one takes its place.
[[nodiscard]] Text triesLeftText(LocalizedStrings& strings, std::uint64_t triesLeft);

}  // namespace mirel
