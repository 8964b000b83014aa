#pragma once

#include <atomic>
#include <memory>

#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

/// A key item that also remembers the object identifier of its certificate item and whether every use
/// needs a fresh PIN. Everything else is the platform's key item, on which it builds.
class MirelCTKTokenKeychainKey final : public TKTokenKeychainKey {
 public:
  /// `base`: the platform's key item, allocated and not initialised.
  MirelCTKTokenKeychainKey(PlatformServices services, std::shared_ptr<TKTokenKeychainKey> base) noexcept;

  /// False when the platform refuses to make a key item of the certificate.
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID, const Text& certificateID,
                                         bool alwaysAuthenticate) noexcept;

  /// Null and false before a successful initialisation. Both have atomic accessors.
  [[nodiscard]] Text certificateID() const noexcept { return certificateID_.get(); }
  [[nodiscard]] bool alwaysAuthenticate() const noexcept { return alwaysAuthenticate_; }

  // The platform's key item.
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override {
    return base_->initWithCertificate(certificate, objectID);
  }
  [[nodiscard]] Text objectID() const noexcept override { return base_->objectID(); }
  [[nodiscard]] Text label() const noexcept override { return base_->label(); }
  void setLabel(const Text& label) noexcept override { base_->setLabel(label); }
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return base_->constraints();
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override {
    base_->setConstraints(constraints);
  }
  [[nodiscard]] void* platformObject() const noexcept override { return base_->platformObject(); }
  [[nodiscard]] Text description() const noexcept override { return base_->description(); }
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return base_->keyType(); }
  [[nodiscard]] int keySizeInBits() const noexcept override { return base_->keySizeInBits(); }
  [[nodiscard]] bool canSign() const noexcept override { return base_->canSign(); }
  void setCanSign(bool value) noexcept override { base_->setCanSign(value); }
  [[nodiscard]] bool canDecrypt() const noexcept override { return base_->canDecrypt(); }
  void setCanDecrypt(bool value) noexcept override { base_->setCanDecrypt(value); }
  [[nodiscard]] bool canPerformKeyExchange() const noexcept override {
    return base_->canPerformKeyExchange();
  }
  void setCanPerformKeyExchange(bool value) noexcept override { base_->setCanPerformKeyExchange(value); }
  [[nodiscard]] bool suitableForLogin() const noexcept override { return base_->suitableForLogin(); }
  void setSuitableForLogin(bool value) noexcept override { base_->setSuitableForLogin(value); }

 private:
  PlatformServices services_;
  std::shared_ptr<TKTokenKeychainKey> base_;
  AtomicProperty<Text> certificateID_;
  std::atomic<bool> alwaysAuthenticate_{false};
};

}  // namespace mirel
