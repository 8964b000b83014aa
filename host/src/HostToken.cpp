#include "HostToken.h"

#include <cstdint>
#include <mutex>
#include <string_view>
#include <utility>

#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "host/Display.h"
#include "platform/Hex.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelSCTokenDriver.h"

namespace mirel {
namespace {

/// What "%@" prints for an object without a description of its own: class and address.
Text describedObject(std::string_view className, const void* object) {
  const std::string address = hexOfNumber(reinterpret_cast<std::uintptr_t>(object), HexDigits::kLower);
  return Text::fromUtf8(std::string{"<"}.append(className).append(": 0x").append(address).append(">"));
}

/// The text without the full stop at its end, to stand within a line.
std::string withoutFullStop(std::string text) {
  for (const std::string_view stop : {".", "\u3002"}) {
    if (text.ends_with(stop)) text.resize(text.size() - stop.size());
  }
  return text;
}

}  // namespace

// ---- Keychain contents ----

void HostKeychainContents::append(const TKTokenKeychainCertificate& item) noexcept {
  appended_.emplace_back(item);
}

bool HostKeychainContents::initKey(const MirelCTKTokenKeychainKey& item) noexcept {
  const auto super = [&] { return item.certificate->keyType() != CertificateKeyType::kOther; };
  return MirelCTKTokenKeychainKey::initWithCertificate(super, *log_);
}

void HostKeychainContents::append(const MirelCTKTokenKeychainKey& item) noexcept {
  appended_.emplace_back(item);
}

void HostKeychainContents::fillWithItems() noexcept {
  published_ = std::exchange(appended_, {});
  keys_.clear();
  for (std::size_t place = 0; place < published_->size(); ++place) {
    if (const auto* key = std::get_if<MirelCTKTokenKeychainKey>(&(*published_)[place])) {
      keys_.try_emplace(std::u16string{key->objectID.units()}, place);
    }
  }
}

std::vector<HostKeychainContents::Item> HostKeychainContents::items() const {
  return published_.value_or(std::vector<Item>{});
}

std::optional<MirelCTKTokenKeychainKey> HostKeychainContents::keyForObjectID(const Text& objectID,
                                                                             TKErrorPointer outError) const {
  if (const auto found = keys_.find(objectID.units()); found != keys_.end()) {
    return std::get<MirelCTKTokenKeychainKey>((*published_)[found->second]);
  }
  if (outError) *outError = tkError(TKErrorCode::kObjectNotFound);
  return std::nullopt;
}

// ---- Token ----

HostToken::HostToken(const PlatformServices& services, Text readerName)
    : services_{services}, readerName_{std::move(readerName)}, contents_{services.log}, core_{services} {}

std::shared_ptr<HostToken> HostToken::createdForReader(const PlatformServices& services,
                                                       const Text& readerName, TKErrorPointer outError) {
  std::shared_ptr<HostToken> token;
  MirelSCTokenDriver{services}.createTokenForSmartCard([&] {
    token = std::make_shared<HostToken>(services, readerName);
    if (!token->initWithSmartCard(outError)) token.reset();
    return token ? token->description() : Text{};
  });
  return token;
}

bool HostToken::initWithSmartCard(TKErrorPointer outError) {
  const auto super = [this](const Text& instanceID) {
    instanceID_ = instanceID;
    return true;
  };
  return core_.initWithSmartCard(HostSmartCard{readerName_}, contents_, super, outError);
}

std::shared_ptr<HostTokenSession> HostToken::createSessionWithError(TKErrorPointer outError) {
  std::shared_ptr<HostTokenSession> session;
  core_.createSessionWithError(description(), outError, [&] {
    session = std::make_shared<HostTokenSession>(services_, readerName_, weak_from_this());
    if (!session->initWithToken()) session.reset();
    return session ? session->description() : Text{};
  });
  return session;
}

Text HostToken::nameInCard(const Text& keyObjectID) {
  const auto provider = core_.sp();
  if (!provider) return Text{};
  const std::lock_guard alone{provider->gate()};
  const auto key = provider->getKeyFromCertID(keyObjectID);
  return key ? key->keyName() : Text{};
}

Text HostToken::description() const { return describedObject("MirelSCToken", &core_); }

// ---- Session ----

HostTokenSession::HostTokenSession(const PlatformServices& services, Text readerName,
                                   std::weak_ptr<HostToken> token)
    : services_{services},
      card_{std::move(readerName)},
      token_{std::move(token)},
      core_{std::make_shared<MirelSCTokenSession>(services)} {}

bool HostTokenSession::initWithToken() {
  const auto token = token_.lock();
  return core_->initWithToken(token ? &token->core() : nullptr, [&] { return token != nullptr; });
}

std::optional<MirelCTKTokenKeychainKey> HostTokenSession::keyForObjectID(const Text& objectID,
                                                                         TKErrorPointer outError) noexcept {
  const auto token = token_.lock();
  return token ? token->contents().keyForObjectID(objectID, outError) : std::nullopt;
}

std::shared_ptr<HostPINAuthOperation> HostTokenSession::beginAuthForOperation(const Text& constraint,
                                                                              TKErrorPointer outError) {
  if (!core_->beginAuthForOperation(constraint, outError)) return nullptr;
  return std::make_shared<HostPINAuthOperation>(services_, shared_from_this());
}

bool HostTokenSession::supportsOperation(TKTokenOperation operation, const Text& keyObjectID,
                                         const TKTokenKeyAlgorithm& algorithm) {
  return core_->supportsOperation(*this, operation, keyObjectID, algorithm);
}

Bytes HostTokenSession::signData(const Bytes& dataToSign, const Text& keyObjectID,
                                 const TKTokenKeyAlgorithm& algorithm, TKErrorPointer outError) {
  return core_->signData(*this, dataToSign, keyObjectID, algorithm, outError);
}

Bytes HostTokenSession::decryptData(const Bytes& ciphertext, const Text& keyObjectID,
                                    const TKTokenKeyAlgorithm& algorithm, TKErrorPointer outError) {
  return core_->decryptData(*this, ciphertext, keyObjectID, algorithm, outError);
}

Bytes HostTokenSession::performKeyExchangeWithPublicKey(const Text& keyObjectID,
                                                        const TKTokenKeyAlgorithm& algorithm,
                                                        TKErrorPointer outError) {
  return core_->performKeyExchangeWithPublicKey(*this, keyObjectID, algorithm, outError);
}

Text HostTokenSession::description() const { return describedObject("MirelSCTokenSession", core_.get()); }

// ---- PIN ----

HostPINAuthOperation::HostPINAuthOperation(const PlatformServices& services,
                                           std::shared_ptr<HostTokenSession> session)
    : session_{std::move(session)}, core_{services} {
  (void)core_.initWithSession(session_->core(), *this, [] { return true; });  // the host refuses none
}

bool HostPINAuthOperation::finishWithPIN(std::shared_ptr<const SecretText> pin, TKErrorPointer outError) {
  pin_ = std::move(pin);
  return core_.finishWithError(*this, outError);
}

// ---- Algorithm ----

Text HostKeyAlgorithm::description() const noexcept { return describedObject("TKTokenKeyAlgorithm", this); }

// ---- Errors ----

std::string wordsOf(const std::optional<TKError>& error) {
  const Text text = error ? error->localizedDescription : Text{};
  if (text.isEmpty()) return {};
  return std::string{"\""}.append(withoutFullStop(displayedName(text))).append("\"");
}

}  // namespace mirel
