#include "doctor/CardChecks.h"

#include <algorithm>
#include <utility>

#include "doctor/CardLook.h"
#include "doctor/KeyTrials.h"
#include "host/Display.h"
#include "host/DistinctItems.h"
#include "host/KeyClient.h"

namespace mirel {
namespace {

using enum FindingID;

constexpr const char* kPin = "PIN";
constexpr const char* kCard = "card";
constexpr const char* kObjects = "objects";
constexpr const char* kKeys = "keys";
constexpr const char* kLogin = "login";
constexpr const char* kTrials[] = {"signatures", "decryption"};

bool hasFlag(const Reader& reader, const char* name) {
  return std::find(reader.tokenFlags.begin(), reader.tokenFlags.end(), name) != reader.tokenFlags.end();
}

void checkPin(Host& host, const Reader& reader, Checks& checks) {
  const auto state = host.pinState(reader);
  if (!state) return checks.add(kPin, Severity::kUnknown, state.failure().why);
  std::vector<Finding> findings;
  const auto add = [&](FindingID id, Severity severity, std::string evidence) {
    findings.push_back({id, severity, {}, std::move(evidence)});
  };
  switch (state->tries) {
    case PinState::Tries::kNone:
      add(kPinLocked, Severity::kFailure, "the flag USER_PIN_LOCKED is set");
      break;
    case PinState::Tries::kLast:
      add(kPinLastTry, Severity::kWarning, "the flag USER_PIN_FINAL_TRY is set");
      break;
    case PinState::Tries::kFewer:
      add(kPinTriesFewer, Severity::kWarning, "the flag USER_PIN_COUNT_LOW is set");
      break;
    case PinState::Tries::kNoWord: break;
  }
  if (!state->obstacle.empty())
    add(state->enteredAtReader ? kPinPad : kPinTooLong, Severity::kFailure, state->obstacle);
  const bool needed = hasFlag(reader, "LOGIN_REQUIRED");
  if (needed && !hasFlag(reader, "USER_PIN_INITIALIZED"))
    add(kPinNotSet, Severity::kFailure, "the flag USER_PIN_INITIALIZED is not set");
  // A number that says how many are left is wanted when a wrong one was entered.
  const bool counts = state->tries == PinState::Tries::kFewer || state->tries == PinState::Tries::kLast;
  if (counts && host.triesLeft(reader) == std::optional<std::uint64_t>{0})
    add(kPinCountUnknown, Severity::kUnknown, "the session information has the number 0");
  checks.add(kPin,
             !state->text.empty() ? state->text
             : needed             ? "the flags tell of no wrong PIN"
                                  : "the card wants none",
             std::move(findings));
}

/// Whether a finding is of the kind with that letter in its code.
bool isOf(char letter, const Finding& finding) { return entryOf(finding.id).code[3] == letter; }

std::vector<Finding> findingsOf(char letter, const CardLook& look) {
  std::vector<Finding> findings;
  std::copy_if(look.findings.begin(), look.findings.end(), std::back_inserter(findings),
               [letter](const Finding& finding) { return isOf(letter, finding); });
  return findings;
}

std::string countOf(std::size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string textOf(const std::vector<CardLook::Key>& keys) {
  std::string text;
  for (const CardLook::Key& key : keys) {
    if (!text.empty()) text += "; ";
    text += displayed(key.objectID);
    if (!key.works.empty()) text += " " + key.works;
  }
  return text.empty() ? "none" : text;
}

void addLook(const CardLook& look, std::size_t numItems, Checks& checks) {
  checks.add(kObjects,
             countOf(numItems, "item") + " published, " + countOf(look.numUnpublished, "object") + " not",
             findingsOf('C', look));
  checks.add(kKeys, textOf(look.keys), findingsOf('K', look));
}

void skipLogin(Checks& checks, const std::string& reason) {
  checks.skip(kLogin, reason);
  for (const char* name : kTrials) checks.skip(name, reason);
}

/// What became of a login, as a check; true when the keys can be tried.
bool checkLogin(const Result<void>& accepted, Checks& checks) {
  if (accepted) {
    checks.add(kLogin, "the card accepts the PIN");
    return true;
  }
  const Failure& failure = accepted.failure();
  const std::string why = failure.what + ": " + failure.why;
  const auto refused = [&](FindingID id) {
    checks.add(kLogin, why, {{id, Severity::kFailure, {}, failure.why}});
    return false;
  };
  switch (failure.kind) {
    case FailureKind::kPinWrong: return refused(kPinRefused);
    case FailureKind::kPinLocked: return refused(kPinLocked);
    case FailureKind::kPinCannotBeEntered: return refused(kPinTooLong);
    case FailureKind::kPinHeldBack:
    case FailureKind::kCancelled: checks.skip(kLogin, why); return false;
    default: checks.add(kLogin, Severity::kFailure, why); return false;
  }
}

void tryKeys(Host& host, const InsertedCard& card, const CardLook& look, PinSource& pins, Checks& checks) {
  const auto client = host.newClient(card);
  const auto refuse = [&](const std::string& reason) {
    for (const char* name : kTrials) checks.skip(name, reason);
  };
  if (!client) {
    checks.add(kLogin, Severity::kFailure, client.failure().what + ": " + client.failure().why);
    return refuse("there is no login");
  }
  if (!checkLogin((*client)->logIn(pins), checks)) return refuse("there is no login");
  const CardLook after = lookAtCard(host, card, true);
  std::vector<Finding> more;
  for (const Finding& finding : after.findings) {
    const bool known = std::any_of(look.findings.begin(), look.findings.end(), [&](const Finding& other) {
      return other.id == finding.id && other.subject == finding.subject;
    });
    if (!known) more.push_back(finding);
  }
  checks.add("private keys", countOf(more.size(), "finding") + " more after the login", more);
  trySigning(**client, card, after, pins, kTrials[0], checks);
  tryDecrypting(**client, card, pins, kTrials[1], checks);
}

}  // namespace

void skipCardChecks(Checks& checks, const std::string& reason) {
  for (const char* name : {kCard, kPin, kObjects, kKeys}) checks.skip(name, reason);
  skipLogin(checks, reason);
}

void checkCard(Host& host, const Reader& reader, const PinsForReader& pins, const std::string& whyNoLogin,
               Checks& checks) {
  if (reader.unreadable) {
    const std::string& why = reader.unreadable->why;
    checks.add(kCard, why, {{kTokenUnreadable, Severity::kFailure, {}, why}});
    return;
  }
  const auto card = host.insert(reader.name);
  if (!card) {
    const CardLook look = lookAtCard(host, reader);
    std::vector<Finding> findings = findingsOf('T', look);
    if (look.findings.empty())
      findings.push_back({kTokenUnreadable, Severity::kFailure, {}, card.failure().why});
    if (findings.empty()) {
      checks.add(kCard, Severity::kFailure, card.failure().why);
    } else {
      checks.add(kCard, card.failure().why, std::move(findings));
    }
    checkPin(host, reader, checks);
    addLook(look, 0, checks);
    return skipLogin(checks, "the card is not published");
  }
  const CardLook look = lookAtCard(host, *card, false);
  checks.add(kCard,
             "\"" + displayed(reader.tokenLabel) + "\", serial number " + displayed(reader.serialNumber),
             findingsOf('T', look));
  checkPin(host, reader, checks);
  addLook(look, distinctItems(card->items).size(), checks);
  const auto source = pins ? pins(host, reader) : nullptr;
  if (!source) return skipLogin(checks, whyNoLogin);
  tryKeys(host, *card, look, *source, checks);
}

}  // namespace mirel
