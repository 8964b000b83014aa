#pragma once

#include <algorithm>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/Doctor.h"

namespace mirel {

/// What a check is called, and where on the way it is made.
struct Checkpoint {
  const char* name;
  Station station;
};

/// The checks that were made so far.
class Checks {
 public:
  explicit Checks(const Examination& wanted) : onStart_{wanted.onStart}, onCheck_{wanted.onCheck} {}

  /// A check that may take its time begins.
  void start(const Checkpoint& point) const {
    if (onStart_) onStart_(point.name);
  }

  /// A check that found these things (none: all is well).
  void add(const Checkpoint& point, std::string evidence, std::vector<Finding> findings = {}) {
    const Severity severity = worstOf(findings);
    append({point.name, severity, std::move(evidence), std::move(findings), reader_, point.station});
  }
  /// A check that came to something for which there is no finding.
  void add(const Checkpoint& point, Severity severity, std::string evidence) {
    append({point.name, severity, std::move(evidence), {}, reader_, point.station});
  }
  void skip(const Checkpoint& point, std::string reason) {
    add(point, Severity::kSkipped, std::move(reason));
  }

  /// Has the last check of that name about the same card be known better: `change` gets it, if it found
  /// anything, and leaves its severity alone.
  template <typename Change>
  void amend(const Checkpoint& point, const Change& change) {
    auto& made = diagnosis_.checks;
    const auto found = std::find_if(made.rbegin(), made.rend(), [&](const Check& check) {
      return check.name == point.name && check.reader == reader_;
    });
    if (found == made.rend() || found->findings.empty()) return;
    change(*found);
    found->severity = worstOf(found->findings);
  }

  /// Has no check about the same card tell that of that subject.
  void takeBack(FindingID id, std::string_view subject) {
    for (Check& check : diagnosis_.checks) {
      if (check.reader != reader_) continue;
      const auto count = std::erase_if(check.findings, [&](const Finding& finding) {
        return finding.id == id && finding.subject == subject;
      });
      if (count > 0) check.severity = worstOf(check.findings);
    }
  }

  /// Has `cause` told in the place of each finding of those kinds about the cards in those readers.
  void replace(std::span<const FindingID> kinds, const std::set<std::string>& readers, const Finding& cause) {
    for (Check& check : diagnosis_.checks) {
      if (!readers.contains(check.reader)) continue;
      const auto isOfKind = [&](const Finding& finding) {
        return std::find(kinds.begin(), kinds.end(), finding.id) != kinds.end();
      };
      if (std::none_of(check.findings.begin(), check.findings.end(), isOfKind)) continue;
      std::replace_if(check.findings.begin(), check.findings.end(), isOfKind, cause);
      check.severity = worstOf(check.findings);
    }
  }

  /// The first finding of one of those kinds about that so far; null: there is none.
  [[nodiscard]] const Finding* findingAbout(std::string_view subject,
                                            std::span<const FindingID> kinds) const {
    return firstFinding([&](const Finding& finding) {
      return finding.subject == subject && std::find(kinds.begin(), kinds.end(), finding.id) != kinds.end();
    });
  }
  [[nodiscard]] bool has(FindingID id) const {
    return firstFinding([id](const Finding& finding) { return finding.id == id; }) != nullptr;
  }

  /// The checks from now on are about the card in that reader; empty: about all.
  void turnTo(std::string reader) { reader_ = std::move(reader); }
  [[nodiscard]] const std::string& reader() const noexcept { return reader_; }

  void setModule(ExaminedModule module) { diagnosis_.module = std::move(module); }
  [[nodiscard]] const ExaminedModule& module() const noexcept { return diagnosis_.module; }
  void setSlots(std::vector<Reader> slots) { diagnosis_.slots = std::move(slots); }

  void setSystemTokens(std::vector<std::string> ids) { diagnosis_.systemTokens = std::move(ids); }

  [[nodiscard]] Diagnosis diagnosis() && { return std::move(diagnosis_); }

 private:
  template <typename Predicate>
  [[nodiscard]] const Finding* firstFinding(const Predicate& fits) const {
    for (const Check& check : diagnosis_.checks) {
      const auto found = std::find_if(check.findings.begin(), check.findings.end(), fits);
      if (found != check.findings.end()) return &*found;
    }
    return nullptr;
  }

  void append(Check check) {
    diagnosis_.checks.push_back(std::move(check));
    if (onCheck_) onCheck_(diagnosis_);
  }

  std::function<void(std::string_view)> onStart_;
  std::function<void(const Diagnosis&)> onCheck_;
  Diagnosis diagnosis_;
  std::string reader_;
};

}  // namespace mirel
