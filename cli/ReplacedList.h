#pragma once

#include <string>

#include "recording/ShapedPseudonyms.h"

namespace mirel::cli {

/// Tells on standard error how much of each kind was replaced in that file; and, where that is a terminal and
/// nobody else reads it, by what.
void tellReplaced(const std::string& file, const recording::ShapedPseudonyms& pseudonyms);

}  // namespace mirel::cli
