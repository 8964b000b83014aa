#pragma once

#include "bridge/cryptoki.h"

namespace mirel {

/// Calls an entry of a function list, which a module may leave null.
template <typename Entry, typename... Args>
[[nodiscard]] CK_RV callEntry(Entry entry, Args... args) noexcept {
  return entry ? entry(args...) : CKR_FUNCTION_NOT_SUPPORTED;
}

}  // namespace mirel
