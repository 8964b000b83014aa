#include "doctor/CardChecks.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "NotedPins.h"
#include "TokenFindings.h"
#include "bridge/cryptoki.h"
#include "doctor/KeyTrials.h"
#include "host/Display.h"
#include "host/DistinctItems.h"
#include "host/KeyClient.h"

namespace mirel {
namespace {

using enum FindingID;

constexpr Checkpoint kPin{"PIN", Station::kCard};
constexpr Checkpoint kObjects{"objects", Station::kObjects};
constexpr Checkpoint kKeys{"keys", Station::kKeys};
constexpr Checkpoint kLogin{"login", Station::kCard};
constexpr Checkpoint kPrivateKeys{"private keys", Station::kKeys};
constexpr Checkpoint kTrials[] = {{"signatures", Station::kKeys}, {"decryption", Station::kKeys}};

/// Whether a finding is of the kind with that letter in its code.
bool isOf(char letter, const Finding& finding) { return entryOf(finding.id).code[3] == letter; }

std::vector<Finding> findingsOf(char letter, const CardReport& report) {
  std::vector<Finding> findings;
  std::copy_if(report.findings.begin(), report.findings.end(), std::back_inserter(findings),
               [letter](const Finding& finding) { return isOf(letter, finding); });
  return findings;
}

/// A report leaves open what it means that the card has gone, or the module. For an examination it is the
/// end. Why it is; null: it goes on.
const char* judgeGone(std::vector<Finding>& findings) {
  const char* why = nullptr;
  for (Finding& finding : findings) {
    if (!endsExamination(finding.id)) continue;
    finding.severity = Severity::kFailure;
    why = endingText(finding.id);
  }
  return why;
}

void checkPin(Host& host, const Reader& reader, const CardReport& report, Checks& checks) {
  const auto unreadable = std::find_if(report.findings.begin(), report.findings.end(),
                                       [](const Finding& finding) { return isUnreadToken(finding.id); });
  std::vector<Finding> findings = findingsOf('P', report);
  // The card may have gone away after its flags were read.
  if (findings.empty() && unreadable != report.findings.end())
    return checks.add(kPin, Severity::kUnknown, unreadable->evidence);
  // A number that says how many are left is wanted when a wrong one was entered, and the flags do not tell.
  const bool counts = std::any_of(findings.begin(), findings.end(),
                                  [](const Finding& finding) { return finding.id == kPinTriesFewer; });
  if (counts && host.triesLeft(reader) == std::optional<std::uint64_t>{0})
    findings.push_back(
        {kPinCountUnknown, Severity::kUnknown, "PIN", "the session information has the number 0"});
  std::string evidence = "the card wants none";
  if (!findings.empty()) evidence = findings.front().evidence;
  // What is as it should be is evidence alone.
  std::erase_if(findings, [](const Finding& finding) { return finding.severity == Severity::kOk; });
  checks.add(kPin, std::move(evidence), std::move(findings));
}

std::string countOf(std::size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/// Without what only the finding MT-K04 tells, which a trial may take back.
std::string_view worksOf(const KeyReport& key) {
  std::string_view works = key.works;
  if (works.ends_with(kOnceForEachLogin)) works.remove_suffix(kOnceForEachLogin.size());
  return works;
}

std::string textOf(const std::vector<KeyReport>& keys) {
  std::string text;
  for (const KeyReport& key : keys) {
    if (!text.empty()) text += "; ";
    text += subjectOf("key", key.objectID, key.labelOnCard);
    if (!key.works.empty()) text.append(" ").append(worksOf(key));
  }
  return text.empty() ? "none" : text;
}

/// The one about the same thing, whatever was seen of it; null where there is none.
const Finding* sameIn(const std::vector<Finding>& findings, const Finding& wanted) {
  const auto found = std::find_if(findings.begin(), findings.end(), [&](const Finding& finding) {
    return finding.id == wanted.id && finding.subject == wanted.subject;
  });
  return found == findings.end() ? nullptr : &*found;
}

/// What is well is no finding, and what only a trial tells is none where the trial is made.
std::vector<Finding> keyFindings(const CardReport& report, bool withTrials) {
  std::vector<Finding> findings = findingsOf('K', report);
  std::erase_if(findings, [withTrials](const Finding& finding) {
    return finding.severity == Severity::kOk || (withTrials && finding.id == kPkcs1NotTried);
  });
  return findings;
}

/// How much of the card is published.
std::string amountText(const CardReport& report, std::size_t numItems) {
  const auto numOf = [&](bool UnpublishedObject::*mark) {
    return static_cast<std::size_t>(
        std::count_if(report.unpublished.begin(), report.unpublished.end(),
                      [mark](const UnpublishedObject& object) { return object.*mark; }));
  };
  if (report.hidden) {  // good objects are not listed then
    const std::size_t number = numOf(&UnpublishedObject::blocksCard);
    return "nothing is published, " + countOf(number, "object") + (number == 1 ? " hides" : " hide") +
           " the whole card";
  }
  std::string text =
      countOf(numItems, "item") + " published, " + countOf(report.unpublished.size(), "object") + " not";
  const std::size_t numExpected = numOf(&UnpublishedObject::expected);
  if (numExpected > 0)
    text += ", " + std::to_string(numExpected) + " of them of an issuer, which needs no key";
  return text;
}

void addReport(const CardReport& report, std::size_t numItems, bool withTrials, Checks& checks) {
  std::string text = amountText(report, numItems);
  std::vector<Finding> findings = findingsOf('C', report);
  if (findings.empty() && !report.failedRead.empty()) {  // why is told of the card itself
    checks.add(kObjects, Severity::kUnknown, std::move(text));
  } else {
    checks.add(kObjects, std::move(text), std::move(findings));
  }
  checks.add(kKeys, textOf(report.keys), keyFindings(report, withTrials));
}

void skipTrials(Checks& checks, const std::string& reason) {
  for (const Checkpoint& trial : kTrials) checks.skip(trial, reason);
}

void skipLogin(Checks& checks, const std::string& reason) {
  checks.skip(kLogin, reason);
  skipTrials(checks, reason);
}

/// Somebody asked for a login, and no PIN was checked.
void missLogin(Checks& checks, const std::string& reason, Severity severity = Severity::kWarning) {
  checks.add(kLogin, reason, {{kLoginNotMade, severity, {}, reason}});
}

/// What became of a login, as a check; true when the keys can be tried. `pinWasGiven`: else none was sent.
bool checkLogin(const Result<void>& accepted, bool pinWasGiven, const CardReport& report, Checks& checks) {
  if (accepted) {
    checks.add(kLogin, "the card accepts the PIN");
    return true;
  }
  const Failure& failure = accepted.failure();
  const std::string why = failure.what + ": " + failure.why;
  /// What the flags have told already; null where they have not.
  const auto toldBefore = [&](FindingID id) {
    const auto told = std::find_if(report.findings.begin(), report.findings.end(),
                                   [id](const Finding& finding) { return finding.id == id; });
    return told == report.findings.end() || !isOf('P', *told) ? nullptr : &*told;
  };
  const auto refused = [&](FindingID id) {
    Finding finding{id, Severity::kFailure, {}, failure.why};
    if (const Finding* told = toldBefore(id))  // it is the same one
      finding = {id, Severity::kFailure, told->subject, told->evidence};
    checks.add(kLogin, why, {std::move(finding)});
    return false;
  };
  switch (failure.kind) {
    case FailureKind::kPinWrong: return refused(kPinRefused);
    case FailureKind::kPinLocked: return refused(kPinLocked);
    case FailureKind::kPinCannotBeEntered: return refused(toldBefore(kPinPad) ? kPinPad : kPinTooLong);
    case FailureKind::kCardGone:
    case FailureKind::kAnotherCard: return refused(goneFindingOf(failure.result));
    case FailureKind::kPinHeldBack:
      if (toldBefore(kPinLocked)) return refused(kPinLocked);
      if (const Finding* told = toldBefore(kPinLastTry)) {
        checks.add(kLogin, why, {*told});
        return false;
      }
      [[fallthrough]];
    case FailureKind::kFileFailure:  // the one with the PIN
    case FailureKind::kCancelled: missLogin(checks, why); return false;
    default: break;
  }
  if (!pinWasGiven) return missLogin(checks, why, Severity::kFailure), false;  // a call has failed before
  if (failure.result == CKR_USER_PIN_NOT_INITIALIZED) return refused(kPinNotSet);
  return refused(failure.result == CKR_PIN_EXPIRED ? kPinToBeChanged : kLoginFails);
}

template <typename Predicate>
void takeBackOfPin(Checks& checks, const Predicate& isRefuted) {
  checks.amend(kPin, [&](Check& check) {
    std::erase_if(check.findings, isRefuted);
    if (check.findings.empty()) check.evidence = "the card accepts the PIN";
  });
}

/// What the flags have said of a PIN that the card has accepted since is not so.
void takeBackPin(Checks& checks) {
  takeBackOfPin(checks, [](const Finding& finding) {
    return finding.id == kPinNotSet || finding.id == kPinLocked || finding.id == kPinTooLong ||
           finding.id == kPinPad;
  });
}

/// A PIN that was accepted has all its tries again, where the flags say so; how many were left is no matter.
void takeBackTries(const CardReport& after, Checks& checks) {
  const auto isUnread = [](const Finding& finding) { return isUnreadToken(finding.id); };
  if (std::any_of(after.findings.begin(), after.findings.end(), isUnread)) return;
  const auto isOfTries = [](const Finding& finding) {
    return finding.id == kPinLastTry || finding.id == kPinTriesFewer;
  };
  const bool someAreGone = std::any_of(after.findings.begin(), after.findings.end(), isOfTries);
  takeBackOfPin(checks, [&](const Finding& finding) {
    if (finding.id == kPinCountUnknown) return !someAreGone;
    return isOfTries(finding) && !sameIn(after.findings, finding);
  });
  checks.amend(kPin, [&](Check& check) {
    for (Finding& finding : check.findings) {
      if (isOfTries(finding))
        finding.evidence += ", also after the login; the module may not have asked the card again";
    }
  });
}

/// After the login more of the card shows: what was said before is told as it is known then, or taken back.
/// `ioMore`: the findings that were not there before; those about objects leave it for the places of others.
void correctObjects(const CardReport& after, std::vector<Finding>& ioMore, Checks& checks) {
  if (!after.loggedIn || !after.failedRead.empty() || !after.failedPrivateRead.empty()) return;
  const auto correct = [&](std::vector<Finding>& findings) {
    std::vector<Finding> known;
    for (const Finding& finding : findings) {
      const Finding* same = sameIn(after.findings, finding);
      if (same) known.push_back(*same);
    }
    const bool isRefuted = known.size() < findings.size();
    findings = std::move(known);
    return isRefuted;
  };
  checks.amend(kKeys, [&](Check& check) {
    (void)correct(check.findings);  // what else shows stands in the check of the private keys
    check.evidence = textOf(after.keys);
  });
  checks.amend(kObjects, [&](Check& check) {
    std::vector<Finding>& findings = check.findings;
    if (!correct(findings)) return;
    const auto others = std::stable_partition(ioMore.begin(), ioMore.end(),
                                              [](const Finding& finding) { return !isOf('C', finding); });
    findings.insert(findings.end(), others, ioMore.end());
    ioMore.erase(others, ioMore.end());
  });
}

void tryKeys(Host& host, const InsertedCard& card, const CardReport& report, PinSource& pins,
             Checks& checks) {
  const auto client = host.newClient(card);
  if (!client) {
    (void)checkLogin(client.failure(), false, report, checks);
    return skipTrials(checks, "there is no login");
  }
  NotedPins noted{pins};
  const auto accepted = (*client)->logIn(noted);
  // Somebody else's login serves the keys as well, where a session shows it.
  std::optional<CardReport> byOther;
  if (!accepted && accepted.failure().result == CKR_USER_ALREADY_LOGGED_IN)
    byOther = host.examine(card, true);
  if (byOther && byOther->loggedIn) {
    missLogin(checks, accepted.failure().what + ": " + accepted.failure().why);
  } else if (checkLogin(accepted, noted.hasGiven(), report, checks)) {
    takeBackPin(checks);
    checks.start(kPrivateKeys);
  } else {
    return skipTrials(checks, "there is no login");
  }
  const CardReport after = byOther ? *std::move(byOther) : host.examine(card, true);
  if (accepted) takeBackTries(after, checks);
  std::vector<Finding> more;
  for (const Finding& finding : after.findings) {
    if (finding.severity != Severity::kOk && finding.id != kPkcs1NotTried &&
        !sameIn(report.findings, finding))
      more.push_back(finding);
  }
  const char* whyGone = judgeGone(more);
  correctObjects(after, more, checks);
  // Without a number: a trial may take findings back.
  checks.add(kPrivateKeys, "looked at once more after the login", std::move(more));
  if (whyGone) return skipTrials(checks, whyGone);
  const KeyTrial trial{**client, card, after, pins, static_cast<bool>(accepted)};
  mirel::tryKeys(trial, kTrials[0], kTrials[1], checks);
}

bool isOfGoneCard(const Failure& failure) {
  return failure.kind == FailureKind::kCardGone || failure.kind == FailureKind::kAnotherCard;
}

Finding unreadCard(const Failure& failure) {
  return {isOfGoneCard(failure) ? goneFindingOf(failure.result) : kTokenUnreadable,
          Severity::kFailure,
          {},
          failure.why};
}

/// Whether a card that says that it is not initialised was not inserted for that: nothing else is known. To
/// prepare it would empty it.
bool isUnprepared(const Failure& failure, const CardReport& report, const Checks& checks) {
  if (report.hidden || checks.has(kTooManyCards)) return false;
  return failure.result ? *failure.result == CKR_TOKEN_NOT_RECOGNIZED : report.failedRead.empty();
}

void skipAfterCard(Checks& checks, const std::string& reason) {
  for (const Checkpoint& point : {kPin, kObjects, kKeys}) checks.skip(point, reason);
  skipLogin(checks, reason);
}

}  // namespace

void skipCardChecks(Checks& checks, const std::string& reason) {
  checks.skip(kCardCheck, reason);
  skipAfterCard(checks, reason);
}

void checkCard(Host& host, const Reader& reader, const PinsForReader& pins, const std::string& whyNotAsWanted,
               const CardListener& onCard, Checks& checks) {
  // Why a card cannot be read; a reader that is not found by its name can be told of the last as well.
  constexpr std::array kReasons{kCardMute, kCardHeldByAnother, kCardNotRecognised, kTokenUnreadable,
                                kReaderNameNotAscii};
  const std::string subject = "reader \"" + displayed(reader.name) + "\"";
  if (reader.unreadable) {
    const Finding* told = checks.findingAbout(subject, std::span{kReasons}.first(kReasons.size() - 1));
    const std::string& why = reader.unreadable->why;
    if (told) {
      checks.skip(kCardCheck, std::string{entryOf(told->id).title});
    } else {
      checks.add(kCardCheck, why, {unreadCard(*reader.unreadable)});
    }
    return skipAfterCard(checks, "the card cannot be read");
  }
  checks.start(kCardCheck);
  const auto card = host.insert(reader);
  if (!card) {
    const std::string& why = card.failure().why;
    if (isOfGoneCard(card.failure())) {
      const Finding gone = unreadCard(card.failure());
      checks.add(kCardCheck, why, {gone});
      return skipAfterCard(checks, endingText(gone.id));
    }
    const CardReport report = host.examine(reader);
    if (!reader.tokenInitialised && isUnprepared(card.failure(), report, checks)) {
      checks.add(kCardCheck, why, {{kTokenNotInitialised, Severity::kFailure, {}, why}});
      return skipAfterCard(checks, "the card is not initialised");
    }
    std::vector<Finding> findings = findingsOf('T', report);
    std::erase_if(findings, [](const Finding& finding) { return finding.id == kTokenNotInitialised; });
    (void)judgeGone(findings);  // then that is told already
    // An object that hides the card is told with the objects, and a reader that cannot be used with those.
    if (worstOf(findings) != Severity::kFailure && !report.hidden &&
        !checks.findingAbout(subject, kReasons) && !checks.has(kTooManyCards)) {
      findings.insert(findings.begin(), unreadCard(card.failure()));
    }
    if (findings.empty()) {
      checks.add(kCardCheck, Severity::kFailure, why);
    } else {
      checks.add(kCardCheck, why, std::move(findings));
    }
    checkPin(host, reader, report, checks);
    addReport(report, 0, false, checks);
    return skipLogin(checks, "the card is not published");
  }
  checks.start(kObjects);
  const CardReport report = host.examine(*card);
  if (onCard) onCard(*card, report);
  std::string about{"\""};
  about.append(displayed(reader.tokenLabel))
      .append("\", serial number ")
      .append(displayed(reader.serialNumber));
  std::vector<Finding> findings = findingsOf('T', report);
  const char* whyGone = judgeGone(findings);
  checks.add(kCardCheck, about, std::move(findings));
  checkPin(host, card->reader, report, checks);
  const auto source = pins ? pins(host, card->reader) : nullptr;
  addReport(report, distinctItems(card->items).size(), source != nullptr, checks);
  if (whyGone) return skipLogin(checks, whyGone);
  if (!source && whyNotAsWanted.empty()) return skipLogin(checks, "no login was asked for");
  if (!source) {
    missLogin(checks, whyNotAsWanted);
    return skipTrials(checks, whyNotAsWanted);
  }
  tryKeys(host, *card, report, *source, checks);
}

}  // namespace mirel
