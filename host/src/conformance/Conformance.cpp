#include "host/Conformance.h"

#include <algorithm>
#include <utility>

#include "CodeMeaning.h"
#include "conformance/KeyRules.h"
#include "conformance/ModuleRules.h"
#include "conformance/ObjectRules.h"
#include "doctor/KeyTrials.h"
#include "host/KeyChoice.h"

namespace mirel {
namespace {

using enum RuleID;

/// The reader to test; a failure where there is none. `outIsOnly`: it is named, or no other has a card that
/// is initialised.
Result<Reader> chosenReader(Host& host, const Text& name, bool& outIsOnly) {
  const auto readers = host.readers(name);
  if (!readers) return readers.failure();
  if (readers->empty()) return host.whyNoCard("there is no card to test").failure;
  // One that could not be read may be the one that is meant.
  outIsOnly = std::count_if(readers->begin(), readers->end(), [](const Reader& reader) {
                return reader.tokenInitialised || reader.unreadable;
              }) == 1;
  const auto first = std::find_if(readers->begin(), readers->end(), [](const Reader& reader) {
    return reader.tokenInitialised && !reader.distinctName.isNull();
  });
  return first == readers->end() ? readers->front() : *first;
}

/// Why a card is not published, where no rule says it.
void tellFailedInsertion(const Failure& failure, RuleResults& results) {
  const bool isTold = results.isAny(RuleVerdict::kFail) || results.isAny(RuleVerdict::kUnknown);
  if (isTold) return;
  results.set(kPublicObjects, saysNothingOfModule(failure) ? RuleVerdict::kUnknown : RuleVerdict::kFail,
              failure.what + ": " + failure.why);
}

/// The module has not said what failed: the card may be a good one that another program uses just now.
bool isUnexplained(const Failure& failure) {
  return hasAnswer(failure, {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED});
}

std::vector<std::string> signersOf(const InsertedCard& card, const CardReport& report) {
  std::vector<std::string> signers;
  const auto keys = keysOf(card);
  for (std::size_t i = 0; i < keys.size() && i < report.keys.size(); ++i) {
    if (keys[i].canSign)
      signers.push_back(subjectOf("key", report.keys[i].objectID, report.keys[i].labelOnCard));
  }
  return signers;
}

bool isSameCard(const Reader& a, const Reader& b) {
  return a.slotID == b.slotID && a.tokenLabel == b.tokenLabel && a.serialNumber == b.serialNumber;
}

/// The module is to blame for the lack of a card only where there may be none. `seen`: what its slots say.
/// `name`: the reader that was named, if one was; where that leaves the rule open, it was not reached.
void tellWhyNoCard(Host& host, const Text& name, const std::string& seen, RuleResults& results,
                   std::optional<Failure>& outNotReached) {
  const auto [failure, onlyMissing] = host.whyNoCard({});
  const bool isFailed = onlyMissing && !results.isAny(RuleVerdict::kUnknown);
  results.set(kNumTokens, isFailed ? RuleVerdict::kFail : RuleVerdict::kUnknown, seen + ": " + failure.why);
  if (name.isNull() || isFailed) return;
  const auto named = host.readers(name);
  if (!named && named.failure().kind == FailureKind::kNoCard) outNotReached = named.failure();
}

void testCard(Host& host, const P11Bridge& bridge, const Examination& wanted, RuleResults& results,
              CardAbilities& abilities, std::optional<Reader>& outCard,
              std::optional<Failure>& outNotReached) {
  bool isOnly = false;
  const auto reader = chosenReader(host, wanted.reader, isOnly);
  if (!reader) {
    // Slots with a token were there before: it is another reader that was named, or the card has gone.
    results.unknown(kNumTokens, reader.failure().what + ": " + reader.failure().why);
    if (!wanted.reader.isNull() && reader.failure().kind == FailureKind::kNoCard)
      outNotReached = reader.failure();
    return results.skipRest("no card was reached");
  }
  outCard = *reader;
  testSlotOfCard(bridge, reader->slotID, results);
  testObjects(bridge, reader->slotID, results);
  // That a card is not initialised is told of the one that would be taken.
  const bool isFound = reader->tokenInitialised || reader->unreadable || !wanted.reader.isNull();
  const auto card = isFound ? host.insert(*reader) : host.insert(wanted.reader);
  if (card && !isFound && !isSameCard(card->reader, *reader))
    return results.skipRest("another card came before the one that was tested was inserted");
  if (!card) {
    const FailureKind kind = card.failure().kind;
    const bool isGone = kind == FailureKind::kCardGone || kind == FailureKind::kAnotherCard;
    testReport({host.examine(*reader)}, results);
    tellFailedInsertion(card.failure(), results);
    const bool tellsNothing = saysNothingOfModule(card.failure()) || isUnexplained(card.failure());
    const bool isOpen = isGone || (tellsNothing && !results.isAny(RuleVerdict::kFail));
    if (!isOpen) abilities.published = false;
    const bool isEnded = card.failure().result == CKR_CRYPTOKI_NOT_INITIALIZED;
    return results.skipRest(isEnded  ? "the module was ended while it was in use"
                            : isGone ? "the card did not stay in the reader"
                            : isOpen ? "the card could not be listed"
                                     : "nothing is published");
  }
  outCard = card->reader;
  abilities.published = !card->items.empty();
  CardReport report = host.examine(*card);
  const auto pins = wanted.pins && isOnly ? wanted.pins(host, card->reader) : nullptr;
  const char* whyNotAsWanted =
      wanted.pins && !isOnly ? "there are several cards, and no reader was named" : "";
  const bool loggedIn = testKeys(host, bridge, *card, pins.get(), whyNotAsWanted, report, results, abilities);
  const std::string missed = card->incomplete ? card->incomplete->why : std::string{};
  testReport({report, *abilities.published, missed, signersOf(*card, report), loggedIn, report.otherUnread},
             results);
}

}  // namespace

RuleVerdict Conformance::verdict() const {
  const auto isAny = [this](RuleVerdict verdict) {
    return std::any_of(results.begin(), results.end(),
                       [verdict](const RuleResult& result) { return result.verdict == verdict; });
  };
  if (isAny(RuleVerdict::kFail)) return RuleVerdict::kFail;
  return isAny(RuleVerdict::kWarn) || isAny(RuleVerdict::kUnknown) ? RuleVerdict::kWarn : RuleVerdict::kPass;
}

Conformance testConformance(PlatformServices services, const Examination& wanted, RuleListener onRule) {
  RuleResults results{std::move(onRule)};
  CardAbilities abilities;
  results.skip(kRemoval, "nobody takes the card out during the test: do that by hand");
  std::optional<Reader> card;
  std::optional<Failure> notReached;
  Obstacle obstacle;
  if (const auto bridge = testModule(services, wanted.module, results, obstacle)) {
    Host host{services, wanted.module.path.value_or(std::string{})};
    testCard(host, *bridge, wanted, results, abilities, card, notReached);
  } else if (!obstacle.noCard.empty()) {
    Host host{services, wanted.module.path.value_or(std::string{})};
    tellWhyNoCard(host, wanted.reader, obstacle.noCard, results, notReached);
  } else {
    abilities.published = false;
  }
  results.skipRest(obstacle.reason);
  return {std::move(results).taken(), gradeOf(abilities), std::move(card), std::move(notReached)};
}

}  // namespace mirel
