#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/Doctor.h"
#include "platform/PlatformServices.h"

namespace mirel {

/// A rule of docs/cards.md. Literals, UTF-8, without a full stop at the end.
struct ConformanceRule {
  std::string_view number;  ///< "CR-01"; stable
  std::string_view group;   ///< "module": what the rules beside it are about as well
  std::string_view title;
};

/// All rules, in the order of their numbers.
[[nodiscard]] std::span<const ConformanceRule> conformanceRules() noexcept;

enum class RuleVerdict {
  kPass,
  kFail,
  kWarn,     ///< broken, and a card may do without it
  kSkip,     ///< not tested, since what it needs is not there
  kUnknown,  ///< it was looked for and could not be told
};

/// What a rule came to.
struct RuleResult {
  ConformanceRule rule;
  RuleVerdict verdict = RuleVerdict::kSkip;
  std::string evidence;  ///< what was seen, or why nothing was; fit for a terminal
};

/// What of a card was seen to work. Nothing: that was not tried, or could not be told.
struct CardAbilities {
  std::optional<bool> published;  ///< it has at least one item in the keychain
  std::optional<bool> signsPss;
  std::optional<bool> signsPkcs1;
  std::optional<bool> decrypts;
};

/// What users will be able to do with a card. Literals.
struct Grade {
  std::string_view letter;    ///< "A" (the best) to "F"; "-" where it cannot be told
  std::string_view sentence;  ///< without a full stop
};

[[nodiscard]] Grade gradeOf(const CardAbilities& abilities) noexcept;

/// What a module and a card came to.
struct Conformance {
  std::vector<RuleResult> results;  ///< of every rule, in the order of their numbers
  Grade grade;
  std::optional<Reader> card{};  ///< the one that was tested; nothing: there was none
  /// Why that of the reader that was named was not tested: there is no such reader, or no card in it. A rule
  /// that could not be told has it, too.
  std::optional<Failure> notReached{};

  /// kFail where a rule failed; kWarn where one warns or could not be told; else kPass.
  [[nodiscard]] RuleVerdict verdict() const;
};

/// Is told of the rules that came to something so far, in the order of their numbers, after each.
using RuleListener = std::function<void(const std::vector<RuleResult>& soFar)>;

/// Tests a module and one card against every rule. `wanted`: as for `diagnose`, but one card alone is tested:
/// that of `reader`, else the first that is initialised. Without `pins` no login is tried, and the rules that
/// need one are skipped. A rule that was not seen to be kept never passes. Changes nothing on the card. Loads
/// the module into this process, as `Host` does. `onRule`: may be empty.
[[nodiscard]] Conformance testConformance(PlatformServices services, const Examination& wanted,
                                          RuleListener onRule = {});

}  // namespace mirel
