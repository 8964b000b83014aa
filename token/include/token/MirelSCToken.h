#pragma once

#include <memory>

#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;

/// The token of one inserted card: owns the provider through which the card is reached, and publishes a
/// certificate item and a key item for every certificate that belongs to a key of the card.
///
/// It is the platform's token, on which it builds, and its delegate. Keep it in a shared pointer.
/// Nothing throws.
class MirelSCToken final : public TKSmartCardToken,
                           public TKTokenDelegate,
                           public std::enable_shared_from_this<MirelSCToken> {
 public:
  /// `base`: the platform's token, allocated and not initialised.
  MirelSCToken(PlatformServices services, std::shared_ptr<TKSmartCardToken> base) noexcept;
  ~MirelSCToken() override;

  /// The token's provider; null before initialisation and when it could not be made. Atomic accessors.
  [[nodiscard]] std::shared_ptr<CryptTKitSProvider> sp() const noexcept { return sp_.get(); }
  void setSp(std::shared_ptr<CryptTKitSProvider> provider) noexcept { sp_.set(std::move(provider)); }

  /// Makes the provider, names the token after the card, registers it with the
  /// platform and fills its keychain contents. Returns this token, or null:
  /// - the module cannot be opened: `outError` is left alone;
  /// - the card cannot be read: `outError` gets kObjectNotFound;
  /// - the platform refuses the token: `outError` is left alone.
  /// A card whose certificates cannot be listed gives a token whose contents are not filled.
  [[nodiscard]] std::shared_ptr<MirelSCToken> initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID,
      const std::shared_ptr<TKSmartCardTokenDriver>& driver, TKErrorPointer outError) noexcept;

  /// A new session on this token, whatever `token` is; null when the platform refuses one. `outError` is
  /// only looked at.
  [[nodiscard]] std::shared_ptr<TKTokenSession> createSessionWithError(
      const std::shared_ptr<TKSmartCardToken>& token, TKErrorPointer outError) noexcept override;

  // The platform's token.
  [[nodiscard]] bool initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
      const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept override {
    return base_->initWithSmartCard(smartCard, AID, instanceID, tokenDriver);
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainContents> keychainContents() const noexcept override {
    return base_->keychainContents();
  }
  [[nodiscard]] void* platformObject() const noexcept override { return base_->platformObject(); }
  [[nodiscard]] Text description() const noexcept override { return base_->description(); }

 private:
  void fillKeychainContents(CryptTKitSProvider& provider, const Text& readerName) noexcept;

  PlatformServices services_;
  std::shared_ptr<TKSmartCardToken> base_;
  AtomicProperty<std::shared_ptr<CryptTKitSProvider>> sp_;
};

}  // namespace mirel
