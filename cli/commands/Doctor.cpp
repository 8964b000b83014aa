#include "host/Doctor.h"

#include <algorithm>

#include "Commands.h"
#include "FindingText.h"
#include "Findings.h"
#include "Json.h"
#include "Output.h"
#include "PinEntry.h"
#include "Session.h"

namespace mirel::cli {
namespace {

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

/// The line of one check; before the first about another card one that names its reader.
std::string checkText(const Check& check, std::string& ioReader) {
  constexpr std::size_t kMarkWidth = 6;
  constexpr std::size_t kNameWidth = 19;
  std::string text;
  if (check.reader != ioReader)
    text += check.reader.empty() ? "\n" : "\nCard in reader \"" + check.reader + "\"\n";
  ioReader = check.reader;
  std::string start = markOf(check.severity);
  start.resize(kMarkWidth, ' ');
  start += check.name;
  start.resize(std::max(start.size() + 1, kMarkWidth + kNameWidth), ' ');
  return text + start + check.evidence + "\n";
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

std::string endOf(const Diagnosis& diagnosis) {
  std::string text;
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

std::string jsonText(const Diagnosis& diagnosis) {
  Json checks = Json::array();
  for (const Check& check : diagnosis.checks) checks.push_back(jsonOf(check));
  return jsonLines("doctor", Json{{"verdict", severityName(diagnosis.verdict())},
                                  {"checks", checks},
                                  {"findings", cli::jsonOf(std::span<const Finding>{diagnosis.findings()})}});
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
  // Each check at once: the next one may wait for a card that does not answer.
  Result<void> written;
  std::string reader;
  if (!options.json) {
    wanted.onCheck = [&](const Check& check) {
      const std::string text = checkText(check, reader);
      if (written) written = writeOutput(text);
    };
  }
  const Diagnosis diagnosis = diagnose(session.services(), wanted);
  if (!written) return written;
  session.setExitCode(exitCodeOf(diagnosis.verdict()));
  return writeOutput(options.json ? jsonText(diagnosis) : endOf(diagnosis));
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kFlag, "Log in, and try each key once", kLogin},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command doctorCommand{"doctor", "Examine module, readers and card, and say what to do", kOptions, run,
                            false};

}  // namespace mirel::cli
