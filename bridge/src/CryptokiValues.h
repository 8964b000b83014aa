#pragma once

#include "bridge/PKCS11_SERVICE_INFO.h"
#include "bridge/cryptoki.h"

namespace mirel {

/// An attribute whose size comes from its variable.
template <typename T>
[[nodiscard]] CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, T& value) noexcept {
  return {type, &value, sizeof(T)};
}

/// True for the two values that never are a session or an object here.
[[nodiscard]] inline bool isNoHandle(CK_ULONG handle) noexcept { return handle == 0 || handle == kNoHandle; }

}  // namespace mirel
