#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mirel {

/// The one of `names` that was probably meant by `word`: the nearest by the number of letters that were left
/// out, added, changed or exchanged with their neighbour, whatever the case of the letters A to Z. Empty when
/// none is near, or `word` is one of them, or longer than any name that a person types.
[[nodiscard]] std::string nearestName(std::string_view word, const std::vector<std::string>& names);

/// " (did you mean "name"?)" for that name; nothing where there is none.
[[nodiscard]] std::string suggestionFor(std::string_view word, const std::vector<std::string>& names);

}  // namespace mirel
