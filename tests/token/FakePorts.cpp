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

std::string textOf(const FakeItem& item) {
  return std::visit([](const auto& any) { return itemText(any); }, item);
}

}  // namespace

std::vector<std::string> itemTexts(const std::vector<FakeItem>& items) {
  std::vector<std::string> texts;
  for (const FakeItem& item : items) texts.push_back(textOf(item));
  return texts;
}

void FakeContents::add(const FakeItem& item) {
  record(calls_, "append " + textOf(item));
  appended.push_back(item);
}

bool FakeContents::initKey(const MirelCTKTokenKeychainKey& item) noexcept {
  record(calls_, "initKey " + itemText(item));
  const auto super = [&] { return !refusedKeys.contains(std::u16string{item.objectID.units()}); };
  return MirelCTKTokenKeychainKey::initWithCertificate(super, *log_);
}

void FakeContents::fillWithItems() noexcept {
  record(calls_, "fillWithItems");
  whenFilled();
  fills.push_back(std::exchange(appended, {}));
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

}  // namespace mirel::test
