#include "Commands.h"
#include "FindingText.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/NearestName.h"
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

/// " (did you mean "MT-C03"?)"; nothing where no code is near. Whoever leaves the prefix out means the rest.
std::string suggestionOf(const std::string& word) {
  const bool hasPrefix = word.starts_with("MT-") || word.starts_with("mt-");
  const std::string whole = hasPrefix ? word : "MT-" + word;
  std::vector<std::string> codes;
  for (const FindingEntry& entry : findingCatalogue()) codes.emplace_back(entry.code);
  const FindingEntry* same = findEntry(whole);
  const std::string near = same ? std::string{same->code} : nearestName(whole, codes);
  return near.empty() ? near : " (did you mean \"" + near + "\"?)";
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
  return Failure{FailureKind::kWrongUsage, "wrong usage",
                 "there is no finding \"" + printableLine(*options.word) + "\"" + suggestionOf(*options.word),
                 "see all with: mireltoken explain"};
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kWord, "The ID of a finding (default: list all)", "ID"}};

}  // namespace

const Command explainCommand{"explain", "Explain what `doctor` has found", kOptions, run, false};

}  // namespace mirel::cli
