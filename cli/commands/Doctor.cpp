#include "host/Doctor.h"

#include <algorithm>
#include <vector>

#include "Commands.h"
#include "DoctorBundle.h"
#include "DoctorNotes.h"
#include "DoctorPage.h"
#include "FindingText.h"
#include "Findings.h"
#include "ItemsJson.h"
#include "Json.h"
#include "Output.h"
#include "Page.h"
#include "PinEntry.h"
#include "Progress.h"
#include "Session.h"
#include "UsageChecks.h"
#include "Version.h"
#include "Worker.h"
#include "host/DistinctItems.h"
#include "host/Home.h"
#include "platform/Desktop.h"
#include "platform/TimeAndChance.h"

namespace mirel::cli {
namespace {

constexpr const char* kLogin = "--login";
constexpr const char* kHtml = "--html";
constexpr const char* kBundle = "--bundle";
constexpr const char* kAnonymous = "--anonymous";

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

/// The checks that a later one has made known better than they were told.
std::string correctionOf(const Diagnosis& diagnosis, const std::vector<Severity>& told) {
  std::string text;
  for (std::size_t i = 0; i < told.size(); ++i) {
    const Check& check = diagnosis.checks[i];
    std::string reader = check.reader;
    if (check.severity != told[i]) text += checkText(check, reader);
  }
  return text.empty() ? text : "\nKnown better by later checks:\n" + text;
}

std::string endOf(const Diagnosis& diagnosis, const std::vector<Severity>& told) {
  std::string text = correctionOf(diagnosis, told);
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

Result<void> checkOptions(const Options& options) {
  if (!options.has(kLogin) && (options.pinFile || options.pinFd || options.lastTry))
    return wrongUsage("a PIN is of no use without --login", "doctor");
  if (options.has(kAnonymous) && !options.fileOf(kBundle))
    return wrongUsage("--anonymous is of no use without --bundle", "doctor");
  if (auto readable = checkPinFile(options); !readable) return readable;
  for (const auto& [option, file] : options.files) {
    if (!file) continue;
    // Standard output has what is for the terminal, or the JSON.
    if (file == "-") return wrongUsage(option + " needs a file, not standard output", "doctor");
    if (auto writable = checkWriting(file); !writable) return writable;
  }
  return {};
}

bool writesFiles(const Options& options) { return options.fileOf(kHtml) || options.fileOf(kBundle); }

/// `services`: tell the names of the user.
Result<void> writeFiles(const Options& options, const PlatformServices& services, const DoctorNotes& notes) {
  const std::string date = dateOf(givenOrSystem(services.timeAndChance)->date());
  if (const auto file = options.fileOf(kHtml)) {
    auto written = writeText(file, pageOf(notes.diagnosis, {versionText(), date, notes.numPublished}));
    if (!written) return written;
  }
  const auto file = options.fileOf(kBundle);
  if (!file) return {};
  const BundleParts parts{versionText(),
                          date,
                          notes.diagnosis,
                          notes.cards,
                          notes.log,
                          notes.logWasStopped,
                          options.replay.has_value()};
  return writeText(file, bundleOf(parts, services, options.has(kAnonymous)));
}

/// The module has ended the examination: the files tell what was found until then.
Failure salvage(const Options& options, Failure failure, std::string_view noted) {
  auto notes = writesFiles(options) ? notesFrom(noted) : std::nullopt;
  if (!notes) return failure;
  addEnd(failure, notes->diagnosis);
  PlatformServices services = systemServices();
  if (options.home) services.user = userWithHome(services.user, *options.home);
  const auto written = writeFiles(options, services, *notes);
  failure.why += written ? "; what was found until then was written" : "; " + written.failure().what;
  return failure;
}

Result<void> run(Session& session) {
  const Options& options = session.options();
  if (auto usable = checkOptions(options); !usable) return usable;
  PlatformServices services = session.services();
  const auto log = std::make_shared<KeptLog>(services.log);
  services.log = log;
  DoctorNotes notes;
  const auto takeLog = [&] {
    notes.log = log->lines();
    notes.logWasStopped = log->wasStopped();
  };
  Examination wanted{session.module(), session.readerName()};
  if (options.has(kLogin)) {
    wanted.pins = [&options, &session, log](Host& host, const Reader& reader) {
      log->stop();
      return pinSourceFor(
          options, [&host, reader] { return host.pinState(reader); },
          guardOf(session.services().cardService, reader.name));
    };
  }
  wanted.onCard = [&](const InsertedCard& card, const CardReport& report) {
    notes.numPublished += distinctItems(card.items).size();
    if (options.fileOf(kBundle)) notes.cards.push_back(itemsJson(card, report));
  };
  // They tell of the cards of this system.
  if (!options.replay) wanted.systemTools = systemProgramRunner();
  if (const auto desktop = systemDesktop()) wanted.app = desktop->appPath();
  // Each check at once: the next one may wait for a card that does not answer.
  Result<void> written;
  std::string reader;
  std::vector<Severity> told;
  Progress progress{"examining", !options.json && !options.verbose};
  std::size_t numDone = 0;
  wanted.onStart = [&](std::string_view check) { progress.doneSteps(numDone, check); };
  wanted.onCheck = [&](const Diagnosis& soFar) {
    ++numDone;
    if (writesFiles(options)) {
      notes.diagnosis = soFar;
      takeLog();
      (void)noteResult(textOf(notes));  // where it is too long, what was noted before stays
    }
    if (options.json) return;
    progress.clear();
    told.push_back(soFar.checks.back().severity);
    const std::string text = checkText(soFar.checks.back(), reader);
    if (written) written = writeOutput(text);
  };
  notes.diagnosis = diagnose(services, wanted);
  progress.clear();
  takeLog();
  const Diagnosis& diagnosis = notes.diagnosis;
  session.setExitCode(exitCodeOf(diagnosis.verdict()));
  if (written) written = writeOutput(options.json ? jsonText(diagnosis) : endOf(diagnosis, told));
  // Also where nobody reads the rest of the text.
  const auto stored = writeFiles(options, session.services(), notes);
  return stored ? written : stored;
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kFlag, "Log in, and try each key once", kLogin},
    {CommandOption::Kind::kFile, "Write what was found as a page for a browser, too", kHtml},
    {CommandOption::Kind::kFile, "Write all that support needs, too", kBundle},
    {CommandOption::Kind::kFlag, "Put pseudonyms for names and serial numbers in the bundle", kAnonymous},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command doctorCommand{.name = "doctor",
                            .help = "Examine module, readers and card, and say what to do",
                            .options = kOptions,
                            .run = run,
                            .usesModule = false,
                            .salvage = salvage};

}  // namespace mirel::cli
