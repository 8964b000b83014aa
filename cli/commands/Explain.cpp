#include <algorithm>
#include <numeric>

#include "Commands.h"
#include "FindingText.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

Json jsonOf(const FindingEntry& entry) {
  return Json{{"id", entry.code},
              {"title", entry.title},
              {"why", entry.why},
              {"remedy", entry.remedy},
              {"who", remedierName(entry.who)}};
}

char upperOf(char letter) {
  return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

/// How many letters have to be changed, added or taken away to make one word of another.
std::size_t distanceOf(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = diagonal + (upperOf(a[i - 1]) == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({changed, row[j - 1] + 1, diagonal + 1});
    }
  }
  return row.back();
}

/// The codes that look most like the word; none where nothing does.
std::string nearCodes(std::string_view word) {
  constexpr std::size_t kFarthest = 3;  // "C3" for "MT-C03" is farther
  constexpr std::size_t kMost = 5;
  std::vector<std::pair<std::size_t, std::string_view>> near;
  for (const FindingEntry& entry : findingCatalogue()) {
    // Whoever leaves the prefix out means the rest.
    const std::size_t distance =
        std::min(distanceOf(word, entry.code), distanceOf(word, entry.code.substr(3)));
    if (distance <= kFarthest && distance < word.size()) near.emplace_back(distance, entry.code);
  }
  std::stable_sort(near.begin(), near.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> codes;
  for (const auto& [distance, code] : near) {
    if (codes.size() < kMost && distance == near.front().first) codes.emplace_back(code);
  }
  return joinedWith(", ", codes);
}

Result<void> run(Session& session) {
  const Options& options = session.options();
  if (!options.word) {
    if (options.json) {
      Json all = Json::array();
      for (const FindingEntry& entry : findingCatalogue()) all.push_back(jsonOf(entry));
      return writeOutput(jsonLines("explain", Json{{"findings", all}}));
    }
    std::vector<std::vector<std::string>> rows{{"ID", "WHAT IS FOUND"}};
    for (const FindingEntry& entry : findingCatalogue())
      rows.push_back({std::string{entry.code}, std::string{entry.title}});
    return writeOutput(table(rows, outputIsColoured()));
  }
  if (const FindingEntry* entry = findEntry(*options.word)) {
    if (options.json) return writeOutput(jsonLines("explain", jsonOf(*entry)));
    return writeOutput(std::string{entry->code} + "  " + std::string{entry->title} + "\n" + bodyOf(*entry));
  }
  const std::string near = nearCodes(*options.word);
  return Failure{FailureKind::kBadInput, "wrong usage",
                 "there is no finding \"" + printableLine(*options.word) + "\"" +
                     (near.empty() ? "" : "; near to it are " + near),
                 "see all with: mireltoken explain"};
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kWord, "The ID of a finding (default: list all)", "ID"}};

}  // namespace

const Command explainCommand{"explain", "Explain what `doctor` has found", kOptions, run, false};

}  // namespace mirel::cli
