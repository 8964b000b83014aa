#include "FindingText.h"

namespace mirel::cli {

std::string_view severityName(Severity severity) noexcept {
  switch (severity) {
    case Severity::kOk: return "ok";
    case Severity::kSkipped: return "skipped";
    case Severity::kUnknown: return "unknown";
    case Severity::kWarning: return "warning";
    case Severity::kFailure: return "failure";
  }
  return {};
}

std::string_view remedierName(Remedier who) noexcept {
  switch (who) {
    case Remedier::kYou: return "you";
    case Remedier::kAdministrator: return "administrator";
    case Remedier::kIssuer: return "issuer";
    case Remedier::kMaker: return "maker";
  }
  return {};
}

std::string_view wordsOf(Remedier who) noexcept {
  switch (who) {
    case Remedier::kYou: return "you";
    case Remedier::kAdministrator: return "the administrator of this computer";
    case Remedier::kIssuer: return "the issuer of the card";
    case Remedier::kMaker: return "the maker of the module";
  }
  return {};
}

std::string findingLine(std::string_view what, std::string_view text) {
  constexpr std::size_t kColumn = 8;
  std::string line{"  "};
  return line.append(what).append(kColumn - what.size(), ' ').append(text).append("\n");
}

std::string bodyOf(const FindingEntry& entry) {
  return findingLine("Why", entry.why) + findingLine("Do", entry.remedy) +
         findingLine("Who", wordsOf(entry.who));
}

}  // namespace mirel::cli
