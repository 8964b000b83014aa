#include "Page.h"

#include <array>
#include <ctime>

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

}  // namespace

const SeverityLook& lookOf(Severity severity) {
  static constexpr SeverityLook kOk{"ok", "\u2713", "M-8 1 L-3 6 L8 -6", "works"};
  static constexpr SeverityLook kSkipped{"skipped", "\u2013", "M-7 0 L7 0", "not looked at"};
  static constexpr SeverityLook kUnknown{"unknown", "?", "M-5 -4 A5 5 0 1 1 0 2 L0 3.5 M0 9 L0 9.1",
                                         "not known"};
  static constexpr SeverityLook kWarning{"warning", "!", "M0 -8 L0 2 M0 8 L0 8.1", "warning"};
  static constexpr SeverityLook kFailure{"failure", "\u2715", "M-6 -6 L6 6 M6 -6 L-6 6", "does not work"};
  switch (severity) {
    case Severity::kOk: return kOk;
    case Severity::kSkipped: return kSkipped;
    case Severity::kUnknown: return kUnknown;
    case Severity::kWarning: return kWarning;
    case Severity::kFailure: break;
  }
  return kFailure;
}

std::string escapedForPage(std::string_view text) {
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

std::string pageElement(std::string_view name, std::string_view text) {
  return std::string{"<"}
      .append(name)
      .append(">")
      .append(escapedForPage(text))
      .append("</")
      .append(name)
      .append(">");
}

std::string pageMark(Severity severity, std::string_view word) {
  const SeverityLook& look = lookOf(severity);
  return std::string{"<span class=\"mark "}
      .append(look.style)
      .append("\">")
      .append(look.sign)
      .append(" ")
      .append(escapedForPage(word))
      .append("</span>");
}

std::string listRow(std::string_view what, std::string_view text) {
  return text.empty() ? std::string{} : pageElement("dt", what) + pageElement("dd", text) + "\n";
}

std::string versionsInOneLine(std::string versions) {
  while (versions.ends_with('\n')) versions.pop_back();
  for (std::size_t end = versions.find('\n'); end != std::string::npos; end = versions.find('\n'))
    versions.replace(end, 1, "; ");
  return versions;
}

std::string dateOf(std::chrono::system_clock::time_point time) {
  const std::time_t now = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  std::array<char, sizeof "2026-01-31T12:00:00Z"> text{};
  if (!gmtime_r(&now, &parts) || std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
    return "not known";
  return text.data();
}

std::string pageWith(const PageTop& top, std::string_view sections) {
  std::string page =
      "<!DOCTYPE html>\n"
      "<html lang=\"en\" xmlns=\"http://www.w3.org/1999/xhtml\">\n<head>\n<meta charset=\"utf-8\"/>\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
      "'unsafe-inline'\"/>\n";
  page += pageElement("title", top.title) + "\n<style>";
  page.append(kStyle).append("</style>\n</head>\n<body>\n<main>\n<header>\n");
  page +=
      pageElement("h1", top.title) + "\n<p class=\"verdict\">" + pageMark(top.verdict, top.words) + "</p>\n";
  page += "<p class=\"quiet\">" + escapedForPage(top.date) + "</p>\n</header>\n";
  return page.append(sections).append("</main>\n</body>\n</html>\n");
}

}  // namespace mirel::cli
