#pragma once

#include <memory>

#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

/// The token driver, one for each process: makes the token of every inserted card. It is the platform's
/// driver and its own delegate.
class MirelSCTokenDriver final : public TKSmartCardTokenDriver, public TKSmartCardTokenDriverDelegate {
 public:
  explicit MirelSCTokenDriver(PlatformServices services) noexcept;

  /// The card's token, or null. `driver`: this very driver as the system knows it, handed on to the token.
  /// See MirelSCToken::initWithSmartCard for errors.
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> createTokenForSmartCard(
      const std::shared_ptr<TKSmartCardTokenDriver>& driver, const std::shared_ptr<TKSmartCard>& smartCard,
      const Bytes& AID, TKErrorPointer outError) noexcept override;

 private:
  PlatformServices services_;
};

}  // namespace mirel
