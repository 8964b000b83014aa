#include "NoteParser.h"

#include <cstddef>
#include <vector>

namespace mirel::cli {

using Json = nlohmann::ordered_json;

Json parsedNote(std::string_view text, int deepest) {
  constexpr std::size_t kMostMembers = 100;  // each new one is compared with those before
  std::vector<std::size_t> numMembers(static_cast<std::size_t>(deepest) + 2);
  const auto fits = [&](int depth, Json::parse_event_t event, const Json&) {
    // Whoever handles a value goes down into it, and has only so much room for that.
    if (depth > deepest) return false;
    const auto level = static_cast<std::size_t>(depth);
    if (event == Json::parse_event_t::object_start) numMembers[level + 1] = 0;
    return event != Json::parse_event_t::key || ++numMembers[level] <= kMostMembers;
  };
  return Json::parse(text, fits, false);
}

}  // namespace mirel::cli
