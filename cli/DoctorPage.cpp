#include "DoctorPage.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "FindingText.h"
#include "host/Display.h"
#include "platform/Text.h"

namespace mirel::cli {
namespace {

constexpr std::string_view kStyle = R"css(
:root { color-scheme: light dark;
  --page: #ffffff; --text: #1b1f24; --quiet: #545d68; --line: #c9d1d9; --box: #f5f7f9;
  --ok: #17692f; --warning: #825000; --failure: #b3140f; --unknown: #5f3dab; --skipped: #545d68; }
@media (prefers-color-scheme: dark) { :root {
  --page: #14181d; --text: #e8ecf0; --quiet: #a9b4c0; --line: #3a434d; --box: #1e242b;
  --ok: #6fd08c; --warning: #f0b849; --failure: #ff8f87; --unknown: #c4aaff; --skipped: #a9b4c0; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--page); color: var(--text);
  font: 1rem/1.5 system-ui, -apple-system, "Segoe UI", "Liberation Sans", "DejaVu Sans", sans-serif; }
main { max-width: 60rem; margin: 0 auto; padding: 1rem; overflow-wrap: anywhere; }
h1 { font-size: 1.6rem; margin: .5rem 0; }
h2 { font-size: 1.25rem; margin: 2rem 0 .75rem; }
h3 { font-size: 1.05rem; margin: 0 0 .5rem; }
dl { margin: 0; display: grid; grid-template-columns: 6.5rem 1fr; gap: .25rem .75rem; }
dt { color: var(--quiet); } dd { margin: 0; }
article { border: 1px solid var(--line); border-left: .4rem solid var(--tone); border-radius: .4rem;
  background: var(--box); padding: .75rem 1rem; margin: 0 0 1rem; }
svg { display: block; width: 100%; height: auto; margin: 0 auto; }
svg.wide { max-width: 56rem; } svg.tall { display: none; max-width: 24rem; }
svg text { fill: var(--text); font-size: 15px; }
svg .name { font-weight: 600; }
svg .word { fill: var(--tone); }
svg .road { stroke: var(--line); stroke-width: 4; }
svg .sign { fill: none; stroke: var(--page); stroke-width: 3.5; stroke-linecap: round; stroke-linejoin: round; }
svg circle { fill: var(--tone); }
.verdict { font-size: 1.1rem; } .quiet { color: var(--quiet); }
.mark { color: var(--tone); font-weight: 600; white-space: nowrap; }
.ok { --tone: var(--ok); } .warning { --tone: var(--warning); } .failure { --tone: var(--failure); }
.unknown { --tone: var(--unknown); } .skipped { --tone: var(--skipped); }
table { width: 100%; border-collapse: collapse; }
th, td { text-align: left; vertical-align: top; padding: .4rem .6rem .4rem 0; border-bottom: 1px solid var(--line); }
th, td.name, td.codes { overflow-wrap: normal; } td.name, td.codes { white-space: nowrap; }
tr.card th { overflow-wrap: anywhere; }
tr.card th { padding-top: 1.2rem; }
@media (max-width: 40rem) {
  svg.wide { display: none; } svg.tall { display: block; }
  dl { grid-template-columns: 1fr; gap: 0; } dd { margin-bottom: .5rem; }
  table, tbody, tr, td, tr.card th { display: block; } thead { display: none; }
  tr { padding: .5rem 0; border-bottom: 1px solid var(--line); }
  th, td { padding: 0; border: 0; } td.codes { white-space: normal; }
  td.mark, td.name { display: inline; } td.name { font-weight: 600; padding-left: .5rem; }
}
@media print {
  :root { color-scheme: light; --page: #ffffff; --text: #000000; --quiet: #333333; --line: #999999;
    --box: #ffffff; --ok: #17692f; --warning: #825000; --failure: #b3140f; --unknown: #5f3dab;
    --skipped: #333333; }
  * { -webkit-print-color-adjust: exact; print-color-adjust: exact; }
  main { max-width: none; padding: 0; } body { font-size: 10.5pt; }
  article, tr, svg { break-inside: avoid; } h2, h3, thead { break-after: avoid; }
}
)css";

/// How a severity is told: not by its colour alone.
struct Look {
  std::string_view style;
  std::string_view sign;   ///< in a text
  std::string_view lines;  ///< in the picture: the path of the same sign around the middle
  std::string_view word;
};

const Look& lookOf(Severity severity) {
  static constexpr Look kOk{"ok", "\u2713", "M-8 1 L-3 6 L8 -6", "works"};
  static constexpr Look kSkipped{"skipped", "\u2013", "M-7 0 L7 0", "not looked at"};
  static constexpr Look kUnknown{"unknown", "?", "M-5 -4 A5 5 0 1 1 0 2 L0 3.5 M0 9 L0 9.1", "not known"};
  static constexpr Look kWarning{"warning", "!", "M0 -8 L0 2 M0 8 L0 8.1", "warning"};
  static constexpr Look kFailure{"failure", "\u2715", "M-6 -6 L6 6 M6 -6 L-6 6", "does not work"};
  switch (severity) {
    case Severity::kOk: return kOk;
    case Severity::kSkipped: return kSkipped;
    case Severity::kUnknown: return kUnknown;
    case Severity::kWarning: return kWarning;
    case Severity::kFailure: break;
  }
  return kFailure;
}

/// Fit for an element and for an attribute. What a page may not hold, such as a control, is shown by number.
std::string escaped(std::string_view text) {
  std::string all;
  for (const char c : displayedName(Text::fromUtf8(text))) {
    switch (c) {
      case '&': all += "&amp;"; break;
      case '<': all += "&lt;"; break;
      case '>': all += "&gt;"; break;
      case '"': all += "&quot;"; break;
      case '\'': all += "&#39;"; break;
      default: all += c;
    }
  }
  return all;
}

std::string element(std::string_view name, std::string_view text) {
  return std::string{"<"}
      .append(name)
      .append(">")
      .append(escaped(text))
      .append("</")
      .append(name)
      .append(">");
}

std::string markOf(Severity severity, std::string_view word) {
  const Look& look = lookOf(severity);
  return std::string{"<span class=\"mark "}
      .append(look.style)
      .append("\">")
      .append(look.sign)
      .append(" ")
      .append(escaped(word))
      .append("</span>");
}

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
         std::string{style} + "\">" + escaped(text) + "</text>\n";
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
                    escaped(label) + "\">\n";
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
    const Look& look = lookOf(stops[i].severity);
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
    text += "<p>The way is broken at: <strong>" + escaped(broken->name) + "</strong>.</p>\n";
  return text + "</section>\n";
}

std::string row(std::string_view what, std::string_view text) {
  return text.empty() ? std::string{} : element("dt", what) + element("dd", text) + "\n";
}

std::string articleOf(const Finding& finding) {
  const FindingEntry& entry = entryOf(finding.id);
  std::string text = "<article class=\"" + std::string{lookOf(finding.severity).style} + "\">\n<h3>" +
                     markOf(finding.severity, severityName(finding.severity)) + " " + escaped(entry.code) +
                     " " + escaped(entry.title) + "</h3>\n<dl>\n";
  text += row("About", finding.subject) + row("Seen", finding.evidence) + row("Why", entry.why);
  return text + row("What to do", entry.remedy) + row("Who", wordsOf(entry.who)) + "</dl>\n</article>\n";
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
  row.append(markOf(check.severity, severityName(check.severity)));
  row.append("</td><td class=\"name\">").append(escaped(check.name)).append("</td>");
  row.append(element("td", check.evidence));
  return row.append("<td class=\"codes\">").append(escaped(codes)).append("</td></tr>\n");
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
              (check.reader.empty() ? "In all" : "Card in reader &quot;" + escaped(check.reader) + "&quot;") +
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
  std::string versions = facts.versions;
  while (versions.ends_with('\n')) versions.pop_back();
  for (std::size_t end = versions.find('\n'); end != std::string::npos; end = versions.find('\n'))
    versions.replace(end, 1, "; ");
  return "<section>\n<h2>Versions</h2>\n<dl>\n" + row("Program", versions) +
         row("Module", diagnosis.module.path) + row("Built for", diagnosis.module.target) +
         row("Date", facts.date) + "</dl>\n</section>\n";
}

}  // namespace

std::string pageOf(const Diagnosis& diagnosis, const PageFacts& facts) {
  std::string page =
      "<!DOCTYPE html>\n"
      "<html lang=\"en\" xmlns=\"http://www.w3.org/1999/xhtml\">\n<head>\n<meta charset=\"utf-8\"/>\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
      "'unsafe-inline'\"/>\n<title>mireltoken doctor</title>\n<style>";
  page.append(kStyle).append("</style>\n</head>\n<body>\n<main>\n<header>\n<h1>mireltoken doctor</h1>\n");
  const Severity verdict = diagnosis.verdict();
  page += "<p class=\"verdict\">" + markOf(verdict, wordsOf(verdict)) + "</p>\n";
  page += "<p class=\"quiet\">" + escaped(facts.date) + "</p>\n</header>\n";
  page += roadOf(diagnosis, facts.numPublished) + findingsOf(diagnosis) + checksOf(diagnosis);
  return page + versionsOf(diagnosis, facts) + "</main>\n</body>\n</html>\n";
}

}  // namespace mirel::cli
