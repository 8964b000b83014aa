#pragma once

#include <string_view>

#include "bridge/cryptoki.h"

namespace mirel {

/// The one comparison of a reader's name with a slot: true when the slot's description begins with `name`,
/// code unit by code unit against the bytes. An empty name always does; one that is longer than the
/// description never.
[[nodiscard]] bool descriptionBeginsWith(const CK_SLOT_INFO& slot, std::u16string_view name) noexcept;

/// The same for a name of bytes, NUL-terminated; null reads as empty. A name with a byte of 0x80 or above
/// never fits, so a reader whose name goes beyond ASCII is found by the comparison above, but not by this
/// one.
[[nodiscard]] bool descriptionBeginsWithAscii(const CK_SLOT_INFO& slot, const char* name) noexcept;

}  // namespace mirel
