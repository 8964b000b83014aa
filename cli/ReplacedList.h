#pragma once

#include <string>

#include "recording/ShapedPseudonyms.h"

namespace mirel::cli {

/// Tells on standard error how many of each kind were replaced in that file. Where it is a terminal it tells
/// by what, too: that is for the user alone, and must not get into a file.
void tellReplaced(const std::string& file, const recording::ShapedPseudonyms& pseudonyms);

}  // namespace mirel::cli
