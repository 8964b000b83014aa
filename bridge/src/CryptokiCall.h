#pragma once

#include <cstddef>

#include "bridge/CryptokiNames.h"
#include "bridge/ModuleLock.h"
#include "bridge/P11Bridge.h"
#include "platform/CryptokiObserver.h"

namespace mirel {

/// Every Cryptoki call of the bridge goes through here: one place for entries that a list lacks, for the lock
/// around each call and for the observer, who is told without it. The caller has checked that there is a
/// list.
template <auto Entry, typename... Args>
CK_RV P11Bridge::call(Args... args) const noexcept {
  const CK_FUNCTION_LIST& list = *ckFunc();
  CryptokiObserver* observer = services_.observer.get();
  if (!observer) return callAlone(list.*Entry, args...);

  const auto* listStart = reinterpret_cast<const std::byte*>(&list);
  const auto* entryStart = reinterpret_cast<const std::byte*>(&(list.*Entry));
  const char* name = cryptokiFunctionName(static_cast<std::size_t>(entryStart - listStart));
  observer->callStarts(name);
  const CK_RV rv = callAlone(list.*Entry, args...);
  observer->callReturned(name, rv);
  return rv;
}

/// Runs the body of one operation and tells the observer its result.
template <typename Body>
CK_RV P11Bridge::operation(const char* name, const Body& body) const noexcept {
  const CK_RV rv = body();
  if (services_.observer) services_.observer->operationReturned(name, rv);
  return rv;
}

}  // namespace mirel
