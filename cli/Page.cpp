#include "Page.h"

#include <array>
#include <ctime>

#include "PageStyle.h"
#include "host/Display.h"
#include "platform/Text.h"

namespace mirel::cli {
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
  page.append(kPageStyle).append("</style>\n</head>\n<body>\n<main>\n<header>\n");
  page +=
      pageElement("h1", top.title) + "\n<p class=\"verdict\">" + pageMark(top.verdict, top.words) + "</p>\n";
  page += "<p class=\"quiet\">" + escapedForPage(top.date) + "</p>\n</header>\n";
  return page.append(sections).append("</main>\n</body>\n</html>\n");
}

}  // namespace mirel::cli
