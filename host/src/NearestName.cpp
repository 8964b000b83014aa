#include "host/NearestName.h"

#include <algorithm>
#include <cstddef>

namespace mirel {
namespace {

constexpr std::size_t kLongest = 100;  // bytes; the work grows with the square

char folded(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

/// The steps from one word to the other, by the rows of their table.
std::size_t distanceBetween(std::string_view a, std::string_view b) {
  std::vector<std::size_t> beforeLast;
  std::vector<std::size_t> last(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) last[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::vector<std::size_t> row(b.size() + 1);
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const bool same = folded(a[i - 1]) == folded(b[j - 1]);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0U : 1U)});
      const bool exchanged =
          i > 1 && j > 1 && folded(a[i - 1]) == folded(b[j - 2]) && folded(a[i - 2]) == folded(b[j - 1]);
      if (exchanged) row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
    beforeLast = std::move(last);
    last = std::move(row);
  }
  return last[b.size()];
}

}  // namespace

std::string nearestName(std::string_view word, const std::vector<std::string>& names) {
  if (word.size() > kLongest) return {};
  std::string nearest;
  std::size_t least = 0;
  for (const std::string& name : names) {
    if (name == word) return {};
    if (name.empty() || name.size() > kLongest) continue;
    // Of words with one or two letters any other would be near.
    const std::size_t mostSteps = std::min(word.size(), name.size()) / 3;
    const std::size_t steps = distanceBetween(word, name);
    if (steps > mostSteps || (!nearest.empty() && steps >= least)) continue;
    nearest = name;
    least = steps;
  }
  return nearest;
}

std::string suggestionFor(std::string_view word, const std::vector<std::string>& names) {
  const std::string name = nearestName(word, names);
  return name.empty() ? name : " (did you mean \"" + name + "\"?)";
}

}  // namespace mirel
