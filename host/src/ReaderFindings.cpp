#include "ReaderFindings.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "CodeMeaning.h"
#include "FixedText.h"
#include "bridge/CardRules.h"
#include "bridge/cryptoki.h"
#include "host/Display.h"
#include "platform/Log.h"

namespace mirel {
namespace {

using enum FindingID;
using Card = ServiceReader::Card;

constexpr const char* kCardNotKnown = "whether it holds a card is not known";
constexpr std::size_t kDescriptionSize = sizeof CK_SLOT_INFO{}.slotDescription;

std::string subjectOf(const Text& name) { return "reader \"" + displayed(name) + "\""; }

bool isAscii(const Text& text) {
  return std::all_of(text.units().begin(), text.units().end(), [](char16_t unit) { return unit < 0x80; });
}

bool isOfWord(char16_t unit) {
  return (unit >= u'0' && unit <= u'9') || (unit >= u'A' && unit <= u'Z') || (unit >= u'a' && unit <= u'z') ||
         unit >= 0x80;
}

std::string slotInfoAnswer(const Reader& slot) { return answerText({"C_GetSlotInfo", *slot.slotFailure}); }

bool showsToken(const Reader& slot) { return slot.hasToken && !slot.notRecognised; }

/// Looks at each reader once.
class ReaderExamination {
 public:
  ReaderExamination(const std::vector<Reader>& slots, const CardServiceView& service)
      : slots_{slots}, service_{service}, hasToken_{std::any_of(slots.begin(), slots.end(), &showsToken)} {}

  [[nodiscard]] std::vector<Finding> findings() && {
    if (serviceIsMissed()) add(kCardServiceSilent, {}, printableLine(service_.evidence));
    for (const ServiceReader& reader : service_.readers) lookAt(reader);
    if (found_.empty()) lookAtSilentSlots();
    if (found_.empty() && !hasToken_) nothingThere();
    found_.insert(found_.end(), unlisted_.begin(), unlisted_.end());
    lookAtNames();
    return std::move(found_);
  }

 private:
  void add(FindingID id, std::string subject, std::string evidence) {
    found_.push_back(
        {id, hasToken_ ? Severity::kWarning : Severity::kFailure, std::move(subject), std::move(evidence)});
  }

  /// A module that shows slots has them from somewhere, so it does without the service.
  [[nodiscard]] bool serviceIsMissed() const {
    if (service_.state != CardServiceView::State::kSilent || hasToken_) return false;
    return slots_.empty() || firstFailingSlot() != nullptr;
  }

  [[nodiscard]] const Reader* firstFailingSlot() const {
    const auto found = std::find_if(slots_.begin(), slots_.end(),
                                    [](const Reader& slot) { return slot.slotFailure.has_value(); });
    return found == slots_.end() ? nullptr : &*found;
  }

  [[nodiscard]] const Reader* slotOf(const ServiceReader& reader) const {
    const Text name = nameOf(reader);
    const Reader* first = nullptr;
    for (const Reader& slot : slots_) {
      if (slot.slotFailure || !(slot.name == name)) continue;
      if (showsToken(slot)) return &slot;
      if (!first) first = &slot;
    }
    return first;
  }

  [[nodiscard]] bool moduleListsAnotherReader() const {
    return std::any_of(service_.readers.begin(), service_.readers.end(),
                       [&](const ServiceReader& reader) { return slotOf(reader) != nullptr; });
  }

  /// A card in a slot that bears no name of the service's readers may be the card of any of them.
  [[nodiscard]] bool moduleListsACardElsewhere() const {
    return std::any_of(slots_.begin(), slots_.end(), [&](const Reader& slot) {
      return showsToken(slot) && !slot.slotFailure && !readerOfService(service_, slot.name);
    });
  }

  [[nodiscard]] static FindingID causeOf(const Reader& failing) {
    return *failing.slotFailure == CKR_DEVICE_ERROR ? kCardHeldByAnother : kTokenUnreadable;
  }

  void lookAt(const ServiceReader& reader) {
    const Reader* slot = slotOf(reader);
    if (slot && showsToken(*slot)) return;
    const std::string subject = subjectOf(nameOf(reader));
    const Reader* failing = slot ? nullptr : firstFailingSlot();  // which has no name
    const std::string atr = reader.atr.empty() ? "the card service tells no ATR" : "ATR " + reader.atr;
    if (reader.card == Card::kMute) return add(kCardMute, subject, "the card service finds the card mute");
    if (reader.exclusive) return add(kCardHeldByAnother, subject, atr + ", in exclusive use");
    if (failing && reader.card == Card::kPresent)
      return add(causeOf(*failing), subject, slotInfoAnswer(*failing) + ", " + atr);
    if (!slot && reader.card == Card::kPresent && moduleListsACardElsewhere()) return;
    if (!slot && moduleListsAnotherReader()) {
      if (reader.card == Card::kPresent)
        return add(kReaderUnknownToModule, subject, "it holds a card, " + atr);
      return unlisted_.push_back({kReaderUnknownToModule, Severity::kWarning, subject,
                                  reader.card == Card::kNone ? "it holds no card" : kCardNotKnown});
    }
    if (reader.card == Card::kPresent) add(kCardNotRecognised, subject, atr);
  }

  /// Those that the service says nothing about.
  void lookAtSilentSlots() {
    for (const Reader& slot : slots_) {
      if (slot.notRecognised) add(kCardNotRecognised, subjectOf(slot.name), slot.unreadable->why);
      if (!slot.slotFailure) continue;
      const std::string subject = "slot " + std::to_string(slot.slotID);
      add(causeOf(slot), subject, slotInfoAnswer(slot));
    }
  }

  void nothingThere() {
    const bool answers = service_.state == CardServiceView::State::kAnswers;
    if (answers ? service_.readers.empty() : slots_.empty()) {
      return add(kNoReader, {},
                 answers
                     ? "the card service knows no reader, the module lists " + std::to_string(slots_.size()) +
                           (slots_.size() == 1 ? " empty slot" : " empty slots")
                     : "the module lists no slot");
    }
    if (answers && numEmptyReaders() == 0) {
      for (const ServiceReader& reader : service_.readers)
        add(kReaderUnknownToModule, subjectOf(nameOf(reader)), kCardNotKnown);
      return;
    }
    add(kReadersEmpty, {}, answers ? emptinessText() : std::to_string(slots_.size()) + " without a card");
  }

  /// What the service says is empty, or the module where the service cannot tell; of others nothing is known.
  [[nodiscard]] std::ptrdiff_t numEmptyReaders() const {
    const auto& readers = service_.readers;
    return std::count_if(readers.begin(), readers.end(), [&](const ServiceReader& reader) {
      return reader.card == Card::kNone || slotOf(reader) != nullptr;
    });
  }

  [[nodiscard]] std::string emptinessText() const {
    const auto numEmpty = numEmptyReaders();
    const auto numOthers = static_cast<std::ptrdiff_t>(service_.readers.size()) - numEmpty;
    std::string text = std::to_string(numEmpty) + " without a card";
    if (numOthers > 0) text.append(", ").append(std::to_string(numOthers)).append(" not known");
    return text;
  }

  void lookAtNames() {
    for (const Reader& slot : slots_) {
      if (!slot.hasToken || slot.slotFailure) continue;
      if (slot.distinctName.isNull())
        found_.push_back({kReaderNamesAlike, Severity::kWarning, subjectOf(slot.name),
                          "slot " + std::to_string(slot.slotID)});
      if (!isAscii(slot.name))
        found_.push_back({kReaderNameNotAscii, Severity::kFailure, subjectOf(slot.name),
                          "slot " + std::to_string(slot.slotID)});
    }
    const auto numTokens =
        std::count_if(slots_.begin(), slots_.end(), [](const Reader& slot) { return slot.hasToken; });
    if (static_cast<std::size_t>(numTokens) > kAnnouncedSlots)
      found_.push_back({kTooManyCards, Severity::kFailure, {}, std::to_string(numTokens) + " slots"});
  }

  const std::vector<Reader>& slots_;
  const CardServiceView& service_;
  bool hasToken_;
  std::vector<Finding> found_;
  std::vector<Finding> unlisted_;  ///< about readers in which no card is known to be
};

}  // namespace

Text nameOf(const ServiceReader& reader) {
  const std::string name = reader.name.substr(0, kDescriptionSize);
  return trimmed({reinterpret_cast<const CK_UTF8CHAR*>(name.data()), name.size()});
}

std::vector<Finding> readerFindings(const std::vector<Reader>& slots, const CardServiceView& service) {
  return ReaderExamination{slots, service}.findings();
}

std::vector<Finding> findingsOfReader(const Text& name, const std::vector<Reader>& slots,
                                      const CardServiceView& service) {
  std::vector<Reader> itsSlots;
  std::copy_if(slots.begin(), slots.end(), std::back_inserter(itsSlots),
               [&](const Reader& slot) { return slot.slotFailure || slot.name == name; });
  CardServiceView itself{service.state, service.evidence, {}};
  std::copy_if(service.readers.begin(), service.readers.end(), std::back_inserter(itself.readers),
               [&](const ServiceReader& reader) { return nameOf(reader) == name; });
  // A service that has not heard of the reader says nothing about it.
  if (itself.readers.empty()) itself.state = CardServiceView::State::kNotThere;
  return readerFindings(itsSlots, itself);
}

const ServiceReader* readerOfService(const CardServiceView& service, const Text& name) {
  const auto found = std::find_if(service.readers.begin(), service.readers.end(),
                                  [&](const ServiceReader& reader) { return nameOf(reader) == name; });
  return found == service.readers.end() ? nullptr : &*found;
}

bool isLongerNameOf(const ServiceReader& reader, const Text& name, const CardServiceView& service) {
  const Text shorter = nameOf(reader);
  const auto isBeginning = [&](const Text& beginning) {
    return !beginning.isEmpty() && name.units().starts_with(beginning.units());
  };
  if (!isBeginning(shorter) || name == shorter || isOfWord(name.units()[shorter.units().size()]))
    return false;
  return std::none_of(service.readers.begin(), service.readers.end(), [&](const ServiceReader& other) {
    const Text otherName = nameOf(other);
    return otherName.units().size() > shorter.units().size() && isBeginning(otherName);
  });
}

CardServiceView viewOf(const std::shared_ptr<CardService>& service) {
  return service ? service->look() : CardServiceView{};
}

Failure noCardFailure(std::string what, const std::vector<Finding>& findings) {
  const Finding& first = findings.front();
  const FindingEntry& entry = entryOf(first.id);
  std::string why{entry.title};
  if (first.id != kReadersEmpty && first.id != kNoReader) {
    why.append(" (").append(first.subject);
    if (!first.subject.empty() && !first.evidence.empty()) why.append(", ");
    why.append(first.evidence).append(")");
  }
  return {FailureKind::kNoCard, std::move(what), std::move(why), entry.remedy.data()};
}

}  // namespace mirel
