#pragma once

#include <string>

#include "platform/Text.h"

namespace mirel {

/// A text for people, as UTF-8: whatever cannot be printed, or could mislead a terminal, and the
/// backslash are shown as \xNN (beyond U+00FF: \u{NNNN}). Empty for a null text.
[[nodiscard]] std::string displayed(const Text& text);

/// The same, but with the backslash as it is: for texts that have their own meaning for it, such as
/// the name of a subject.
[[nodiscard]] std::string displayedName(const Text& name);

/// The ID of an object of the card, as hexadecimal digits in lower case ("0017"): an ID is bytes, and only by
/// chance characters. Empty for a null text. A text that is no bytes, which no ID is, as `displayed` shows
/// it.
[[nodiscard]] std::string idText(const Text& id);

}  // namespace mirel
