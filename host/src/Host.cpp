#include "host/Host.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Adaptation.h"
#include "CardLeaving.h"
#include "CardWatch.h"
#include "CertificateMemory.h"
#include "CodeMeaning.h"
#include "EnumerationFailure.h"
#include "FailureDiary.h"
#include "HostToken.h"
#include "NameList.h"
#include "ReaderFinder.h"
#include "ReaderFindings.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "host/KeyClient.h"
#include "platform/CardService.h"
#include "platform/TimeAndChance.h"

namespace mirel {
namespace {

constexpr const char* kTooManyCards =
    "leave a card in 10 readers at most, in fewer where a card has several slots";
static_assert(kAnnouncedSlots == 10, "the text names the number");

std::string namesOf(const std::vector<Reader>& readers) {
  NameList list;
  for (const Reader& reader : readers) {
    if (list.takesMore()) list.add(quoted(reader.name));
  }
  return list.textOf(readers.size());
}

PublishedItem published(const TKTokenKeychainCertificate& item, HostToken&) {
  PublishedCertificate certificate;
  certificate.objectID = item.objectID;
  certificate.label = item.label;
  certificate.subject = item.certificate->subject();
  certificate.notAfter = item.certificate->notAfter();
  certificate.keyUsage = keyUsageNames(item.certificate->keyUsage().value_or(0));
  certificate.data = item.certificate->data();
  certificate.size = certificate.data.size();
  return certificate;
}

PublishedItem published(const MirelCTKTokenKeychainKey& item, HostToken& token) {
  PublishedKey key;
  key.nameInCard = token.nameInCard(item.objectID);
  key.objectID = item.objectID;
  key.label = item.label;
  key.certificateID = item.certificateID;
  key.keyType = item.certificate->keyType();
  key.keySizeInBits = item.certificate->keySizeInBits();
  key.canSign = item.canSign;
  key.canDecrypt = item.canDecrypt;
  key.canPerformKeyExchange = item.canPerformKeyExchange;
  key.suitableForLogin = item.suitableForLogin;
  key.alwaysAuthenticate = item.alwaysAuthenticate;
  for (const auto& [operation, constraint] : item.constraints) {
    key.constraints[keyOperationOf(operation)] = constraint;
  }
  return key;
}

std::vector<PublishedItem> publishedItems(HostToken& token) {
  std::vector<PublishedItem> items;
  for (const auto& item : token.contents().items()) {
    items.push_back(std::visit([&](const auto& one) { return published(one, token); }, item));
  }
  return items;
}

/// Why no reader holds a card that the module knows. A card that was put in since leaves nothing to say but
/// that there was none.
std::vector<Finding> noCardFindings(const std::vector<Reader>& all, const CardServiceView& service) {
  std::vector<Finding> findings = readerFindings(all, service);
  if (findings.empty()) findings.push_back({FindingID::kReadersEmpty, Severity::kFailure, {}, {}});
  return findings;
}

/// Why a beginning that fits the name of one reader may fit that of another; nothing where all are known.
std::optional<Failure> whyNotOnly(const std::vector<Reader>& all) {
  const auto nameless =
      std::find_if(all.begin(), all.end(), [](const Reader& slot) { return slot.slotFailure.has_value(); });
  if (nameless == all.end()) return std::nullopt;
  return Failure{nameless->unreadable->kind, "which card is meant cannot be told",
                 "the name of another reader, slot " + std::to_string(nameless->slotID) +
                     ", cannot be read: " + nameless->unreadable->why,
                 "run again, or give the whole name of the reader"};
}

/// The name that is displayed so, unless it has characters that are escaped.
Text namedAs(std::string_view displayedName) {
  return Text::fromBytes({reinterpret_cast<const std::uint8_t*>(displayedName.data()), displayedName.size()});
}

/// True when more slots hold a token than the bridge has the module list.
/// Why the card of one of them cannot be read: a card service that has stopped is the reason for it.
Failure whyUnreadable(const Reader& reader, const std::vector<Reader>& candidates,
                      const CardServiceView& service) {
  const std::vector<Finding> findings = readerFindings(candidates, service);
  const bool hasStopped = !findings.empty() && findings.front().id == FindingID::kCardServiceSilent;
  return hasStopped ? noCardFailure(reader.unreadable->what, findings) : *reader.unreadable;
}

bool tooManyCards(P11Bridge& bridge) noexcept {
  CK_ULONG numSlots = 0;
  return bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, &numSlots) == CKR_OK && numSlots > kAnnouncedSlots;
}

}  // namespace

Host::Host(PlatformServices services, std::string givenModule)
    : services_{std::move(services)},
      givenModule_{std::move(givenModule)},
      diary_{std::make_shared<FailureDiary>(services_.observer)} {
  services_.loader = loaderWithDiary(services_.loader, diary_);
  services_.observer = diary_;
  services_.timeAndChance = givenOrSystem(services_.timeAndChance);
  certificates_ = services_.certificates;
  bridge_ = std::make_unique<P11Bridge>(services_);
}

Host::~Host() = default;

Result<std::vector<Reader>> Host::readers(const Text& readerName) {
  auto found = findReaders(*bridge_, *diary_, givenModule_, true);
  lastFound_ = found ? *found : std::vector<Reader>{};
  if (readerName.isNull() || !found) return found;
  const auto named = readerNamed(readerName, NamedBy::kUser, *found);
  if (!named) return named.failure();
  return std::vector{*named};
}

Result<std::vector<Reader>> Host::slots() { return findReaders(*bridge_, *diary_, givenModule_, false); }

Result<Reader> Host::chooseReader(const Text& readerName) {
  const auto found = readers();
  if (!found) return found.failure();
  const std::vector<Reader>& candidates = *found;

  if (readerName.isNull()) {
    const auto first = std::find_if(candidates.begin(), candidates.end(), [](const Reader& reader) {
      return reader.tokenInitialised && !reader.distinctName.isNull();
    });
    const auto passedOver = std::find_if(candidates.begin(), first,
                                         [](const Reader& reader) { return reader.mayBeReadableLater; });
    if (first != candidates.end()) {
      Reader chosen = *first;
      if (passedOver != first) {
        chosen.uncertain = Failure{passedOver->unreadable->kind, "which card is meant cannot be told",
                                   passedOver->unreadable->what + ": " + passedOver->unreadable->why,
                                   UserStep::kRetryOrNameReader};
      }
      return chosen;
    }
    if (candidates.empty()) return whyNoCard("there is no card to insert").failure;
    const auto unreadable = std::find_if(candidates.begin(), candidates.end(),
                                         [](const Reader& reader) { return reader.unreadable.has_value(); });
    // Whether that card is initialised is not known.
    if (unreadable != candidates.end())
      return whyUnreadable(*unreadable, candidates, viewOf(services_.cardService));
    return Failure{FailureKind::kNoCard, "there is no card to insert",
                   "no reader holds a card that is initialised", UserStep::kInitialiseOrNameReader};
  }
  return readerNamed(readerName, NamedBy::kUser, candidates);
}

Result<Reader> Host::readerNamed(const Text& readerName, NamedBy by, const std::vector<Reader>& candidates) {
  const bool mayBeShort = by == NamedBy::kUser;
  const std::string wanted = mayBeShort ? readerName.toUtf8() : displayed(readerName);
  const std::string shownName = mayBeShort ? displayed(std::string_view{wanted}) : wanted;
  const auto isNamed = [&](const Reader& reader) {
    return reader.name == readerName || (mayBeShort && displayed(reader.name) == wanted);
  };
  const auto exact = std::find_if(candidates.begin(), candidates.end(), isNamed);
  if (exact != candidates.end()) return *exact;

  // A whole name stands for that reader alone, be it empty.
  const auto all = findReaders(*bridge_, *diary_, givenModule_, false);
  if (!all) return all.failure();
  const CardServiceView service = viewOf(services_.cardService);
  const auto listed = std::find_if(all->begin(), all->end(), isNamed);
  const Text name = listed != all->end() ? listed->name : mayBeShort ? namedAs(wanted) : readerName;
  const ServiceReader* known = readerOfService(service, name);
  std::vector<Reader> alike;
  std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(alike), [&](const Reader& reader) {
    if (readerName.isEmpty() || by == NamedBy::kModule) return false;
    if (known) return isLongerNameOf(*known, reader.name, service);
    return mayBeShort && (displayed(reader.name).starts_with(wanted) ||
                          reader.name.units().starts_with(readerName.units()));
  });
  if (listed != all->end() || (known && alike.empty())) {
    const std::vector<Finding> findings = findingsOfReader(name, *all, service);
    const FindingID first = findings.empty() ? FindingID::kReadersEmpty : findings.front().id;
    const bool isOpen = listed == all->end() && known->card == ServiceReader::Card::kUnknown;
    if (first != FindingID::kReadersEmpty && !(isOpen && first == FindingID::kReaderUnknownToModule))
      return noCardFailure("the card in reader " + quoted(shownName) + " cannot be used", findings);
    if (isOpen) {
      return Failure{
          FailureKind::kNoCard, "the reader " + quoted(shownName) + " cannot be used",
          "the module does not list it, and the card service does not tell whether it holds a card",
          "put a card into it, or unplug it and plug it in again"};
    }
    return Failure{FailureKind::kNoCard, "the reader " + quoted(shownName) + " holds no card",
                   "the module finds no token in it", "put a card into it"};
  }

  if (alike.size() == 1) {
    alike.front().uncertain = whyNotOnly(*all);
    return alike.front();
  }
  if (alike.size() > 1) {
    return Failure{FailureKind::kNoCard, "the reader name " + quoted(shownName) + " is not clear",
                   "it fits " + namesOf(alike), "give the whole name"};
  }
  const auto nameless = std::find_if(candidates.begin(), candidates.end(),
                                     [](const Reader& reader) { return reader.slotFailure.has_value(); });
  if (nameless != candidates.end()) {  // it may be the one that is meant
    Failure failure = whyUnreadable(*nameless, candidates, service);
    failure.why = failure.what + ": " + failure.why;
    failure.what = "the reader " + quoted(shownName) + " was not found";
    failure.kind = FailureKind::kNoCard;
    return failure;
  }
  const std::string what = "there is no reader " + quoted(shownName);
  if (candidates.empty()) return noCardFailure(what, noCardFindings(*all, service));
  return Failure{FailureKind::kNoCard, what, "the readers with a card are " + namesOf(candidates),
                 UserStep::kSeeReaders};
}

Host::NoCard Host::whyNoCard(std::string what) {
  const auto all = findReaders(*bridge_, *diary_, givenModule_, false);
  if (!all) return {all.failure(), false};
  const std::vector<Finding> findings = noCardFindings(*all, viewOf(services_.cardService));
  const FindingID first = findings.front().id;
  return {noCardFailure(std::move(what), findings),
          first == FindingID::kReadersEmpty || first == FindingID::kNoReader};
}

Result<InsertedCard> Host::insert(const Text& readerName) {
  const auto chosen = chooseReader(readerName);
  return chosen ? insertChosen(*chosen) : chosen.failure();
}

Result<InsertedCard> Host::insertFrom(const Text& wholeName) {
  const auto found = readers();
  if (!found) return found.failure();
  const auto chosen = readerNamed(wholeName, NamedBy::kService, *found);
  return chosen ? insertChosen(*chosen) : chosen.failure();
}

Result<InsertedCard> Host::insert(const Reader& found) {
  const auto listed = readers();
  if (!listed) return listed.failure();
  auto chosen = readerNamed(found.name, NamedBy::kModule, *listed);
  if (!chosen) {
    const Failure& failure = chosen.failure();
    if (failure.kind != FailureKind::kNoCard) return failure;
    return cardGone(found.name, failure.what + ": " + failure.why);
  }
  Reader& now = *chosen;
  now.uncertain = found.uncertain;
  if (found.unreadable) return insertChosen(now);
  if (now.unreadable) {
    // Until the token has read it, it is taken for what it was.
    const Reader seen = std::exchange(now, found);
    now.slotID = seen.slotID;
    now.distinctName = seen.distinctName;
  }
  if (const auto same = checkSame(found, now.tokenLabel, now.serialNumber); !same) return same.failure();
  return insertChosen(now);
}

Result<InsertedCard> Host::insertChosen(const Reader& reader) {
  PlatformServices services = services_;
  // For the examination of the card too, which sees the same certificates.
  services.certificates = certificates_ = parserWithMemory(services_.certificates);
  std::optional<TKError> error;
  diary_->clear();
  const auto token = HostToken::createdForReader(services, reader.distinctName, &error);
  const auto cause = diary_->cause();
  const auto failedRead = diary_->failedRead();
  if (!token && !error) {
    const char* what = "the token driver made no token of the card";
    if (cause) return failureBecauseOf(*cause, what, FailureKind::kModuleRefuses);
    return Failure{FailureKind::kModuleRefuses, what, "the module gives no function list any more",
                   UserStep::kSeeLog};
  }
  if (!token) {
    if (!cause) return enumerationFailure(reader, "its token information has no text", UserStep::kSeeLog);
    if (tooManyCards(*bridge_)) return enumerationFailure(reader, answerText(*cause), kTooManyCards);
    return enumerationFailure(reader, *cause);
  }
  if (!token->contents().filled()) return listingFailure(reader, cause);
  // A module may list what it has read until the card was taken out, as if that were all.
  const bool isEmpty = token->contents().items().empty();
  if (isEmpty && seesCardGo(services_.cardService.get(), reader.name))
    return cardSeenGoing(reader.name, "the module gave nothing that is published");
  InsertedCard card{reader, token->instanceID(), publishedItems(*token), token, std::nullopt, nullptr};
  if (failedRead) {
    card.incomplete = failureBecauseOf(*failedRead, "the objects of the card were not all read",
                                       FailureKind::kCardEnumerationFailed);
  }
  card.watch = std::make_shared<CardWatch>(token, reader);
  if (const auto same = card.watch->checkInsertion(); !same) return same.failure();
  return card;
}

Failure cardSeenGoing(const Text& reader) {
  return {FailureKind::kCardGone, "the card did not stay in the reader " + quoted(displayed(reader)),
          "the card service has seen it going, if only for a moment, or has stopped itself",
          "put that card back, leave it in, and run again"};
}

Result<void> Host::lookFor(const InsertedCard& card) {
  return card.watch ? card.watch->look(*diary_) : Result<void>{};
}

Failure Host::whyGone(const InsertedCard& card) {
  (void)lookFor(card);  // that it cannot tell is no reason
  const auto going = card.watch ? card.watch->goesOn() : Result<void>{};
  if (!going) return going.failure();
  Failure gone = cardSeenGoing(card.reader.name);
  if (card.watch) card.watch->learnFrom(gone);
  return gone;
}

Result<std::unique_ptr<KeyClient>> Host::newClient(const InsertedCard& card) {
  if (const auto going = card.watch ? card.watch->goesOn() : Result<void>{}; !going) return going.failure();
  if (card.reader.uncertain) return *card.reader.uncertain;
  std::optional<TKError> error;
  auto session = card.token->createSessionWithError(&error);
  if (!session) {
    return Failure{FailureKind::kInternal, "the token gives no session", "the host's own session refuses it",
                   UserStep::kSeeLog};
  }
  return std::make_unique<KeyClient>(card, std::move(session), diary_, services_.timeAndChance,
                                     services_.cardService);
}

}  // namespace mirel
