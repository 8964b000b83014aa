#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "host/Conformance.h"

namespace mirel {

/// The rules, in the order of their numbers.
enum class RuleID : std::size_t {
  kModulePlace,
  kEntryPoint,
  kInitialise,
  kInitialiseAgain,
  kThreads,
  kFunctions,
  kSessions,
  kSlotNames,
  kPadding,
  kModuleOnMac,
  kNumTokens,
  kPublicObjects,
  kSameID,
  kAttributes,
  kOwnID,
  kOwnCertificate,
  kPrivateKeyThere,
  kX509,
  kKeyTypes,
  kCertificateValueLen,
  kCertificateNameLen,
  kPublicKeyNameLen,
  kSearchedIDLen,
  kModulusLen,
  kPointLen,
  kParamsLen,
  kNumPublicKeys,
  kNumCertificates,
  kKeyUsage,
  kInstanceID,
  kPinLen,
  kPinEntry,
  kLogin,
  kSessionState,
  kTriesLeft,
  kSigningKey,
  kModulusReadable,
  kSigningPrivateKey,
  kRawSignature,
  kKeyName,
  kAlwaysAuthenticate,
  kPssSha1,
  kPssSha256,
  kPssSha384,
  kPssSha512,
  kPkcs1,
  kDecryptingKey,
  kPrivateModulus,
  kDecryption,
  kRemoval,
  kSizeQuery,
  kSmallBuffer,
  kPinUnchanged,
  kCount,
};

inline constexpr std::size_t kNumRules = static_cast<std::size_t>(RuleID::kCount);

/// What the rules came to so far.
class RuleResults {
 public:
  RuleResults() = default;
  /// `onRule`: may be empty.
  explicit RuleResults(RuleListener onRule) : onRule_{std::move(onRule)} {}

  void set(RuleID rule, RuleVerdict verdict, std::string evidence) {
    at(rule) = std::pair{verdict, std::move(evidence)};
    if (onRule_) onRule_(soFar());
  }
  void pass(RuleID rule, std::string evidence) { set(rule, RuleVerdict::kPass, std::move(evidence)); }
  void fail(RuleID rule, std::string evidence) { set(rule, RuleVerdict::kFail, std::move(evidence)); }
  void skip(RuleID rule, std::string reason) { set(rule, RuleVerdict::kSkip, std::move(reason)); }
  void unknown(RuleID rule, std::string evidence) { set(rule, RuleVerdict::kUnknown, std::move(evidence)); }

  [[nodiscard]] bool has(RuleID rule) const { return held_[static_cast<std::size_t>(rule)].has_value(); }
  /// Whether the rule was seen to be broken, or could not be told.
  [[nodiscard]] bool isBad(RuleID rule) const;
  [[nodiscard]] bool isAny(RuleVerdict verdict) const;

  /// Skips all rules that came to nothing.
  void skipRest(const std::string& reason);

  [[nodiscard]] std::vector<RuleResult> taken() &&;

 private:
  [[nodiscard]] std::vector<RuleResult> soFar() const;

  using Held = std::optional<std::pair<RuleVerdict, std::string>>;

  [[nodiscard]] Held& at(RuleID rule) { return held_[static_cast<std::size_t>(rule)]; }

  std::array<Held, kNumRules> held_;
  RuleListener onRule_{};
};

}  // namespace mirel
