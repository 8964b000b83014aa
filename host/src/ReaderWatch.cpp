#include "host/ReaderWatch.h"

#include <algorithm>
#include <iterator>

#include "ReaderFindings.h"
#include "host/Host.h"

namespace mirel {
namespace {

using Card = WatchedReader::Card;
using Kind = ReaderEvent::Kind;

bool hasName(const std::vector<WatchedReader>& readers, std::u16string_view name) {
  return std::any_of(readers.begin(), readers.end(), [&](const WatchedReader& reader) {
    return !reader.name.isNull() && reader.name.units() == name;
  });
}

Card cardOf(const ServiceReader& reader) {
  switch (reader.card) {
    case ServiceReader::Card::kNone: return Card::kNone;
    case ServiceReader::Card::kPresent:
    case ServiceReader::Card::kMute: return Card::kPresent;
    case ServiceReader::Card::kUnknown: break;
  }
  return Card::kUnknown;
}

bool isOtherCard(const WatchedReader& before, const WatchedReader& now) {
  return before.isServices == now.isServices && !before.mark.empty() && !now.mark.empty() &&
         before.mark != now.mark;
}

}  // namespace

std::vector<WatchedReader> watchedReaders(const CardServiceView& service) {
  std::vector<WatchedReader> readers;
  for (const ServiceReader& reader : service.readers) {
    const std::string mark =
        std::to_string(service.connection) + "." + std::to_string(reader.changes) + "." + reader.atr;
    readers.push_back({nameOf(reader), cardOf(reader), mark, true});
  }
  return readers;
}

std::vector<WatchedReader> watchedReaders(const std::vector<Reader>& slots) {
  std::vector<WatchedReader> readers;
  for (const Reader& slot : slots) {
    if (slot.slotFailure) {
      readers.push_back({Text{}, Card::kUnknown});
      continue;
    }
    const bool hasCard = slot.hasToken && (slot.tokenInitialised || slot.unreadable);
    readers.push_back({slot.name, hasCard ? Card::kPresent : Card::kNone});
    if (hasCard && !slot.unreadable)
      readers.back().mark = slot.tokenLabel.toUtf8() + "\n" + slot.serialNumber.toUtf8();
  }
  return readers;
}

std::vector<ReaderEvent> ReaderWatch::take(const std::vector<WatchedReader>& readers) {
  std::vector<ReaderEvent> events;
  std::erase_if(inserted_, [&](const auto& entry) {
    if (hasName(readers, entry.first)) return false;
    events.push_back({Kind::kRemoval, entry.second.name});
    return true;
  });
  std::vector<std::u16string_view> seen;
  for (const WatchedReader& reader : readers) {
    const auto name = reader.name.units();
    if (reader.name.isNull() || std::find(seen.begin(), seen.end(), name) != seen.end()) continue;
    seen.push_back(name);
    if (reader.card == Card::kUnknown) continue;
    const auto known = inserted_.find(name);
    const bool wasThere = known != inserted_.end();
    const bool isThere = reader.card == Card::kPresent;
    const bool stays = wasThere && isThere && !isOtherCard(known->second, reader);
    if (wasThere && !stays) events.push_back({Kind::kRemoval, reader.name});
    if (isThere && !stays) events.push_back({Kind::kInsertion, reader.name});
    if (!isThere) {
      if (wasThere) inserted_.erase(known);
    } else if (!stays || !reader.mark.empty()) {
      inserted_.insert_or_assign(std::u16string{name}, reader);
    }
  }
  return events;
}

void ReaderSources::serviceTells(bool answers, std::vector<WatchedReader> readers) {
  // What it has known before may be gone, or the module's.
  if (serviceAnswers_ != answers) notBefore_ = Time{};
  serviceAnswers_ = answers;
  services_ = answers ? std::move(readers) : std::vector<WatchedReader>{};
}

void ReaderSources::lookBegins(Time now) {
  isLooking_ = true;
  lookBegan_ = now;
}

void ReaderSources::lookEnds(Time now, const std::optional<std::vector<WatchedReader>>& slots) {
  isLooking_ = false;
  const auto pause = (now - lookBegan_) * 9;
  notBefore_ = now + std::clamp<Time::duration>(pause, kShortestPause, kLongestPause);
  if (!slots) return;
  hasLooked_ = true;
  std::vector<WatchedReader> found;
  std::copy_if(slots->begin(), slots->end(), std::back_inserter(found),
               [&](const WatchedReader& slot) { return !slot.name.isNull() && !serviceHas(slot.name); });
  const bool someUnknown =
      std::any_of(slots->begin(), slots->end(), [](const auto& slot) { return slot.name.isNull(); });
  for (const WatchedReader& before : modules_) {
    if (someUnknown && !hasName(found, before.name.units())) found.push_back({before.name, Card::kUnknown});
  }
  modules_ = std::move(found);
}

std::optional<ReaderSources::Time> ReaderSources::nextLook() const {
  if (isLooking_ || !serviceAnswers_) return std::nullopt;
  if (*serviceAnswers_ && hasLooked_ && modules_.empty()) return std::nullopt;
  return notBefore_;
}

std::vector<WatchedReader> ReaderSources::readers() const {
  std::vector<WatchedReader> all = services_;
  std::copy_if(modules_.begin(), modules_.end(), std::back_inserter(all),
               [&](const WatchedReader& slot) { return !serviceHas(slot.name); });
  return all;
}

bool ReaderSources::serviceHas(const Text& name) const { return hasName(services_, name.units()); }

}  // namespace mirel
