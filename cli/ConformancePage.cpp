#include "ConformancePage.h"

#include <algorithm>

#include "Page.h"

namespace mirel::cli {
namespace {

Severity severityOf(RuleVerdict verdict) {
  switch (verdict) {
    case RuleVerdict::kPass: return Severity::kOk;
    case RuleVerdict::kFail: return Severity::kFailure;
    case RuleVerdict::kWarn: return Severity::kWarning;
    case RuleVerdict::kSkip: return Severity::kSkipped;
    case RuleVerdict::kUnknown: break;
  }
  return Severity::kUnknown;
}

std::string_view wordOf(RuleVerdict verdict) {
  switch (verdict) {
    case RuleVerdict::kPass: return "pass";
    case RuleVerdict::kFail: return "fail";
    case RuleVerdict::kWarn: return "warn";
    case RuleVerdict::kSkip: return "skipped";
    case RuleVerdict::kUnknown: break;
  }
  return "not known";
}

std::string_view wordsOf(RuleVerdict verdict) {
  switch (verdict) {
    case RuleVerdict::kFail: return "At least one rule is broken.";
    case RuleVerdict::kWarn: return "No rule is broken that a card must keep.";
    default: return "No rule is broken that was tested.";
  }
}

std::string gradeSection(const Conformance& conformance) {
  std::string counts;
  for (const RuleVerdict verdict : {RuleVerdict::kPass, RuleVerdict::kFail, RuleVerdict::kWarn,
                                    RuleVerdict::kUnknown, RuleVerdict::kSkip}) {
    const auto number =
        std::count_if(conformance.results.begin(), conformance.results.end(),
                      [verdict](const RuleResult& result) { return result.verdict == verdict; });
    counts += (counts.empty() ? "" : ", ") + std::to_string(number) + " " + std::string{wordOf(verdict)};
  }
  return "<section>\n<h2>Grade " + escapedForPage(conformance.grade.letter) + "</h2>\n<p>" +
         escapedForPage(conformance.grade.sentence) + ".</p>\n<p class=\"quiet\">" +
         std::to_string(conformance.results.size()) + " rules: " + counts + "</p>\n</section>\n";
}

std::string rowOf(const RuleResult& result) {
  std::string row{"<tr><td class=\"mark\">"};
  row.append(pageMark(severityOf(result.verdict), wordOf(result.verdict))).append("</td><td class=\"name\">");
  row.append(escapedForPage(result.rule.number)).append("</td>");
  row.append(pageElement("td", result.rule.title)).append(pageElement("td", result.evidence));
  return row.append("</tr>\n");
}

std::string rulesSection(const Conformance& conformance) {
  std::string text =
      "<section>\n<h2>All rules</h2>\n<table>\n<thead><tr><th>Result</th><th>Rule</th><th>What it asks "
      "for</th>"
      "<th>Seen</th></tr></thead>\n<tbody>\n";
  std::string_view group;
  for (const RuleResult& result : conformance.results) {
    if (result.rule.group != group)
      text += "<tr class=\"card\"><th colspan=\"4\">" + escapedForPage(result.rule.group) + "</th></tr>\n";
    group = result.rule.group;
    text += rowOf(result);
  }
  return text + "</tbody>\n</table>\n</section>\n";
}

}  // namespace

std::string pageOf(const Conformance& conformance, const std::string& versions, const std::string& date) {
  const RuleVerdict verdict = conformance.verdict();
  const std::string sections =
      gradeSection(conformance) + rulesSection(conformance) + "<section>\n<h2>Versions</h2>\n<dl>\n" +
      listRow("Program", versionsInOneLine(versions)) + listRow("Date", date) + "</dl>\n</section>\n";
  return pageWith({"mireltoken conformance", severityOf(verdict), std::string{wordsOf(verdict)}, date},
                  sections);
}

}  // namespace mirel::cli
