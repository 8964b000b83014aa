#include "token/FakeTokenKit.h"

namespace mirel::test {

std::shared_ptr<TKTokenKeychainKey> FakeKeychainContents::keyForObjectID(const Text& objectID,
                                                                         TKErrorPointer outError) noexcept {
  for (const auto& item : items()) {
    auto key = std::dynamic_pointer_cast<TKTokenKeychainKey>(item);
    if (key && key->objectID() == objectID) return key;
  }
  if (outError) {
    *outError =
        TKError{Text{kTKErrorDomain}, static_cast<std::int64_t>(TKErrorCode::kObjectNotFound), Text{}};
  }
  return nullptr;
}

bool FakeSmartCardToken::initWithSmartCard(
    const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
    const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept {
  initialisations.push_back({smartCard, AID, instanceID, tokenDriver});
  script_->whenTokenIsInitialised();
  return !script_->refusesTokens;
}

std::shared_ptr<TKTokenKeychainContents> FakeSmartCardToken::keychainContents() const noexcept {
  return script_->withoutContents ? nullptr : contents;
}

bool FakeKeychainCertificate::initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                                  const Text& objectID) noexcept {
  if (script_->refusesCertificateItems) return false;
  make(certificate, objectID);
  return true;
}

bool FakeKeychainKey::initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                          const Text& objectID) noexcept {
  if (script_->refusedKeyItems.contains(std::u16string{objectID.units()})) return false;
  make(certificate, objectID);
  return true;
}

std::shared_ptr<TKSmartCardToken> FakeTokenKit::allocSmartCardToken() noexcept {
  auto token = std::make_shared<FakeSmartCardToken>(script);
  lastToken_ = token;
  return token;
}

std::shared_ptr<TKSmartCardTokenSession> FakeTokenKit::allocTokenSession() noexcept {
  auto session = std::make_shared<FakeTokenSession>(script);
  lastSession_ = session;
  return session;
}

std::shared_ptr<TKTokenKeychainCertificate> FakeTokenKit::allocKeychainCertificate() noexcept {
  return std::make_shared<FakeKeychainCertificate>(script);
}

std::shared_ptr<TKTokenKeychainKey> FakeTokenKit::allocKeychainKey() noexcept {
  return std::make_shared<FakeKeychainKey>(script);
}

std::shared_ptr<TKTokenSmartCardPINAuthOperation> FakeTokenKit::allocPINAuthOperation() noexcept {
  auto operation = std::make_shared<FakePinOperation>(script);
  lastPinOperation_ = operation;
  return operation;
}

std::shared_ptr<TKSmartCardPINFormat> FakeTokenKit::allocPINFormat() noexcept {
  return std::make_shared<FakePinFormat>();
}

}  // namespace mirel::test
