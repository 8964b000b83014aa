#pragma once

#include "bridge/ModuleLock.h"
#include "bridge/cryptoki.h"

namespace mirel {

/// C_GetTokenInfo, once more where the card was just put back (CKR_DEVICE_REMOVED), as the card layer does
/// it. `outToken`: zeros where the module wrote nothing.
[[nodiscard]] inline CK_RV readTokenInfo(const CK_FUNCTION_LIST& list, CK_SLOT_ID slotID,
                                         CK_TOKEN_INFO& outToken) noexcept {
  outToken = {};
  CK_RV rv = callAlone(list.C_GetTokenInfo, slotID, &outToken);
  if (rv == CKR_DEVICE_REMOVED) {
    outToken = {};
    rv = callAlone(list.C_GetTokenInfo, slotID, &outToken);
  }
  return rv;
}

}  // namespace mirel
