#include "Findings.h"

#include <nlohmann/json.hpp>

#include "FindingText.h"
#include "Output.h"

namespace mirel::cli {

using Json = nlohmann::ordered_json;

Json jsonOf(const Finding& finding) {
  const FindingEntry& entry = entryOf(finding.id);
  return Json{{"id", entry.code},
              {"severity", severityName(finding.severity)},
              {"subject", finding.subject},
              {"title", entry.title},
              {"evidence", finding.evidence},
              {"why", entry.why},
              {"remedy", entry.remedy},
              {"who", remedierName(entry.who)}};
}

Json jsonOf(std::span<const Finding> findings) {
  Json list = Json::array();
  for (const Finding& finding : findings) list.push_back(jsonOf(finding));
  return list;
}

std::string causeText(const Finding& finding) {
  std::string text{entryOf(finding.id).title};
  if (!finding.evidence.empty()) text.append(" (").append(finding.evidence).append(")");
  return text;
}

std::string findingsTable(std::span<const Finding> findings) {
  std::vector<std::vector<std::string>> rows{{"FINDING", "SEVERITY", "ABOUT", "WHAT IT IS, AND WHAT TO DO"}};
  for (const Finding& finding : findings) {
    if (finding.severity != Severity::kFailure && finding.severity != Severity::kWarning) continue;
    const FindingEntry& entry = entryOf(finding.id);
    rows.push_back({std::string{entry.code}, std::string{severityName(finding.severity)}, finding.subject,
                    causeText(finding) + "; " + std::string{entry.remedy}});
  }
  return rows.size() == 1 ? std::string{} : table(rows, outputIsColoured());
}

}  // namespace mirel::cli
