#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace mirel::cli {

/// Parses what a worker has noted (see Worker.h). A module may have written there, to hold up or to end the
/// process that watches it, so what lies deeper than `deepest` is left out, and of an object all but its
/// first members. What is no JSON is discarded.
[[nodiscard]] nlohmann::ordered_json parsedNote(std::string_view text, int deepest);

}  // namespace mirel::cli
