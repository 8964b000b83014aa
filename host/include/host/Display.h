#pragma once

#include <string>
#include <string_view>

#include "platform/Text.h"

namespace mirel {

// What people are shown, as UTF-8. Nothing of it controls a terminal or misleads its user: characters that
// cannot be printed, cannot be seen or turn the direction of writing are shown by number.

/// A text of the card, one character for each byte, as a label or the name of a reader. Where the bytes are
/// UTF-8, their characters. A byte that is not is shown as \xNN, as are the controls of ASCII and the
/// backslash; another character that is shown by number as \u{NNNN}. A text with characters beyond U+00FF,
/// which are no bytes, is shown by the same rules. Empty for a null text.
[[nodiscard]] std::string displayed(const Text& text);

/// The same for a text that is given in UTF-8, as an argument of the command line.
[[nodiscard]] std::string displayed(std::string_view utf8);

/// A text of characters, such as the name of a subject, with the backslash as it is: such texts have their
/// own meaning for it. Up to U+00FF the number is shown as \xNN. Empty for a null text.
[[nodiscard]] std::string displayedName(const Text& name);

/// The same with the backslash by number: for bytes that are taken for characters U+0000 to U+00FF.
[[nodiscard]] std::string displayedAsLatin1(const Text& text);

/// The ID of an object of the card, as hexadecimal digits in lower case ("0017"): an ID is bytes, and only by
/// chance characters. Empty for a null text. A text that is no bytes, which no ID is, as `displayed` shows
/// it.
[[nodiscard]] std::string idText(const Text& id);

}  // namespace mirel
