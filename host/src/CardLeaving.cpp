#include "CardLeaving.h"

#include <chrono>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "ReaderFindings.h"
#include "host/Host.h"
#include "platform/CardService.h"

namespace mirel {
namespace {

using Card = ServiceReader::Card;

/// Common services look every 0.4 s.
constexpr std::chrono::milliseconds kTimeToNotice{500};

/// What the service tells of the reader; nothing where it does not answer, or several readers have that name.
std::optional<ServiceReader> lookAt(CardService& service, const Text& reader) {
  std::vector<ServiceReader> readers = service.look().readers;
  std::erase_if(readers, [&](const ServiceReader& one) { return !(nameOf(one) == reader); });
  return readers.size() == 1 ? std::optional{std::move(readers.front())} : std::nullopt;
}

bool holdsCard(const ServiceReader& reader) {
  return reader.card == Card::kPresent || reader.card == Card::kMute;
}

}  // namespace

bool seesCardGo(CardService* service, const Text& reader) {
  if (!service) return false;
  const auto before = lookAt(*service, reader);
  if (!before || !holdsCard(*before)) return before && before->card == Card::kNone;
  std::this_thread::sleep_for(kTimeToNotice);
  const auto now = lookAt(*service, reader);
  if (!now || !holdsCard(*now)) return now && now->card == Card::kNone;
  // A reset by another program changes what the card answers, and not how often one came or went.
  return now->changes != before->changes;
}

Failure cardSeenGoing(const Text& reader, const std::string& what) {
  Failure failure = cardSeenGoing(reader);
  failure.why = "the card service has seen it going, and " + what;
  return failure;
}

}  // namespace mirel
