#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "host/Doctor.h"

namespace mirel::test {

/// The codes of what was found, in the order of the checks.
[[nodiscard]] inline std::vector<std::string> codesOf(const Diagnosis& diagnosis) {
  std::vector<std::string> codes;
  for (const Finding& finding : diagnosis.findings()) codes.emplace_back(entryOf(finding.id).code);
  return codes;
}

/// The finding, which is there; else one without evidence.
[[nodiscard]] inline Finding findingIn(const Diagnosis& diagnosis, FindingID id) {
  for (const Finding& finding : diagnosis.findings()) {
    if (finding.id == id) return finding;
  }
  return {id, Severity::kOk, {}, {}};
}

/// The first check of that name; one with the evidence "none" where it was not made.
[[nodiscard]] inline Check checkIn(const Diagnosis& diagnosis, std::string_view name) {
  for (const Check& check : diagnosis.checks) {
    if (check.name == name) return check;
  }
  return {std::string{name}, Severity::kSkipped, "none", {}};
}

}  // namespace mirel::test
