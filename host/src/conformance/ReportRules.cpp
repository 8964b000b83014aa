#include <algorithm>
#include <initializer_list>

#include "TokenFindings.h"
#include "conformance/ObjectRules.h"

namespace mirel {
namespace {

using enum RuleID;

enum class Needs { kPublished, kLogin, kSigningKey };

/// A rule that the findings of a report decide.
struct FindingRule {
  RuleID rule;
  std::initializer_list<FindingID> findings;
  Needs needs;           ///< without it the rule does not pass
  const char* evidence;  ///< where it passes
};

}  // namespace

void testReport(const ReportRules& rules, RuleResults& results) {
  using enum FindingID;
  const FindingRule kRules[] = {
      {kPublicObjects,
       {kTokenNotInitialised, kCardEmpty, kNothingPublished, kPublicKeyPrivate, kCertificatePrivate},
       Needs::kLogin,
       "nothing more shows after the login"},
      {kSameID, {kPublicKeyMissing, kCertificateMissing}, Needs::kPublished, "each key has its certificate"},
      {kOwnID, {kIDShared, kCertificatesOfOneKey}, Needs::kPublished, "no ID is there twice"},
      {kOwnCertificate, {kCertificateOfOtherKey}, Needs::kPublished, "the public values are alike"},
      {kPrivateKeyThere, {kPrivateKeyMissing}, Needs::kLogin, "each published key has one"},
      {kX509, {kCertificateUnusable}, Needs::kPublished, "each can be read"},
      {kKeyUsage, {kKeyUsageMissing, kNoKeyAgreement}, Needs::kPublished, "each published key has a use"},
      {kInstanceID, {kInstanceIDShared}, Needs::kPublished, "no other card has the same name"},
      {kSigningKey,
       {kRsaKeyTooLong, kEcKeyNeverSigns},
       Needs::kSigningKey,
       "no key is too long, or on a curve"},
      {kKeyName, {kKeyNameWithPss}, Needs::kSigningKey, "no name contains it"},
      {kAlwaysAuthenticate, {kPinForEachUse}, Needs::kLogin, "no key wants the PIN for each use"},
  };
  const auto& findings = rules.report.findings;
  const auto unread = std::find_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.severity == Severity::kUnknown &&
           (finding.id == kObjectUnread || isUnreadToken(finding.id));
  });
  // It tells nothing of the key, so what rules ask of certificates is not looked at.
  const auto ofOtherKey = std::find_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.id == kCertificateOfOtherKey;
  });
  const bool privateKeysSeen =
      std::all_of(rules.report.keys.begin(), rules.report.keys.end(),
                  [](const KeyReport& key) { return key.hasPrivateKey.has_value(); });
  for (const FindingRule& rule : kRules) {
    const auto broken = std::find_if(findings.begin(), findings.end(), [&](const Finding& finding) {
      const bool isBad = finding.severity == Severity::kFailure || finding.severity == Severity::kWarning;
      // The same is told of keys that decrypt, for which there are rules of their own.
      const bool isOfOther =
          rule.needs == Needs::kSigningKey &&
          std::find(rules.signers.begin(), rules.signers.end(), finding.subject) == rules.signers.end();
      return isBad && !isOfOther &&
             std::find(rule.findings.begin(), rule.findings.end(), finding.id) != rule.findings.end();
    });
    if (broken != findings.end()) {
      std::string text = broken->subject;
      if (!broken->evidence.empty()) text += (text.empty() ? "" : ": ") + broken->evidence;
      results.fail(rule.rule, std::string{entryOf(broken->id).code} + " " + text);
    } else if (results.isBad(rule.rule)) {
      continue;  // that was told without the report
    } else if (unread != findings.end()) {
      results.unknown(rule.rule, unread->evidence.empty() ? "not all was read" : unread->evidence);
    } else if (!rules.report.failedRead.empty()) {
      results.unknown(rule.rule, rules.report.failedRead);
    } else if (rule.rule == kInstanceID && !rules.otherUnread.empty()) {
      results.unknown(rule.rule, rules.otherUnread);
    } else if (!rules.missed.empty()) {
      results.unknown(rule.rule, rules.missed);
    } else if (!rules.published) {
      results.skip(rule.rule, "nothing is published");
    } else if (rule.needs == Needs::kSigningKey && rules.signers.empty()) {
      results.skip(rule.rule, "no key of the card signs");
    } else if (rule.needs == Needs::kLogin && !rules.loggedIn) {
      results.skip(rule.rule, "that shows only after a login");
    } else if (rule.needs == Needs::kLogin && !rules.report.loggedIn) {
      results.unknown(rule.rule, "whether the session is logged in could not be told");
    } else if (rule.rule == kPrivateKeyThere && !privateKeysSeen) {
      results.unknown(rule.rule, "not all private keys of the card were seen");
    } else if (ofOtherKey != findings.end() && (rule.rule == kSigningKey || rule.rule == kKeyUsage)) {
      results.unknown(rule.rule, std::string{entryOf(ofOtherKey->id).code} + " " + ofOtherKey->subject +
                                     " belongs to another key");
    } else {
      results.pass(rule.rule, rule.evidence);
    }
  }
}

}  // namespace mirel
