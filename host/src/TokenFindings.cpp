#include "TokenFindings.h"

#include <algorithm>
#include <string>

#include "bridge/CardRules.h"
#include "host/Display.h"

namespace mirel {
namespace {

/// "the card takes 4 to 16 characters"; a limit that the card does not tell is left out.
std::string limitsText(const CK_TOKEN_INFO& token) {
  const auto isTold = [](CK_ULONG limit) { return limit != 0 && limit != CK_UNAVAILABLE_INFORMATION; };
  const bool hasLeast = isTold(token.ulMinPinLen);
  const bool hasMost = isTold(token.ulMaxPinLen);
  if (!hasLeast && !hasMost) return "the card tells no limits of its length";
  std::string text = "the card takes ";
  if (!hasLeast) text += "at most ";
  if (!hasMost) text += "at least ";
  if (hasLeast) text += std::to_string(token.ulMinPinLen);
  if (hasLeast && hasMost) text += " to ";
  if (hasMost) text += std::to_string(token.ulMaxPinLen);
  return text + " characters";
}

}  // namespace

std::vector<Finding> pinFindings(const CK_TOKEN_INFO& token) {
  using enum FindingID;
  using enum Severity;
  static_assert(kMaxPinLen == 8, "the catalogue names the number");
  std::vector<Finding> findings;
  const auto isSet = [&](CK_FLAGS flag) { return (token.flags & flag) != 0; };
  const auto add = [&](FindingID id, Severity severity, std::string evidence) {
    findings.push_back({id, severity, "PIN", std::move(evidence)});
  };
  const bool needsPin = isSet(CKF_LOGIN_REQUIRED);
  if (isSet(CKF_PROTECTED_AUTHENTICATION_PATH))
    add(kPinPad, kFailure, "the flags have PROTECTED_AUTHENTICATION_PATH");
  if (isSet(CKF_USER_PIN_TO_BE_CHANGED))
    add(kPinToBeChanged, kWarning, "the flags have USER_PIN_TO_BE_CHANGED");
  const bool leastIsTold = token.ulMinPinLen != CK_UNAVAILABLE_INFORMATION;
  if (leastIsTold && token.ulMinPinLen > kMaxPinLen) add(kPinTooLong, kFailure, limitsText(token));
  if (needsPin && !isSet(CKF_USER_PIN_INITIALIZED)) {
    add(kPinNotSet, kFailure, "the flags have no USER_PIN_INITIALIZED");
  } else if (isSet(CKF_USER_PIN_LOCKED)) {
    add(kPinLocked, kFailure, "the flags have USER_PIN_LOCKED");
  } else if (isSet(CKF_USER_PIN_FINAL_TRY)) {
    add(kPinLastTry, kWarning, "the flags have USER_PIN_FINAL_TRY");
  } else if (isSet(CKF_USER_PIN_COUNT_LOW)) {
    add(kPinTriesFewer, kWarning, "the flags have USER_PIN_COUNT_LOW");
  } else if (needsPin) {
    add(kPinCountUnknown, kOk, "no flag tells of a wrong PIN; " + limitsText(token));
  }
  return findings;
}

std::vector<Finding> sharedInstanceFindings(const Reader& reader, const Text& instanceID,
                                            std::span<const Reader> readers) {
  std::vector<Finding> findings;
  for (const Reader& other : readers) {
    if (other.slotID == reader.slotID || instanceID.isEmpty() || !(other.instanceID == instanceID)) continue;
    // In one order, whichever of them is looked at: it is one finding.
    const auto& [first, second] =
        std::minmax(reader, other, [](const Reader& a, const Reader& b) { return a.slotID < b.slotID; });
    findings.push_back({FindingID::kInstanceIDShared, Severity::kWarning,
                        "readers \"" + displayed(first.name) + "\" and \"" + displayed(second.name) + "\"",
                        "both cards have the label \"" + displayed(other.tokenLabel) +
                            "\" and the serial number \"" + displayed(other.serialNumber) + "\""});
  }
  return findings;
}

}  // namespace mirel
