#pragma once

#include "ModuleLock.h"
#include "bridge/CryptokiFunctions.h"
#include "bridge/P11Bridge.h"
#include "platform/CryptokiObserver.h"

namespace mirel {

/// Every Cryptoki call goes through here: one place for entries that a list lacks, for the lock around each
/// call and for the observer (may be null), who is told without it.
template <auto Entry, typename... Args>
[[nodiscard]] CK_RV observedCall(const CK_FUNCTION_LIST& list, CryptokiObserver* observer,
                                 Args... args) noexcept {
  if (!observer) return callAlone(list.*Entry, args...);

  const char* name = kCryptokiNameOf<Entry>;
  observer->callStarts(name);
  const CK_RV rv = callAlone(list.*Entry, args...);
  observer->callReturned(name, rv);
  return rv;
}

/// A call that is made for a token. The caller has checked that there is a list.
template <auto Entry, typename... Args>
CK_RV P11Bridge::call(Args... args) const noexcept {
  return observedCall<Entry>(*ckFunc(), services_.observer.get(), args...);
}

/// A call beside the token's road, which has an observer of its own. Also checks that there is a list.
template <auto Entry, typename... Args>
CK_RV P11Bridge::ask(Args... args) const noexcept {
  const CK_FUNCTION_LIST* list = ckFunc();
  return list ? observedCall<Entry>(*list, services_.inspectionObserver.get(), args...)
              : CKR_CRYPTOKI_NOT_INITIALIZED;
}

/// C_GetTokenInfo by `read`, once more where the card was just put back.
template <typename Read>
[[nodiscard]] CK_RV readTokenInfo(const Read& read, CK_TOKEN_INFO& outInfo) noexcept {
  outInfo = {};
  const CK_RV rv = read(&outInfo);
  if (rv != CKR_DEVICE_REMOVED) return rv;
  outInfo = {};
  return read(&outInfo);
}

/// Runs the body of one operation and tells the observer its result.
template <typename Body>
CK_RV P11Bridge::operation(BridgeOperation which, const Body& body) const noexcept {
  const CK_RV rv = body();
  if (services_.observer) services_.observer->operationReturned(which, rv);
  return rv;
}

}  // namespace mirel
