#pragma once

#include "bridge/PKCS11_SERVICE_INFO.h"

namespace mirel {

[[nodiscard]] inline bool hasSession(const PKCS11_SERVICE_INFO& record) noexcept {
  return record.hSession() != kNoHandle && record.hSession() != 0;
}

}  // namespace mirel
