#pragma once

#include "CardContents.h"

namespace mirel {

/// Holds the objects of a card against one another, as the token does when it publishes them, and notes in
/// each one that is left out why. A reason that another object is missing is only given where all was read.
void explainUnpublished(CardContents& contents);

/// Whether the object would be published if nothing hid the card. After `explainUnpublished`.
[[nodiscard]] inline bool isPublishable(const CardObject& object) noexcept {
  return object.about.reason.empty();
}

}  // namespace mirel
