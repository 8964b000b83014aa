#pragma once

#include <optional>
#include <string>

#include "host/Failure.h"

namespace mirel {

/// What a card's token says about its PIN.
struct PinState {
  enum class Tries {
    kUnknown,  ///< the token's flags cannot be read
    kNoWord,   ///< the flags say nothing
    kFewer,    ///< a wrong PIN was entered since the last right one
    kLast,     ///< one more wrong PIN locks the card
    kNone,     ///< the PIN is locked
  };

  Tries tries = Tries::kUnknown;
  bool enteredAtReader = false;  ///< the PIN is entered at the reader's own keys
  std::string text;     ///< about the tries, in words for the user; empty when there is nothing to say
  std::string problem;  ///< for kUnknown: why
  std::optional<Failure> gone;  ///< where that is because the card went away
};

}  // namespace mirel
