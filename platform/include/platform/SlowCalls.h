#pragma once

#include <chrono>
#include <memory>

#include "platform/CryptokiObserver.h"

namespace mirel {

class Log;

/// How long a call of the module may take before that is an error.
inline constexpr std::chrono::milliseconds kSlowCall{5000};

/// An observer that logs, at error level and while it lasts, that the module does not return from a call:
/// once for each such call. No call ends the wait of others for the module, so it tells all that are under
/// way when none has returned for `limit`. It has one thread of its own, from the first call on.
[[nodiscard]] std::shared_ptr<CryptokiObserver> slowCallObserver(std::shared_ptr<Log> log,
                                                                 std::chrono::milliseconds limit = kSlowCall);

}  // namespace mirel
