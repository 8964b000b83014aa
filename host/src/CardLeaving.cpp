#include "CardLeaving.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "host/ReaderWatch.h"
#include "platform/CardService.h"

namespace mirel {
namespace {

using Card = WatchedReader::Card;

/// Common services look every 0.4 s.
constexpr std::chrono::milliseconds kTimeToNotice{500};

/// What the service tells of the reader; kUnknown where it does not answer, or several readers have that
/// name.
Card cardIn(CardService& service, const Text& reader) {
  std::vector<WatchedReader> readers = watchedReaders(service.look());
  std::erase_if(readers, [&](const WatchedReader& one) { return !(one.name == reader); });
  return readers.size() == 1 ? readers.front().card : Card::kUnknown;
}

}  // namespace

bool seesNoCard(CardService* service, const Text& reader) {
  if (!service) return false;
  if (const Card card = cardIn(*service, reader); card != Card::kPresent) return card == Card::kNone;
  std::this_thread::sleep_for(kTimeToNotice);
  return cardIn(*service, reader) == Card::kNone;
}

}  // namespace mirel
