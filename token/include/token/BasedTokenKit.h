#pragma once

#include <memory>

#include "platform/TokenKit.h"

namespace mirel {

/// A token kit whose objects build on objects of the platform: it allocates the platform's, and puts this
/// system's own on top of them.
class BasedTokenKit : public TokenKit {
 public:
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> newToken(
      const PlatformServices& services, const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID,
      const std::shared_ptr<TKSmartCardTokenDriver>& driver, TKErrorPointer outError) noexcept final;
  [[nodiscard]] std::shared_ptr<TKSmartCardTokenSession> newTokenSession(
      const PlatformServices& services, const std::shared_ptr<TKSmartCardToken>& token) noexcept final;
  [[nodiscard]] std::shared_ptr<TKTokenSmartCardPINAuthOperation> newPINAuthOperation(
      const PlatformServices& services,
      const std::shared_ptr<TKSmartCardTokenSession>& session) noexcept final;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> newKeychainKey(
      const PlatformServices& services, const std::shared_ptr<SecCertificate>& certificate,
      const Text& objectID, const Text& certificateID, bool alwaysAuthenticate) noexcept final;

  // The platform's objects, not yet initialised. Each is new and never null.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardToken> allocSmartCardToken() noexcept = 0;
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardTokenSession> allocTokenSession() noexcept = 0;
  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainKey> allocKeychainKey() noexcept = 0;
  [[nodiscard]] virtual std::shared_ptr<TKTokenSmartCardPINAuthOperation>
  allocPINAuthOperation() noexcept = 0;
};

}  // namespace mirel
