#include "KeyRun.h"

#include <algorithm>
#include <utility>

#include "Check.h"
#include "Presentable.h"
#include "host/KeyChoice.h"

namespace mirel::fuzz {
namespace {

constexpr std::size_t kMostAsked = 2 * KeyClient::kMostPins + 1;

std::string textFrom(Input& input) {
  const auto bytes = input.bytes(20);
  return {bytes.begin(), bytes.end()};
}

}  // namespace

EnteredPins::EnteredPins(Input& input) {
  const std::uint8_t how = input.byte();
  again_ = (how & 0x10U) == 0;
  cancelled_ = (how & 0x20U) != 0;
  switch (how % 8) {
    case 1: pins_ = {std::string{kWrongPin}, std::string{kGoodPin}}; break;
    case 2: pins_ = {std::string{kWrongPin}}; break;
    case 3: pins_ = {textFrom(input)}; break;
    case 4: pins_ = {textFrom(input), std::string{kGoodPin}}; break;
    default: pins_ = {std::string{kGoodPin}}; break;
  }
}

Result<std::shared_ptr<const SecretText>> EnteredPins::askForPin(const std::string& card) {
  checkShown(card, "the name of a card");
  check(++numAsked_ <= kMostAsked, "PINs are not asked for without end");
  const std::size_t which = std::min(numAsked_, pins_.size()) - 1;
  if (cancelled_ && numAsked_ >= pins_.size()) return std::shared_ptr<const SecretText>{};
  const std::string& pin = pins_[which];
  return SecretText::fromUtf8({reinterpret_cast<const std::uint8_t*>(pin.data()), pin.size()});
}

void EnteredPins::showRefusal(const std::string& text) {
  check(again_, "a PIN that was refused is only told where another one can be had");
  checkOneLine(text, "why a PIN was refused");
}

Result<std::size_t> GivenData::read(std::span<std::uint8_t> room) {
  const std::size_t count = std::min({room.size(), pieceSize_, data_.size() - position_});
  std::copy_n(data_.begin() + static_cast<std::ptrdiff_t>(position_), count, room.begin());
  position_ += count;
  return count;
}

KeyRun::KeyRun(Input& input, unsigned keys)
    : pins_{input},
      surroundings_{input, {std::string{kGoodPin}, std::string{kWrongPin}}},
      module_{input, keys},
      host_{std::make_unique<Host>(surroundings_.services(module_))} {
  const auto card = host_->insert(Text{});
  if (!card) {
    checkFailure(card.failure());
    return;
  }
  card_ = *card;
  keys_ = keysOf(*card_);
  auto client = host_->newClient(*card_);
  if (!client) {
    checkFailure(client.failure());
    return;
  }
  client_ = std::move(*client);
}

const PublishedKey* KeyRun::keyFrom(Input& input) {
  const std::size_t which = input.byte();
  return keys_.empty() ? nullptr : &keys_[which % keys_.size()];
}

const PublishedCertificate* KeyRun::certificateOf(const PublishedKey& key) const {
  const PublishedCertificate* found = nullptr;
  for (const PublishedItem& item : card_->items) {
    const auto* const certificate = std::get_if<PublishedCertificate>(&item);
    if (!certificate || !(certificate->objectID == key.certificateID)) continue;
    if (found && !(found->data == certificate->data)) return nullptr;
    found = certificate;
  }
  return found;
}

bool KeyRun::allIsWell() const {
  return moduleIsHonest() && !module_.hasFailed() && !surroundings_.ranOutOfMemory();
}

void KeyRun::checkFailure(const Failure& failure) const {
  fuzz::checkFailure(failure);
  for (const std::string& text : {failure.what, failure.why}) surroundings_.checkSecrecy(text);
}

}  // namespace mirel::fuzz
