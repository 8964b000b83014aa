#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <utility>

#include "CardFindings.h"
#include "CardInspector.h"
#include "CardLeaving.h"
#include "CardWatch.h"
#include "CodeMeaning.h"
#include "EnumerationFailure.h"
#include "FailureDiary.h"
#include "FixedText.h"
#include "NameList.h"
#include "TokenFindings.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "host/DistinctItems.h"
#include "host/Host.h"
#include "host/KeyChoice.h"
#include "platform/TimeAndChance.h"

namespace mirel {
namespace {

static_assert(kMaxPinLen == 8, "the texts name the number");
constexpr const char* kNotInitialised = "the card is not initialised: prepare it with its maker's tool first";

constexpr const char* kAnotherCard = "the reader holds another card than before";
constexpr const char* kLessThanBefore =
    "label or serial number are empty now: it is another card, or the module cannot read it now";

std::string subjectOf(const Reader& reader) { return "reader \"" + displayed(reader.name) + "\""; }

std::string bytesOf(const Bytes& data) { return {data.view().begin(), data.view().end()}; }

/// What the items of a card show of its objects.
class PublishedNames {
 public:
  explicit PublishedNames(const InsertedCard& card) {
    for (const auto& [item, count] : distinctItems(card.items)) {
      if (const auto* key = std::get_if<PublishedKey>(item)) {
        keys_.emplace(key->objectID.units());
      } else {
        const auto& certificate = std::get<PublishedCertificate>(*item);
        certificates_.emplace(certificate.objectID.units(), bytesOf(certificate.data));
        names_.emplace(certificate.objectID.units());
      }
    }
  }

  /// Whether an item may be about the object, be it with another content.
  [[nodiscard]] bool mayShow(const CardObject& object) const {
    const UnpublishedObject& about = object.about;
    return about.kind == "public key" ? keys_.contains(about.id.units()) : mayShowCertificate(about);
  }
  [[nodiscard]] bool mayShowCertificate(const UnpublishedObject& about) const {
    return names_.contains(certificateNameOf(about.label, about.id).units());
  }

  /// `uncertain`: the second look has missed something.
  [[nodiscard]] bool show(const CardObject& object, bool uncertain) const {
    const UnpublishedObject& about = object.about;
    // That something could not be read is told all the same.
    if (about.unread || about.id.isNull()) return false;
    if (about.kind == "public key") {
      // Another key may have the same ID, and this one be left out for a reason of its own.
      return (uncertain || object.byAbsence) && keys_.contains(about.id.units());
    }
    const Text name = certificateNameOf(about.label, about.id);
    return certificates_.contains({std::u16string{name.units()}, bytesOf(object.data)});
  }

 private:
  std::set<std::u16string, std::less<>> keys_;
  std::set<std::pair<std::u16string, std::string>> certificates_;
  std::set<std::u16string, std::less<>> names_;  // of the certificates
};

void collectUnpublished(const CardContents& contents,
                        const std::function<bool(const CardObject&)>& isPublished, CardReport& report) {
  for (const auto* objects : {&contents.publicKeys, &contents.certificates}) {
    for (const CardObject& object : *objects) {
      if (!object.about.reason.empty() && !isPublished(object)) report.unpublished.push_back(object.about);
    }
  }
}

/// A key whose certificate or public key is another one than was published, or gone.
struct ChangedKey {
  const PublishedKey& key;
  const char* evidence;
  bool isLess;  ///< the module lists less than before; else something else
};

std::vector<ChangedKey> changedKeys(const InsertedCard& card, const std::vector<PublishedKey>& keys,
                                    const CardContents& contents) {
  std::vector<ChangedKey> changed;
  if (!contents.failedRead.empty() || contents.morePublicKeys || contents.moreCertificates) return changed;
  std::multimap<std::u16string, const CardObject*, std::less<>> certificates;
  for (const CardObject& object : contents.certificates) {
    certificates.emplace(certificateNameOf(object.about.label, object.about.id).units(), &object);
  }
  std::set<std::u16string, std::less<>> publicKeys;
  for (const CardObject& object : contents.publicKeys) publicKeys.emplace(object.about.id.units());
  for (const PublishedKey& key : keys) {
    const auto [first, last] = certificates.equal_range(key.certificateID.units());
    const PublishedCertificate* published = certificateOf(card, key);
    const auto isTheSame = [&](const auto& named) {
      return bytesOf(named.second->data).starts_with(bytesOf(published->data));
    };
    if (published && std::none_of(first, last, isTheSame)) {
      const bool isLess = first == last;
      changed.push_back(
          {key, isLess ? "its certificate is not on the card any more" : "its certificate is another one now",
           isLess});
    } else if (!publicKeys.contains(key.objectID.units())) {
      changed.push_back({key, "its public key is not on the card any more", true});
    }
  }
  return changed;
}

/// Tells of objects that nothing speaks against, and that are not published all the same: the token looks for
/// those alone that the module says are on the card. A certificate whose key alone is left out was told of as
/// that key.
void explainUnlisted(const PublishedNames& published, CardContents& contents) {
  std::set<std::vector<CK_BYTE>> told;
  std::set<std::vector<CK_BYTE>> keysOfUnknownKind;
  for (const CardObject& certificate : contents.certificates) {
    if (certificate.about.kind == "public key" && published.mayShowCertificate(certificate.about))
      keysOfUnknownKind.insert(certificate.id);
  }
  for (auto* objects : {&contents.publicKeys, &contents.certificates}) {
    for (CardObject& object : *objects) {
      const bool isToldAsKey = objects == &contents.certificates && object.about.kind == "public key";
      const bool isExplained = isToldAsKey ? published.mayShowCertificate(object.about)
                                           : !isPublishable(object) || published.mayShow(object) ||
                                                 keysOfUnknownKind.contains(object.id);
      if (isExplained) continue;
      if (isToldAsKey) object.about.kind = "certificate";
      object.about.reason =
          "the token does not list it: perhaps CKA_TOKEN is not true of it, or of the other object with its "
          "ID, or it was written after the card was inserted";
      object.about.cause = FindingID::kObjectLeftOut;
      object.about.byPartner = !told.insert(object.id).second;  // one finding for the two
    }
  }
}

/// The keys that only the objects that hide the card keep from being published.
void collectLostKeys(const CardContents& contents, CardReport& report) {
  for (const CardObject& key : contents.publicKeys) {
    if (!isPublishable(key)) continue;
    KeyReport& lost = report.keys.emplace_back();
    lost.objectID = key.about.id;
    lost.labelOnCard = key.about.label;
    lost.works = "nothing: the whole card is hidden";
    lost.worksForNothing = true;
  }
}

std::string lostKeysText(const CardReport& report) {
  const bool allRead = report.failedRead.empty();
  if (report.keys.empty())
    return allRead ? "no good key is lost by it"
                   : "what is lost by it cannot be told now, " + report.failedRead;
  NameList list;
  for (const KeyReport& key : report.keys) {
    if (list.takesMore()) list.add(subjectOf("", key.objectID, key.labelOnCard).substr(1));
  }
  const std::string text = "lost by it: " + list.textOf(report.keys.size());
  return allRead ? text : text + "; what else cannot be told now, " + report.failedRead;
}

/// All objects that hide the card, and what is lost by them.
std::string culpritsText(const CardReport& report) {
  constexpr std::size_t kMostCulprits = 5;
  std::string text;
  std::size_t count = 0;
  for (const UnpublishedObject& object : report.unpublished) {
    if (!object.blocksCard || ++count > kMostCulprits) continue;
    text += subjectOf(object.kind, object.id, object.label) + ": " + object.reason + "; ";
  }
  if (count > kMostCulprits) text += "and " + std::to_string(count - kMostCulprits) + " more objects; ";
  return text + lostKeysText(report);
}

std::string otherUnreadText(const Reader& reader, const std::vector<Reader>& all) {
  const auto other = std::find_if(all.begin(), all.end(), [&](const Reader& one) {
    return one.slotID != reader.slotID && one.unreadable;
  });
  return other == all.end() ? std::string{} : other->unreadable->what + ": " + other->unreadable->why;
}

void copyLook(const CardContents& contents, CardReport& report) {
  report.failedRead = contents.failedRead;
  report.failedPrivateRead = contents.failedPrivateRead;
  report.loggedIn = contents.loggedIn;
}

}  // namespace

Result<PinState> Host::pinState(const Reader& reader) {
  using enum PinState::Tries;
  CK_TOKEN_INFO token{};
  if (const CK_RV rv = bridge_->inspectToken(reader.slotID, token); rv != CKR_OK) {
    const FailedCall cause{"C_GetTokenInfo", rv};
    Failure failure = failureBecauseOf(cause, "the PIN was not sent to the card", FailureKind::kCardRefuses);
    if (failure.kind != FailureKind::kCardGone) failure.why = answerText(cause);
    return failure;
  }
  const auto same = reader.unreadable ? Result<void>{}
                                      : checkSame(reader, trimmed(token.label), trimmed(token.serialNumber));
  if (!same) return same.failure();
  const auto isSet = [&](CK_FLAGS flag) { return (token.flags & flag) != 0; };
  PinState state{kNoWord, isSet(CKF_PROTECTED_AUTHENTICATION_PATH), {}, {}};
  if (isSet(CKF_USER_PIN_LOCKED)) {
    state.tries = kNone;
    state.text = entryOf(FindingID::kPinLocked).title;
  } else if (isSet(CKF_USER_PIN_FINAL_TRY)) {
    state.tries = kLast;
    state.text = entryOf(FindingID::kPinLastTry).title;
  } else if (isSet(CKF_USER_PIN_COUNT_LOW)) {
    state.tries = kFewer;
    state.text = entryOf(FindingID::kPinTriesFewer).title;
  } else if (isSet(CKF_USER_PIN_TO_BE_CHANGED)) {
    state.text = entryOf(FindingID::kPinToBeChanged).title;
  }
  // A module that does not know the length says 0 or "unavailable".
  const bool saysLength =
      token.ulMinPinLen != CK_UNAVAILABLE_INFORMATION && token.ulMinPinLen != CK_EFFECTIVELY_INFINITE;
  if (state.enteredAtReader) {
    state.obstacle = "the card takes it from the keys of the reader";
  } else if (saysLength && token.ulMinPinLen > kMaxPinLen) {
    state.obstacle = "it has " + std::to_string(token.ulMinPinLen) +
                     " characters at least, and 8 are the most that is sent";
  }
  return state;
}

std::optional<std::uint64_t> Host::triesLeft(const Reader& reader) {
  CK_SESSION_HANDLE session = 0;
  if (bridge_->openInspection(reader.slotID, session) != CKR_OK) return std::nullopt;
  CK_SESSION_INFO info{};
  const CK_RV rv = bridge_->inspectSession(session, info);
  bridge_->closeInspection(session);
  return rv == CKR_OK ? std::optional<std::uint64_t>{info.ulDeviceError} : std::nullopt;
}

Failure Host::listingFailure(const Reader& reader, const std::optional<FailedCall>& cause) {
  const CardReport report = examine(reader);
  if (report.hidden) {
    const bool several = std::count_if(report.unpublished.begin(), report.unpublished.end(),
                                       [](const UnpublishedObject& object) { return object.blocksCard; }) > 1;
    return enumerationFailure(reader, culpritsText(report),
                              several ? "have the card's issuer mend or remove those objects"
                                      : "have the card's issuer mend or remove that object");
  }
  const bool failedAnew =
      !report.failedRead.empty() &&
      !(cause && report.failedRead.find(cryptokiResultText(cause->result)) != std::string::npos);
  // To prepare a card empties it, so that is said only where nothing else is known to be wrong.
  const bool bare = !reader.tokenInitialised && !reader.unreadable && !failedAnew;
  if (bare && (!cause || cause->result == CKR_TOKEN_NOT_RECOGNIZED)) {
    Failure unprepared = enumerationFailure(reader, cause ? answerText(*cause) : "the module gives no reason",
                                            kNotInitialised);
    if (cause) unprepared.result = cause->result;
    return unprepared;
  }
  Failure failure = cause ? enumerationFailure(reader, *cause)
                          : enumerationFailure(reader, "the module gives no reason", UserStep::kSeeLog);
  // That a card which is gone cannot be read either goes without saying.
  if (failedAnew && failure.kind != FailureKind::kCardGone)
    failure.why += "; whether an object is the reason cannot be told now, " + report.failedRead;
  return failure;
}

std::vector<Finding> Host::tokenFindings(const Reader& reader, const Text& instanceID) {
  const std::string subject = subjectOf(reader);
  std::vector<Finding> findings = sharedInstanceFindings(reader, instanceID, lastFound_);
  CK_TOKEN_INFO token{};
  if (const CK_RV rv = bridge_->inspectToken(reader.slotID, token); rv != CKR_OK) {
    const FailedCall cause{"C_GetTokenInfo", rv};
    const bool isGone = meaningOf(cause.name, cause.result).kind == FailureKind::kCardGone;
    // It may be the other card by now.
    if (isGone) findings.clear();
    findings.push_back({isGone ? goneFindingOf(cause.result) : FindingID::kTokenUnreadable,
                        Severity::kUnknown, subject, reasonText(cause)});
    return findings;
  }
  const Text label = trimmed(token.label);
  const Text serialNumber = trimmed(token.serialNumber);
  if (!reader.unreadable && tellsLess(reader, label, serialNumber))
    return {{FindingID::kTokenUnreadable, Severity::kUnknown, subject, kLessThanBefore}};
  const bool isAnother =
      !reader.unreadable && !(label == reader.tokenLabel && serialNumber == reader.serialNumber);
  if (isAnother) return {{FindingID::kCardWentAway, Severity::kUnknown, subject, kAnotherCard}};
  if ((token.flags & CKF_TOKEN_INITIALIZED) == 0) {
    findings.push_back({FindingID::kTokenNotInitialised, Severity::kFailure, subject,
                        "the flags have no TOKEN_INITIALIZED"});
  }
  for (Finding& finding : pinFindings(token)) findings.push_back(std::move(finding));
  return findings;
}

CardContents Host::contentsOf(const Reader& reader, const std::vector<Finding>& tokenFindings,
                              bool afterLogin) {
  const auto unreadable = std::find_if(tokenFindings.begin(), tokenFindings.end(),
                                       [](const Finding& finding) { return isUnreadToken(finding.id); });
  // It is another card, or may be one, and what is on that explains nothing here.
  if (!reader.unreadable && unreadable != tokenFindings.end()) {
    CardContents nothing;
    nothing.failedRead = unreadable->evidence;
    return nothing;
  }
  return readCard(*bridge_, reader.slotID, *certificates_, afterLogin);
}

CardReport Host::examine(const InsertedCard& card, bool afterLogin) {
  CardReport report;
  const auto tokenFindings = this->tokenFindings(card.reader, card.instanceID);
  CardContents contents = contentsOf(card.reader, tokenFindings, afterLogin);
  explainUnpublished(contents);
  const std::vector<PublishedKey> keys = keysOf(card);
  auto changed = changedKeys(card, keys, contents);
  // A module may list what it has read until the card was taken out, as if that were all.
  const bool isLess =
      std::any_of(changed.begin(), changed.end(), [](const ChangedKey& one) { return one.isLess; });
  if (isLess && seesCardGo(services_.cardService.get(), card.reader.name)) {
    contents.failedRead = "the card service has seen it going, and the module lists less than before";
    contents.gone = FindingID::kCardWentAway;
    changed.clear();
  }
  copyLook(contents, report);
  report.otherUnread = otherUnreadText(card.reader, lastFound_);
  const PublishedNames published{card};
  const bool uncertain = !report.failedRead.empty();
  if (!uncertain && !card.incomplete) explainUnlisted(published, contents);
  collectUnpublished(
      contents, [&](const CardObject& object) { return published.show(object, uncertain); }, report);
  for (UnpublishedObject& object : report.unpublished) {
    // The card was inserted, so what would have kept it from that is new.
    const bool isNew = std::exchange(object.blocksCard, false) ||
                       (object.byPartner && object.cause == FindingID::kObjectHidesCard);
    if (!isNew) continue;
    object.unread = true;
    object.cause = FindingID::kObjectUnread;
  }

  CardFindings findings{contents};
  for (Finding finding : tokenFindings) {
    const bool isRefuted = finding.id == FindingID::kTokenNotInitialised && !card.items.empty();
    if (isRefuted) finding.severity = Severity::kWarning;
    findings.add(std::move(finding));
  }
  if (card.incomplete)
    findings.add({FindingID::kObjectUnread, Severity::kUnknown, "insertion", card.incomplete->why});
  findings.addUnpublished(report.unpublished);
  findings.addWhatIsNotRead(subjectOf(card.reader));
  for (const ChangedKey& one : changed) findings.addChangedKey(one.key, one.evidence);
  findings.addLonelyPrivateKeys();
  findings.addSharedIDs();
  findings.addCertificatesOfOtherKeys();
  findings.addValidity(services_.timeAndChance->date());
  findings.addKeys(keys, report);
  if (card.items.empty() && !card.incomplete) findings.addNothingPublished();
  findings.finish(report);
  return report;
}

CardReport Host::examine(const Reader& reader) {
  CardReport report;
  if (!bridge_->hasModule()) return report;
  const auto tokenFindings = this->tokenFindings(reader, reader.instanceID);
  CardContents contents = contentsOf(reader, tokenFindings, false);
  explainUnpublished(contents);
  copyLook(contents, report);
  collectUnpublished(
      contents, [](const CardObject&) { return false; }, report);
  report.hidden = std::any_of(report.unpublished.begin(), report.unpublished.end(),
                              [](const UnpublishedObject& object) { return object.blocksCard; });
  if (report.hidden) collectLostKeys(contents, report);

  CardFindings findings{contents};
  for (const Finding& finding : tokenFindings) findings.add(finding);
  findings.addUnpublished(report.unpublished);
  findings.addWhatIsNotRead(subjectOf(reader));
  findings.addLonelyPrivateKeys();
  findings.addSharedIDs();
  findings.finish(report);
  return report;
}

}  // namespace mirel
