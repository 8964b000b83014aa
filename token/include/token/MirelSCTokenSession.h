#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;
class MirelSCToken;

/// One client's session on a token. It builds on the platform's session and keeps the token's provider.
class MirelSCTokenSession final : public TKTokenSession {
 public:
  /// `base`: the platform's session, allocated and not initialised.
  MirelSCTokenSession(PlatformServices services, std::shared_ptr<TKTokenSession> base) noexcept;

  /// False when the platform refuses the session. A token without a provider gives a session without
  /// one.
  [[nodiscard]] bool initWithToken(const std::shared_ptr<MirelSCToken>& token) noexcept;

  /// 0: no user has been authenticated in this session. Atomic accessors.
  [[nodiscard]] std::int64_t authState() const noexcept { return authState_; }
  void setAuthState(std::int64_t value) noexcept { authState_ = value; }

  /// The provider that every operation on the card goes through; may be null. Atomic accessors.
  [[nodiscard]] std::shared_ptr<CryptTKitSProvider> sp() const noexcept { return sp_.get(); }
  void setSp(std::shared_ptr<CryptTKitSProvider> provider) noexcept { sp_.set(std::move(provider)); }

  // The platform's session.
  [[nodiscard]] bool initWithToken(const std::shared_ptr<TKSmartCardToken>& token) noexcept override {
    return base_->initWithToken(token);
  }

 private:
  PlatformServices services_;
  std::shared_ptr<TKTokenSession> base_;
  std::atomic<std::int64_t> authState_{0};
  AtomicProperty<std::shared_ptr<CryptTKitSProvider>> sp_;
};

}  // namespace mirel
