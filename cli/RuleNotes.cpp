#include "RuleNotes.h"

#include <cstdint>
#include <nlohmann/json.hpp>

#include "NoteParser.h"
#include "platform/Log.h"

namespace mirel::cli {

using Json = nlohmann::ordered_json;

std::string noteOf(const std::vector<RuleResult>& results) {
  Json all = Json::object();
  for (const RuleResult& result : results)
    all[std::string{result.rule.number}] = {static_cast<int>(result.verdict), result.evidence};
  return all.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::vector<RuleResult> resultsFrom(std::string_view text) {
  const Json all = parsedNote(text, 2);
  std::vector<RuleResult> results;
  for (const ConformanceRule& rule : conformanceRules()) {
    RuleResult& result = results.emplace_back(
        RuleResult{rule, RuleVerdict::kSkip, "the module ended the test before this rule was tested"});
    const auto found = all.is_object() ? all.find(std::string{rule.number}) : all.end();
    if (found == all.end() || !found->is_array() || found->size() != 2 || !(*found)[1].is_string()) continue;
    const Json& verdict = (*found)[0];
    if (!verdict.is_number_unsigned()) continue;
    const auto number = verdict.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(RuleVerdict::kUnknown)) continue;
    result.verdict = static_cast<RuleVerdict>(number);
    result.evidence = printableLine((*found)[1].get_ref<const std::string&>());
  }
  return results;
}

}  // namespace mirel::cli
