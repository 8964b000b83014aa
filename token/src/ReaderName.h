#pragma once

#include <memory>

#include "platform/TokenKit.h"

namespace mirel {

/// The name of the reader that the card is in; null without a card.
[[nodiscard]] inline Text readerNameOf(const std::shared_ptr<TKSmartCard>& card) noexcept {
  return card ? card->slot()->name() : Text{};
}

}  // namespace mirel
