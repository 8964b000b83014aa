#pragma once

#include <string>

namespace mirel {

/// What a card's token says about its PIN.
struct PinState {
  enum class Tries {
    kNoWord,  ///< the flags say nothing
    kFewer,   ///< a wrong PIN was entered since the last right one
    kLast,    ///< one more wrong PIN locks the card
    kNone,    ///< the PIN is locked
  };

  Tries tries = Tries::kNoWord;
  bool enteredAtReader = false;  ///< the PIN is entered at the reader's own keys
  std::string text;  ///< about the tries, or that it has to be changed, in words for the user; may be empty
  std::string obstacle{};  ///< why no PIN of this card can be entered here; empty: nothing is known
};

}  // namespace mirel
