#pragma once

/// What must hold of every text that people are shown, whatever module and card say.

#include <string>
#include <string_view>

#include "host/Failure.h"
#include "host/Finding.h"

namespace mirel::fuzz {

/// Ends the process unless the text is UTF-8 without characters that control a terminal or turn the direction
/// of writing. `what`: which text it is.
void checkShown(std::string_view text, const char* what);

/// The same, of one that says something: it is not empty and has no full stop at its end.
void checkOneLine(std::string_view text, const char* what);

/// All texts of a failure. It is no failure of ours.
void checkFailure(const Failure& failure);

void checkFinding(const Finding& finding);

}  // namespace mirel::fuzz
