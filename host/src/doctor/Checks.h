#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/Doctor.h"

namespace mirel {

/// The checks that were made so far.
class Checks {
 public:
  explicit Checks(std::function<void(const Check&)> onCheck) : onCheck_{std::move(onCheck)} {}

  /// A check that found these things (none: all is well).
  void add(const char* name, std::string evidence, std::vector<Finding> findings = {}) {
    const Severity severity = worstOf(findings);
    append({name, severity, std::move(evidence), std::move(findings), reader_});
  }
  /// A check that came to something for which there is no finding.
  void add(const char* name, Severity severity, std::string evidence) {
    append({name, severity, std::move(evidence), {}, reader_});
  }
  void skip(const char* name, std::string reason) { add(name, Severity::kSkipped, std::move(reason)); }

  /// The checks from now on are about the card in that reader; empty: about all.
  void turnTo(std::string reader) { reader_ = std::move(reader); }
  [[nodiscard]] const std::string& reader() const noexcept { return reader_; }

  [[nodiscard]] Diagnosis diagnosis() && { return {std::move(checks_)}; }

 private:
  void append(Check check) {
    checks_.push_back(std::move(check));
    if (onCheck_) onCheck_(checks_.back());
  }

  std::function<void(const Check&)> onCheck_;
  std::vector<Check> checks_;
  std::string reader_;
};

}  // namespace mirel
