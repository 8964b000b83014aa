#pragma once

#include <string_view>
#include <type_traits>

#include "bridge/cryptoki.h"

namespace mirel {

/// True when the slot description begins with the reader's name, unit by unit; an empty name always
/// does, one longer than the description never.
template <typename Unit>
[[nodiscard]] bool slotDescriptionBeginsWith(const CK_SLOT_INFO& slot,
                                             std::basic_string_view<Unit> name) noexcept {
  if (name.size() > sizeof slot.slotDescription) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (static_cast<std::make_unsigned_t<Unit>>(name[i]) != slot.slotDescription[i]) return false;
  }
  return true;
}

}  // namespace mirel
