#include "DoctorPage.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "FindingText.h"
#include "Page.h"

namespace mirel::cli {
namespace {

struct Stop {
  std::string_view name;
  Severity severity;
  std::string word;
};

/// The worst of its checks; kSkipped only where none of them was made.
Severity severityAt(Station station, const Diagnosis& diagnosis) {
  bool wasReached = false;
  Severity worst = Severity::kOk;
  for (const Check& check : diagnosis.checks) {
    if (check.station != station || check.severity == Severity::kSkipped) continue;
    wasReached = true;
    if (isWorse(check.severity, worst)) worst = check.severity;
  }
  return wasReached ? worst : Severity::kSkipped;
}

std::vector<Stop> stopsOf(const Diagnosis& diagnosis, std::size_t numPublished) {
  constexpr std::pair<std::string_view, Station> kStations[] = {{"module", Station::kModule},
                                                                {"readers", Station::kReaders},
                                                                {"card", Station::kCard},
                                                                {"objects", Station::kObjects},
                                                                {"keys", Station::kKeys}};
  std::vector<Stop> stops;
  for (const auto& [name, station] : kStations) {
    const Severity severity = severityAt(station, diagnosis);
    stops.push_back({name, severity, std::string{lookOf(severity).word}});
  }
  const auto& checks = diagnosis.checks;
  const bool hasSystem = std::any_of(checks.begin(), checks.end(),
                                     [](const Check& check) { return check.station == Station::kSystem; });
  if (hasSystem) {
    const Severity severity = severityAt(Station::kSystem, diagnosis);
    stops.push_back({"extension", severity, std::string{lookOf(severity).word}});
  }
  if (numPublished > 0) {
    stops.push_back(
        {"keychain", Severity::kOk, std::to_string(numPublished) + (numPublished == 1 ? " item" : " items")});
  } else {
    const bool isBroken = diagnosis.verdict() == Severity::kFailure;
    stops.push_back({"keychain", isBroken ? Severity::kFailure : Severity::kSkipped, "gets nothing"});
  }
  return stops;
}

/// The stop at which the road is broken; none: the end.
std::vector<Stop>::const_iterator breakOf(const std::vector<Stop>& stops) {
  return std::find_if(stops.begin(), stops.end(),
                      [](const Stop& stop) { return stop.severity == Severity::kFailure; });
}

std::string textAt(std::size_t x, std::size_t y, std::string_view style, std::string_view text) {
  return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" class=\"" +
         std::string{style} + "\">" + escapedForPage(text) + "</text>\n";
}

/// The road from left to right, or from top to bottom.
std::string pictureOf(const std::vector<Stop>& stops, bool isWide) {
  constexpr std::size_t kRadius = 18;
  constexpr std::size_t kStep = 140;
  constexpr std::size_t kTallStep = 64;
  const std::size_t last = stops.empty() ? 0 : stops.size() - 1;
  const auto middle = [&](std::size_t i) {
    return isWide ? std::pair{kStep / 2 + i * kStep, std::size_t{24}}
                  : std::pair{std::size_t{28}, std::size_t{28} + i * kTallStep};
  };
  const auto [width, height] = isWide ? std::pair{kStep * stops.size(), std::size_t{90}}
                                      : std::pair{std::size_t{320}, 56 + last * kTallStep};
  std::string label;
  for (const Stop& stop : stops) {
    label += (label.empty() ? "" : ", ") + std::string{stop.name} + ": " + stop.word;
  }
  std::string svg = "<svg class=\"" + std::string{isWide ? "wide" : "tall"} + "\" viewBox=\"0 0 " +
                    std::to_string(width) + " " + std::to_string(height) + "\" role=\"img\" aria-label=\"" +
                    escapedForPage(label) + "\">\n";
  const auto broken = static_cast<std::size_t>(breakOf(stops) - stops.begin());
  for (std::size_t i = 0; i < last; ++i) {
    const auto [x1, y1] = middle(i);
    const auto [x2, y2] = middle(i + 1);
    svg += "<line class=\"road\" x1=\"" + std::to_string(x1) + "\" y1=\"" + std::to_string(y1) + "\" x2=\"" +
           std::to_string(x2) + "\" y2=\"" + std::to_string(y2) +
           (i >= broken ? "\" stroke-dasharray=\"2 10" : "") + "\"/>\n";
  }
  for (std::size_t i = 0; i < stops.size(); ++i) {
    const auto [x, y] = middle(i);
    const SeverityLook& look = lookOf(stops[i].severity);
    svg += "<g class=\"" + std::string{look.style} + "\"" + (isWide ? " text-anchor=\"middle\"" : "") + ">\n";
    svg += "<circle cx=\"" + std::to_string(x) + "\" cy=\"" + std::to_string(y) + "\" r=\"" +
           std::to_string(kRadius) + "\"/>\n";
    svg += "<path class=\"sign\" transform=\"translate(" + std::to_string(x) + " " + std::to_string(y) +
           ")\" d=\"" + std::string{look.lines} + "\"/>\n";
    svg += isWide
               ? textAt(x, y + 40, "name", stops[i].name) + textAt(x, y + 60, "word", stops[i].word)
               : textAt(x + 34, y - 3, "name", stops[i].name) + textAt(x + 34, y + 17, "word", stops[i].word);
    svg += "</g>\n";
  }
  return svg + "</svg>\n";
}

std::string roadOf(const Diagnosis& diagnosis, std::size_t numPublished) {
  const std::vector<Stop> stops = stopsOf(diagnosis, numPublished);
  std::string text = "<section>\n<h2>The way to the keychain</h2>\n";
  text += pictureOf(stops, true) + pictureOf(stops, false);
  if (const auto broken = breakOf(stops); broken != stops.end())
    text += "<p>The way is broken at: <strong>" + escapedForPage(broken->name) + "</strong>.</p>\n";
  return text + "</section>\n";
}

std::string articleOf(const Finding& finding) {
  const FindingEntry& entry = entryOf(finding.id);
  std::string text = "<article class=\"" + std::string{lookOf(finding.severity).style} + "\">\n<h3>" +
                     pageMark(finding.severity, severityName(finding.severity)) + " " +
                     escapedForPage(entry.code) + " " + escapedForPage(entry.title) + "</h3>\n<dl>\n";
  text += listRow("About", finding.subject) + listRow("Seen", finding.evidence) + listRow("Why", entry.why);
  return text + listRow("What to do", entry.remedy) + listRow("Who", wordsOf(entry.who)) +
         "</dl>\n</article>\n";
}

std::string findingsOf(const Diagnosis& diagnosis) {
  std::string text = "<section>\n<h2>What was found</h2>\n";
  const std::vector<Finding> findings = diagnosis.findings();
  if (findings.empty()) text += "<p>Nothing that needs attention.</p>\n";
  for (const Finding& finding : findings) text += articleOf(finding);
  return text + "</section>\n";
}

std::string rowOf(const Check& check) {
  std::string codes;
  for (const Finding& finding : check.findings)
    codes.append(codes.empty() ? "" : " ").append(entryOf(finding.id).code);
  std::string row{"<tr><td class=\"mark\">"};
  row.append(pageMark(check.severity, severityName(check.severity)));
  row.append("</td><td class=\"name\">").append(escapedForPage(check.name)).append("</td>");
  row.append(pageElement("td", check.evidence));
  return row.append("<td class=\"codes\">").append(escapedForPage(codes)).append("</td></tr>\n");
}

std::string checksOf(const Diagnosis& diagnosis) {
  std::string text = "<section>\n<h2>All checks</h2>\n";
  if (diagnosis.checks.empty()) return text + "<p>No check was made.</p>\n</section>\n";
  text +=
      "<table>\n<thead><tr><th>Result</th><th>Check</th><th>Seen</th><th>Findings</th></tr></"
      "thead>\n<tbody>\n";
  std::string reader;
  for (const Check& check : diagnosis.checks) {
    if (check.reader != reader) {
      text += "<tr class=\"card\"><th colspan=\"4\">" +
              (check.reader.empty() ? "In all"
                                    : "Card in reader &quot;" + escapedForPage(check.reader) + "&quot;") +
              "</th></tr>\n";
    }
    reader = check.reader;
    text += rowOf(check);
  }
  return text + "</tbody>\n</table>\n</section>\n";
}

std::string_view wordsOf(Severity verdict) {
  switch (verdict) {
    case Severity::kFailure: return "Something does not work.";
    case Severity::kWarning: return "It works, with warnings.";
    default: return "Nothing was found that does not work.";
  }
}

std::string versionsOf(const Diagnosis& diagnosis, const PageFacts& facts) {
  return "<section>\n<h2>Versions</h2>\n<dl>\n" + listRow("Program", versionsInOneLine(facts.versions)) +
         listRow("Module", diagnosis.module.path) + listRow("Built for", diagnosis.module.target) +
         listRow("Date", facts.date) + "</dl>\n</section>\n";
}

}  // namespace

std::string pageOf(const Diagnosis& diagnosis, const PageFacts& facts) {
  const Severity verdict = diagnosis.verdict();
  const std::string sections = roadOf(diagnosis, facts.numPublished) + findingsOf(diagnosis) +
                               checksOf(diagnosis) + versionsOf(diagnosis, facts);
  return pageWith({"mireltoken doctor", verdict, std::string{wordsOf(verdict)}, facts.date}, sections);
}

}  // namespace mirel::cli
