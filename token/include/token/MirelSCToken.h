#pragma once

#include <functional>
#include <memory>

#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "token/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;

/// The token of one inserted card: owns the provider through which the card is reached, and publishes a
/// certificate item and a key item for every certificate that belongs to a key of the card.
///
/// The platform's token owns it and hands in what the platform does. Nothing throws.
class MirelSCToken {
 public:
  explicit MirelSCToken(PlatformServices services) noexcept;
  MirelSCToken(const MirelSCToken&) = delete;
  MirelSCToken& operator=(const MirelSCToken&) = delete;
  ~MirelSCToken();

  /// The token's provider; null before initialisation and when it could not be made. Atomic accessors.
  [[nodiscard]] std::shared_ptr<CryptTKitSProvider> sp() const noexcept { return sp_.get(); }
  void setSp(std::shared_ptr<CryptTKitSProvider> provider) noexcept { sp_.set(std::move(provider)); }

  /// The platform's initialiser `initWithSmartCard:AID:instanceID:tokenDriver:`, with the smart card, the AID
  /// and the driver that the caller was given: registers the token under that identifier. False when the
  /// platform refuses.
  using Super = std::function<bool(const Text& instanceID)>;

  /// Makes the provider, names the token after the card, registers it by `super` and fills its keychain
  /// contents. True, or false for no token:
  /// - the module cannot be opened: `outError` is left alone;
  /// - the card cannot be read: `outError` gets kObjectNotFound;
  /// - the platform refuses the token: `outError` is left alone.
  /// A card whose certificates cannot be listed gives a token whose `contents` are not filled.
  [[nodiscard]] bool initWithSmartCard(const TKSmartCard& smartCard, TKTokenKeychainContents& contents,
                                       const Super& super, TKErrorPointer outError) noexcept;

  /// Makes a session by `newSession`, which initialises one on this token and returns what prints for it;
  /// null when the platform refuses one. `token`: what prints for the token that the platform names, which is
  /// only logged; null for none. `error`: null when the caller gave no place for an error; else it is only
  /// looked at.
  void createSessionWithError(const Text& token, const std::optional<TKError>* error,
                              const std::function<Text()>& newSession) noexcept;

 private:
  PlatformServices services_;
  AtomicProperty<std::shared_ptr<CryptTKitSProvider>> sp_;
};

}  // namespace mirel
