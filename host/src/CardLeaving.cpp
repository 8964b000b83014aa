#include "CardLeaving.h"

#include <chrono>
#include <thread>
#include <vector>

#include "host/Host.h"
#include "host/ReaderWatch.h"
#include "platform/CardService.h"

namespace mirel {
namespace {

using Card = WatchedReader::Card;

/// Common services look every 0.4 s.
constexpr std::chrono::milliseconds kTimeToNotice{500};

/// What the service tells of the reader; nothing where it does not answer, or several readers have that name.
std::vector<WatchedReader> lookAt(CardService& service, const Text& reader) {
  std::vector<WatchedReader> readers = watchedReaders(service.look());
  std::erase_if(readers, [&](const WatchedReader& one) { return !(one.name == reader); });
  return readers.size() == 1 ? readers : std::vector<WatchedReader>{};
}

}  // namespace

bool seesCardGo(CardService* service, const Text& reader) {
  if (!service) return false;
  const auto before = lookAt(*service, reader);
  if (before.empty()) return false;
  if (before.front().card != Card::kPresent) return before.front().card == Card::kNone;
  std::this_thread::sleep_for(kTimeToNotice);
  const auto now = lookAt(*service, reader);
  ReaderWatch events;
  (void)events.take(before);
  return !now.empty() && !events.take(now).empty();
}

Failure cardSeenGoing(const Text& reader, const std::string& what) {
  Failure failure = cardSeenGoing(reader);
  failure.why = "the card service has seen it going, and " + what;
  return failure;
}

}  // namespace mirel
