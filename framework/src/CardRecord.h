#pragma once

#include <string_view>

#include "SlotName.h"
#include "bridge/PKCS11_SERVICE_INFO.h"

namespace mirel {

[[nodiscard]] inline bool hasSession(const PKCS11_SERVICE_INFO& record) noexcept {
  return record.hSession() != kNoHandle && record.hSession() != 0;
}

/// True when the slot description begins with `name` (NUL-terminated; null or empty: always).
/// Oddity: compares as signed with unsigned: whatever `char` is here, a byte of 0x80 or above in the
/// name never matches.
[[nodiscard]] inline bool nameMatches(const CK_SLOT_INFO& slot, const char* name) noexcept {
  const std::string_view bytes{name ? name : ""};
  for (const char c : bytes) {
    if (static_cast<signed char>(c) < 0) return false;
  }
  return slotDescriptionBeginsWith(slot, bytes);
}

}  // namespace mirel
