#include "host/Doctor.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>
#include <string_view>
#include <utility>

#include "ReaderFindings.h"
#include "doctor/CallClock.h"
#include "doctor/CardChecks.h"
#include "doctor/Checks.h"
#include "doctor/ModuleChecks.h"
#include "doctor/SystemChecks.h"
#include "host/Display.h"
#include "platform/Log.h"

namespace mirel {
namespace {

std::string secondsOf(CallClock::Clock::duration time) {
  std::array<char, 32> text{};
  (void)std::snprintf(text.data(), text.size(), "%.3f s", std::chrono::duration<double>{time}.count());
  return text.data();
}

void checkTimes(const CallClock& first, const CallClock& second, std::chrono::milliseconds slow,
                Checks& checks) {
  constexpr Checkpoint kTimes{"time of the calls", Station::kModule};
  auto longest = first.longest();
  for (const auto& [function, time] : second.longest()) {
    auto& known = longest[function];
    known = std::max(known, time);
  }
  if (longest.empty()) return checks.skip(kTimes, "the module was not called");
  std::vector<Finding> findings;
  for (const auto& [function, time] : longest) {
    if (time > slow)
      findings.push_back(
          {FindingID::kModuleSlow, Severity::kWarning, std::string{function}, "it took " + secondsOf(time)});
  }
  const auto worst = std::max_element(longest.begin(), longest.end(),
                                      [](const auto& a, const auto& b) { return a.second < b.second; });
  checks.add(kTimes,
             std::to_string(first.numCalls() + second.numCalls()) + " calls, the longest was " +
                 std::string{worst->first} + " with " + secondsOf(worst->second),
             std::move(findings));
}

/// The readers to look at; fails where the name fits none.
Result<std::vector<Reader>> chosenOf(const std::vector<Reader>& slots, const Text& name, Host& host) {
  if (!name.isNull()) return host.readers(name);
  std::vector<Reader> withCard;
  for (const Reader& slot : slots) {
    // Of two with one name the token finds the first.
    if (slot.hasToken && (slot.unreadable || !slot.distinctName.isNull())) withCard.push_back(slot);
  }
  return withCard;
}

/// A token that nobody has prepared is worth a word only where there is no other.
bool isSpare(const Reader& reader, const std::vector<Reader>& all) {
  const bool another =
      std::any_of(all.begin(), all.end(), [](const Reader& other) { return other.tokenInitialised; });
  return !reader.tokenInitialised && !reader.unreadable && another;
}

void checkCards(Host& host, const std::vector<Reader>& slots, const Examination& wanted, Checks& checks) {
  const auto chosen = chosenOf(slots, wanted.reader, host);
  if (!chosen) {
    const Failure& failure = chosen.failure();
    checks.add(kCardCheck, Severity::kFailure, failure.what + ": " + failure.why);
    return;
  }
  if (chosen->empty()) return skipCardChecks(checks, "the module shows no card");
  std::size_t numCards = 0;
  for (const Reader& reader : *chosen) numCards += isSpare(reader, *chosen) ? 0 : 1;
  const bool login = wanted.pins && numCards == 1;
  const std::string whyNotAsWanted =
      wanted.pins && !login ? "there are several cards, and no reader was named" : "";
  for (const Reader& reader : *chosen) {
    checks.turnTo(displayed(reader.name));
    if (isSpare(reader, *chosen)) {
      checks.skip(kCardCheck, "it is not initialised");
    } else {
      checkCard(host, reader, login ? wanted.pins : PinsForReader{}, whyNotAsWanted, wanted.onCard, checks);
    }
  }
  checks.turnTo({});
}

/// A card service that has stopped meanwhile is the reason why a card of its readers was lost. `before`: what
/// it told at first.
void blameService(const PlatformServices& services, const CardServiceView& before,
                  const std::vector<Reader>& slots, Checks& checks) {
  using enum FindingID;
  if (before.state != CardServiceView::State::kAnswers) return;
  constexpr std::array kLosses{kCardWentAway, kTokenUnreadable, kObjectUnread, kTrialDisturbed, kLoginFails};
  if (std::none_of(kLosses.begin(), kLosses.end(), [&](FindingID id) { return checks.has(id); })) return;
  const CardServiceView view = viewOf(services.cardService);
  if (view.state != CardServiceView::State::kSilent) return;
  std::set<std::string> readers;
  for (const Reader& slot : slots) {
    const bool isOfService =
        std::any_of(before.readers.begin(), before.readers.end(), [&](const ServiceReader& reader) {
          return nameOf(reader) == slot.name || isLongerNameOf(reader, slot.name, before);
        });
    if (isOfService) readers.insert(displayed(slot.name));
  }
  checks.replace(kLosses, readers,
                 {kCardServiceSilent,
                  Severity::kFailure,
                  {},
                  "it answered at first; now " + printableLine(view.evidence)});
}

/// The readers of the cards that were looked at.
std::set<std::string> cardReadersOf(const std::vector<Check>& checks) {
  std::set<std::string> readers;
  for (const Check& check : checks) {
    if (!check.reader.empty() && check.severity != Severity::kSkipped) readers.insert(check.reader);
  }
  return readers;
}

/// Whether it does not tell which card it is about, and is about one alone.
bool isOfOneCard(const Finding& finding) {
  const bool isOfCard = std::string_view{"TCKP"}.find(entryOf(finding.id).code[3]) != std::string_view::npos;
  const bool isOfAll = finding.id == FindingID::kModuleEnded || finding.id == FindingID::kLoginNotMade;
  return isOfCard && !isOfAll && !finding.subject.starts_with("reader");
}

}  // namespace

std::vector<Finding> Diagnosis::findings() const {
  std::vector<Finding> all;
  const bool hasSeveralCards = cardReadersOf(checks).size() > 1;
  for (const Check& check : checks) {
    for (Finding finding : check.findings) {
      if (hasSeveralCards && !check.reader.empty() && isOfOneCard(finding))
        finding.subject += (finding.subject.empty() ? "reader \"" : ", reader \"") + check.reader + "\"";
      const auto known = std::find_if(all.begin(), all.end(), [&](const Finding& other) {
        return other.id == finding.id && other.subject == finding.subject &&
               other.evidence == finding.evidence;
      });
      if (known == all.end()) {
        all.push_back(finding);
      } else if (isWorse(finding.severity, known->severity)) {
        known->severity = finding.severity;
      }
    }
  }
  return all;
}

Severity Diagnosis::verdict() const {
  Severity verdict = Severity::kOk;
  for (const Check& check : checks) {
    if (check.severity == Severity::kFailure) return Severity::kFailure;
    if (check.severity == Severity::kWarning) verdict = Severity::kWarning;
  }
  return verdict;
}

Diagnosis diagnose(PlatformServices services, const Examination& given) {
  Checks checks{given};
  SystemExpectation expected{.app = given.app};
  Examination wanted = given;
  wanted.onCard = [&](const InsertedCard& card, const CardReport& report) {
    expect(expected, card);
    if (given.onCard) given.onCard(card, report);
  };
  services.timeAndChance = givenOrSystem(services.timeAndChance);
  const auto calls =
      std::make_shared<CallClock>(std::exchange(services.observer, nullptr), services.timeAndChance);
  const auto looks = std::make_shared<CallClock>(std::exchange(services.inspectionObserver, nullptr),
                                                 services.timeAndChance);
  services.observer = calls;
  services.inspectionObserver = looks;

  std::string reason;
  const auto slots = checkModule(services, wanted.module, checks, reason);
  const CardServiceView serviceAtFirst = checkReaders(services, slots, checks);
  if (slots) {
    Host host{services, wanted.module.path.value_or(std::string{})};
    checkCards(host, *slots, wanted, checks);
    blameService(services, serviceAtFirst, *slots, checks);
  } else {
    checks.skip({"readers", Station::kReaders}, reason);
    skipCardChecks(checks, reason);
  }
  if (wanted.systemTools) {
    expected.module = checks.module().path;
    checkSystem(*wanted.systemTools, expected, checks);
  }
  checkTimes(*calls, *looks, wanted.slowCall, checks);
  return std::move(checks).diagnosis();
}

}  // namespace mirel
