#pragma once

#include <mutex>

#include "bridge/cryptoki.h"

namespace mirel {

/// The one lock of the process for calls into PKCS #11 modules. It is per process, not per bridge: a module
/// is loaded once however many bridges use it, and one that is initialised without arguments may assume that
/// it is called from one thread at a time (PKCS #11, section 5.4, C_Initialize).
///
/// It is held for the time of one Cryptoki call and no longer, so it orders nothing but the calls themselves.
/// Nothing of this system is called while it is held, neither an observer nor a log nor memory: whoever holds
/// it waits for nothing but the module, which gets no callback of ours.
[[nodiscard]] std::mutex& moduleLock() noexcept;

/// Calls a function of a module when no other call into a module is under way in the process. A null
/// `function` answers CKR_FUNCTION_NOT_SUPPORTED, without waiting.
template <typename Function, typename... Args>
[[nodiscard]] CK_RV callAlone(Function function, Args... args) noexcept {
  if (!function) return CKR_FUNCTION_NOT_SUPPORTED;
  const std::lock_guard alone{moduleLock()};
  return function(args...);
}

}  // namespace mirel
