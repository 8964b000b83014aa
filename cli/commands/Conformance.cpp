#include "host/Conformance.h"

#include <algorithm>

#include "Commands.h"
#include "ConformancePage.h"
#include "Files.h"
#include "Json.h"
#include "Output.h"
#include "Page.h"
#include "PinEntry.h"
#include "RuleNotes.h"
#include "Session.h"
#include "UsageChecks.h"
#include "Version.h"
#include "Worker.h"
#include "host/Display.h"
#include "platform/TimeAndChance.h"

namespace mirel::cli {
namespace {

constexpr const char* kLogin = "--login";
constexpr const char* kHtml = "--html";
constexpr const char* kJunit = "--junit";

/// With --json; stable.
const char* verdictName(RuleVerdict verdict) {
  switch (verdict) {
    case RuleVerdict::kPass: return "pass";
    case RuleVerdict::kFail: return "fail";
    case RuleVerdict::kWarn: return "warning";
    case RuleVerdict::kSkip: return "skipped";
    case RuleVerdict::kUnknown: return "unknown";
  }
  return "";
}

/// As it stands before a rule.
const char* markOf(RuleVerdict verdict) {
  switch (verdict) {
    case RuleVerdict::kPass: return "pass  ";
    case RuleVerdict::kFail: return "FAIL  ";
    case RuleVerdict::kWarn: return "warn  ";
    case RuleVerdict::kSkip: return "skip  ";
    case RuleVerdict::kUnknown: return "??    ";
  }
  return "";
}

std::size_t countOf(RuleVerdict verdict, const Conformance& conformance) {
  return static_cast<std::size_t>(
      std::count_if(conformance.results.begin(), conformance.results.end(),
                    [verdict](const RuleResult& result) { return result.verdict == verdict; }));
}

std::string textOf(const Conformance& conformance) {
  std::string text;
  for (const RuleResult& result : conformance.results) {
    text.append(markOf(result.verdict)).append(result.rule.number).append("  ").append(result.rule.title);
    text.append(": ").append(result.evidence).append("\n");
  }
  const auto count = [&](RuleVerdict verdict) { return std::to_string(countOf(verdict, conformance)); };
  text += "\n" + std::to_string(conformance.results.size()) + " rules: " + count(RuleVerdict::kPass) +
          " pass, " + count(RuleVerdict::kFail) + " fail, " + count(RuleVerdict::kWarn) + " warn, " +
          count(RuleVerdict::kUnknown) + " not known, " + count(RuleVerdict::kSkip) + " skipped.\n";
  if (const auto& card = conformance.card) {
    text += card->unreadable ? "Tested: the card, which could not be read,"
                             : "Tested: the card \"" + displayed(card->tokenLabel) + "\", serial number " +
                                   displayed(card->serialNumber) + ",";
    text += " in the reader \"" + displayed(card->name) + "\".\n";
  }
  return text.append("Grade ")
      .append(conformance.grade.letter)
      .append(": ")
      .append(conformance.grade.sentence)
      .append(".\n");
}

Json cardJson(const std::optional<Reader>& card) {
  if (!card) return nullptr;
  return Json{{"reader", card->name.toUtf8()},
              {"label", card->tokenLabel.toUtf8()},
              {"serialNumber", card->serialNumber.toUtf8()}};
}

std::string jsonText(const Conformance& conformance) {
  Json rules = Json::array();
  for (const RuleResult& result : conformance.results) {
    rules.push_back(Json{{"number", result.rule.number},
                         {"group", result.rule.group},
                         {"title", result.rule.title},
                         {"verdict", verdictName(result.verdict)},
                         {"evidence", result.evidence}});
  }
  return jsonLines("conformance", Json{{"verdict", verdictName(conformance.verdict())},
                                       {"grade", conformance.grade.letter},
                                       {"sentence", conformance.grade.sentence},
                                       {"card", cardJson(conformance.card)},
                                       {"rules", rules}});
}

/// What a module breaks that does not let the test come to its end. It is none of docs/cards.md.
constexpr ConformanceRule kEndRule{"", "end", "the module lasts until the end of the test"};

// ---- JUnit ----

/// For the value of an attribute. XML has no form for most control characters.
std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += static_cast<unsigned char>(c) < ' ' || c == '\x7F' ? ' ' : c; break;
    }
  }
  return out;
}

std::string attribute(const char* name, std::string_view value) {
  return std::string{" "} + name + "=\"" + escaped(value) + "\"";
}

/// `numErrors`: those that are no rules.
std::string countsText(const Conformance& conformance, std::size_t numErrors) {
  const std::size_t numSkipped =
      countOf(RuleVerdict::kSkip, conformance) + countOf(RuleVerdict::kWarn, conformance);
  return attribute("tests", std::to_string(conformance.results.size() + numErrors)) +
         attribute("failures", std::to_string(countOf(RuleVerdict::kFail, conformance))) +
         attribute("errors", std::to_string(countOf(RuleVerdict::kUnknown, conformance) + numErrors)) +
         attribute("skipped", std::to_string(numSkipped));
}

std::string junitCase(const RuleResult& result) {
  const std::string name = std::string{result.rule.number} + " " + std::string{result.rule.title};
  std::string text = "    <testcase" +
                     attribute("classname", "mireltoken." + std::string{result.rule.group}) +
                     attribute("name", name) + ">";
  const auto outcome = [&](const char* element, const std::string& message) {
    text += std::string{"<"} + element + attribute("message", message) + "/>";
  };
  switch (result.verdict) {
    case RuleVerdict::kPass: text += "<system-out>" + escaped(result.evidence) + "</system-out>"; break;
    case RuleVerdict::kFail: outcome("failure", result.evidence); break;
    // JUnit has no warnings, and this is no failure.
    case RuleVerdict::kWarn: outcome("skipped", "warning: " + result.evidence); break;
    case RuleVerdict::kSkip: outcome("skipped", result.evidence); break;
    case RuleVerdict::kUnknown: outcome("error", result.evidence); break;
  }
  return text + "</testcase>\n";
}

/// `end`: the failure that has ended the test; empty: it came to its end.
std::string junitText(const Conformance& conformance, const std::string& end) {
  const std::string counts = countsText(conformance, end.empty() ? 0 : 1);
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" + counts + ">\n  <testsuite" +
                     attribute("name", "mireltoken conformance") + counts + ">\n    <properties>" +
                     "<property name=\"grade\"" + attribute("value", conformance.grade.letter) +
                     "/><property name=\"sentence\"" + attribute("value", conformance.grade.sentence) +
                     "/></properties>\n";
  for (const RuleResult& result : conformance.results) text += junitCase(result);
  if (!end.empty()) {
    text += "    <testcase" + attribute("classname", "mireltoken.module") +
            attribute("name", kEndRule.title) + "><error" + attribute("message", end) + "/></testcase>\n";
  }
  return text + "  </testsuite>\n</testsuites>\n";
}

ExitCode exitCodeOf(RuleVerdict verdict) {
  switch (verdict) {
    case RuleVerdict::kFail: return ExitCode::kFindingsFail;
    case RuleVerdict::kWarn: return ExitCode::kFindingsWarn;
    default: return ExitCode::kSuccess;
  }
}

Result<void> checkFiles(const Options& options) {
  for (const char* option : {kHtml, kJunit}) {
    const auto file = options.fileOf(option);
    if (!file) continue;
    if (file->empty() || *file == "-")
      return wrongUsage(std::string{option} + " needs the name of a file", "conformance");
    if (auto writable = checkWriting(file); !writable) return writable;
  }
  return {};
}

/// `end`: as for junitText.
Result<void> writeFiles(const Options& options, const Conformance& conformance, const std::string& date,
                        const std::string& end = {}) {
  if (const auto html = options.fileOf(kHtml)) {
    Conformance shown = conformance;
    if (!end.empty()) shown.results.push_back({kEndRule, RuleVerdict::kFail, end});
    if (auto written = writeText(html, pageOf(shown, versionText(), date)); !written) return written;
  }
  const auto junit = options.fileOf(kJunit);
  return junit ? writeText(junit, junitText(conformance, end)) : Result<void>{};
}

bool writesFiles(const Options& options) { return options.fileOf(kHtml) || options.fileOf(kJunit); }

/// The module has ended the test: the files tell what was tested until then.
Failure salvage(const Options& options, Failure failure, std::string_view noted) {
  if (!writesFiles(options) || !checkFiles(options)) return failure;
  const Conformance conformance{resultsFrom(noted),
                                {"-", "not known: the module did not last until the end of the test"}};
  const auto written = writeFiles(options, conformance, dateOf(systemTimeAndChance()->date()), failure.what);
  failure.why += written ? "; what was tested until then was written" : "; " + written.failure().what;
  return failure;
}

Result<void> run(Session& session) {
  const Options& options = session.options();
  Examination wanted{session.module(), session.readerName()};
  if (options.has(kLogin)) {
    wanted.pins = [&options, &session](Host& host, const Reader& reader) {
      return pinSourceFor(
          options, [&host, reader] { return host.pinState(reader); },
          guardOf(session.services().cardService, reader.name));
    };
  } else if (options.pinFile || options.pinFd || options.lastTry) {
    return wrongUsage("a PIN is of no use without --login", "conformance");
  }
  if (auto usable = checkFiles(options); !usable) return usable;
  if (auto readable = checkPinFile(options); !readable) return readable;
  RuleListener onRule;
  if (writesFiles(options)) {
    onRule = [](const std::vector<RuleResult>& soFar) {
      (void)noteResult(noteOf(soFar));  // where it is too long, what was noted before stays
    };
  }
  const Conformance conformance = testConformance(session.services(), wanted, std::move(onRule));
  const auto date = dateOf(givenOrSystem(session.services().timeAndChance)->date());
  session.setExitCode(exitCodeOf(conformance.verdict()));
  // A script must not take a reader that is not there for a card with warnings.
  if (conformance.notReached) {
    const auto kept = writeFiles(options, conformance, date);
    return kept ? *conformance.notReached : kept.failure();
  }
  // What was tested is told, and kept, also where one of the two does not work.
  const auto told = writeOutput(options.json ? jsonText(conformance) : textOf(conformance));
  const auto kept = writeFiles(options, conformance, date);
  return kept ? told : kept;
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kFlag, "Log in, and try each key", kLogin},
    {CommandOption::Kind::kFile, "Write the results as a page for a browser, too", kHtml},
    {CommandOption::Kind::kFile, "Write the results to this file as well, as JUnit XML", kJunit},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command conformanceCommand{.name = "conformance",
                                 .help = "Test module and card against every rule for card makers",
                                 .options = kOptions,
                                 .run = run,
                                 .usesModule = false,
                                 .salvage = salvage};

}  // namespace mirel::cli
