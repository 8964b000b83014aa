#include "token/FakePorts.h"

namespace mirel::test {
namespace {

std::string constraintsText(const TKTokenConstraints& constraints) {
  std::string text = "{";
  for (const auto& [operation, constraint] : constraints) {
    if (text != "{") text += ", ";
    text += std::to_string(static_cast<std::int64_t>(operation)) + ": " + constraint.toUtf8();
  }
  return text + "}";
}

std::string itemText(const TKTokenKeychainCertificate& item) {
  return "certificate " + item.objectID.toUtf8() + ", label " + item.label.toUtf8();
}

std::string itemText(const MirelCTKTokenKeychainKey& item) {
  std::string text = "key " + item.objectID.toUtf8() + ", label " + item.label.toUtf8() + ", certificate " +
                     item.certificateID.toUtf8();
  if (item.canSign) text += ", can sign";
  if (item.canDecrypt) text += ", can decrypt";
  if (item.canPerformKeyExchange) text += ", can exchange keys";
  if (item.suitableForLogin) text += ", for login";
  if (item.alwaysAuthenticate) text += ", PIN always";
  return text + ", " + constraintsText(item.constraints);
}

void record(PortCalls* calls, std::string what) {
  if (calls) calls->push_back(std::move(what));
}

}  // namespace

// ---- Cards ----

void FakeSmartCard::asked(const char* what) const {
  record(calls_, std::string{"card."} + what);
  whenAsked();
}

Text FakeSmartCard::name() const noexcept {
  asked("name");
  return isConnected ? readerName : Text{};
}

std::uint8_t FakeSmartCard::cla() const noexcept {
  asked("cla");
  return isConnected ? classByte : std::uint8_t{0};
}

void FakeSmartCard::setSensitive(bool value) noexcept {
  asked(value ? "setSensitive 1" : "setSensitive 0");
  sensitive = value;
}

bool FakeSmartCard::hasContext() const noexcept {
  asked("hasContext");
  return isConnected && marked;
}

void FakeSmartCard::setContext(bool value) noexcept {
  asked(value ? "setContext 1" : "setContext 0");
  marked = true;
}

// ---- Items ----

std::vector<std::string> itemTexts(const std::vector<FakeItem>& items) {
  std::vector<std::string> texts;
  texts.reserve(items.size());
  for (const FakeItem& item : items) {
    texts.push_back(std::visit([](const auto& any) { return itemText(any); }, item));
  }
  return texts;
}

void FakeContents::append(const TKTokenKeychainCertificate& item) noexcept {
  record(calls_, "append " + itemText(item));
  appended.emplace_back(item);
}

bool FakeContents::initKey(const MirelCTKTokenKeychainKey& item) noexcept {
  record(calls_, "initKey " + itemText(item));
  const auto super = [&] { return !refusedKeys.contains(std::u16string{item.objectID.units()}); };
  return MirelCTKTokenKeychainKey::initWithCertificate(super, *log_);
}

void FakeContents::append(const MirelCTKTokenKeychainKey& item) noexcept {
  record(calls_, "append " + itemText(item));
  appended.emplace_back(item);
}

void FakeContents::fillWithItems() noexcept {
  record(calls_, "fillWithItems");
  whenFilled();
  fills.push_back(std::exchange(appended, {}));
}

std::vector<FakeItem> FakeContents::items() const {
  return fills.empty() ? std::vector<FakeItem>{} : fills.back();
}

std::optional<MirelCTKTokenKeychainKey> FakeContents::keyForObjectID(const Text& objectID,
                                                                     TKErrorPointer outError) const {
  for (const FakeItem& item : items()) {
    const auto* const key = std::get_if<MirelCTKTokenKeychainKey>(&item);
    if (key && key->objectID == objectID) return *key;
  }
  if (outError) *outError = tkError(TKErrorCode::kObjectNotFound);
  return std::nullopt;
}

// ---- Sessions ----

TKSmartCard& FakeSession::smartCard() noexcept {
  record(calls_, "session.smartCard");
  return card;
}

std::optional<MirelCTKTokenKeychainKey> FakeSession::keyForObjectID(const Text& objectID,
                                                                    TKErrorPointer outError) noexcept {
  record(calls_, "session.keyForObjectID " + objectID.orNullMark().toUtf8());
  return contents ? contents->keyForObjectID(objectID, outError) : std::nullopt;
}

// ---- Requests for a PIN ----

void FakePinRequest::asked(std::string what) const { record(calls_, std::move(what)); }

TKSmartCard& FakePinRequest::sessionSmartCard() noexcept {
  asked("sessionSmartCard");
  return session_.card;
}

TKSmartCard& FakePinRequest::smartCard() noexcept {
  asked("smartCard");
  return *card;
}

void FakePinRequest::setSmartCard(const TKSmartCard& given) noexcept {
  asked("setSmartCard");
  givenCard = &given;
}

void FakePinRequest::setAPDUTemplate(const Bytes& command) noexcept {
  asked("setAPDUTemplate");
  APDUTemplate = command;
}

void FakePinRequest::setPINFormat(int PINBitOffset) noexcept {
  asked("setPINFormat " + std::to_string(PINBitOffset));
}

std::shared_ptr<const SecretText> FakePinRequest::PIN() noexcept {
  asked("PIN");
  return pin;
}

void FakePinRequest::clearPIN() noexcept {
  asked("clearPIN");
  pin = nullptr;
}

}  // namespace mirel::test
