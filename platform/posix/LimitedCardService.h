#pragma once

#include <functional>
#include <memory>

#include "platform/CardService.h"

namespace mirel {

/// A card service that is `look`, given up after `limit`. Each look runs in a thread of its own, which gets
/// no signals and is left alone when it does not come back: nothing can end a call of a library that waits.
/// `look` may outlive its caller, so it owns what it uses. `watch`: makes the service's watches.
[[nodiscard]] std::shared_ptr<CardService> limitedCardService(
    std::function<CardServiceView()> look, std::function<std::unique_ptr<CardServiceWatch>()> watch,
    std::chrono::milliseconds limit);

}  // namespace mirel
