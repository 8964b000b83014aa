#include "host/Doctor.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "FindingText.h"
#include "Output.h"
#include "PinEntry.h"
#include "Session.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kLogin = "--login";

/// As it stands before a check.
std::string markOf(Severity severity) {
  switch (severity) {
    case Severity::kOk: return "ok";
    case Severity::kSkipped: return "skip";
    case Severity::kUnknown: return "??";
    case Severity::kWarning: return "warn";
    case Severity::kFailure: return "FAIL";
  }
  return {};
}

std::string checksText(const std::vector<Check>& checks) {
  std::size_t width = 0;
  for (const Check& check : checks) width = std::max(width, check.name.size());
  std::string text;
  std::string reader;
  for (const Check& check : checks) {
    if (check.reader != reader)
      text += check.reader.empty() ? "\n" : "\nCard in reader \"" + check.reader + "\"\n";
    reader = check.reader;
    const std::string mark = markOf(check.severity);
    text += mark + std::string(6 - mark.size(), ' ') + check.name +
            std::string(width - check.name.size() + 2, ' ') + check.evidence + "\n";
  }
  return text;
}

std::string findingText(const Finding& finding) {
  const FindingEntry& entry = entryOf(finding.id);
  std::string text = "\n" + std::string{entry.code} + "  " + std::string{entry.title};
  if (!finding.subject.empty()) text += " (" + finding.subject + ")";
  text += "\n";
  if (!finding.evidence.empty()) text += findingLine("Seen", finding.evidence);
  return text + bodyOf(entry);
}

std::string countOf(std::size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string summaryOf(const Diagnosis& diagnosis) {
  const auto count = [&](Severity severity) {
    return static_cast<std::size_t>(
        std::count_if(diagnosis.checks.begin(), diagnosis.checks.end(),
                      [severity](const Check& check) { return check.severity == severity; }));
  };
  return countOf(diagnosis.checks.size(), "check") + ": " + countOf(count(Severity::kFailure), "failure") +
         ", " + countOf(count(Severity::kWarning), "warning") + ", " +
         std::to_string(count(Severity::kUnknown)) + " not known, " +
         std::to_string(count(Severity::kSkipped)) + " skipped.\n";
}

std::string textOf(const Diagnosis& diagnosis) {
  std::string text = checksText(diagnosis.checks);
  for (const Finding& finding : diagnosis.findings()) text += findingText(finding);
  return text + "\n" + summaryOf(diagnosis);
}

Json jsonOf(const Check& check) {
  Json codes = Json::array();
  for (const Finding& finding : check.findings) codes.push_back(entryOf(finding.id).code);
  Json json{{"name", check.name}, {"severity", severityName(check.severity)}, {"evidence", check.evidence}};
  if (!check.reader.empty()) json["reader"] = check.reader;
  json["findings"] = codes;
  return json;
}

Json jsonOf(const Finding& finding) {
  const FindingEntry& entry = entryOf(finding.id);
  return Json{{"id", entry.code},           {"severity", severityName(finding.severity)},
              {"subject", finding.subject}, {"evidence", finding.evidence},
              {"title", entry.title},       {"why", entry.why},
              {"remedy", entry.remedy},     {"who", remedierName(entry.who)}};
}

std::string jsonText(const Diagnosis& diagnosis) {
  Json checks = Json::array();
  for (const Check& check : diagnosis.checks) checks.push_back(jsonOf(check));
  Json findings = Json::array();
  for (const Finding& finding : diagnosis.findings()) findings.push_back(jsonOf(finding));
  return jsonLines(
      Json{{"verdict", severityName(diagnosis.verdict())}, {"checks", checks}, {"findings", findings}});
}

ExitCode exitCodeOf(Severity verdict) {
  switch (verdict) {
    case Severity::kFailure: return ExitCode::kFindingsFail;
    case Severity::kWarning: return ExitCode::kFindingsWarn;
    default: return ExitCode::kSuccess;
  }
}

Result<void> run(Session& session) {
  const Options& options = session.options();
  Examination wanted{{options.modulePath, options.trustModule}, session.readerName()};
  if (options.has(kLogin)) {
    wanted.pins = [&options](Host& host, const Reader& reader) {
      return pinSourceFor(options, [&host, reader] { return host.pinState(reader); });
    };
  } else if (options.pinFile || options.pinFd || options.lastTry) {
    return Failure{FailureKind::kBadInput, "wrong usage", "a PIN is of no use without --login",
                   "see mireltoken doctor --help"};
  }
  const Diagnosis diagnosis = diagnose(session.services(), wanted);
  session.setExitCode(exitCodeOf(diagnosis.verdict()));
  return writeOutput(options.json ? jsonText(diagnosis) : textOf(diagnosis));
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kFlag, "Log in, and try each key once", kLogin},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command doctorCommand{"doctor", "Examine module, readers and card, and say what to do", kOptions, run,
                            false};

}  // namespace mirel::cli
