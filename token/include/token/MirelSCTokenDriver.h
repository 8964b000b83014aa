#pragma once

#include <functional>

#include "platform/PlatformServices.h"
#include "platform/Text.h"

namespace mirel {

/// The token driver, one for each process: has the token of every inserted card made. Nothing throws.
class MirelSCTokenDriver {
 public:
  explicit MirelSCTokenDriver(PlatformServices services) noexcept;

  /// `newToken`: makes a token and initialises it with the card, the AID and the error pointer that the
  /// caller was given (see MirelSCToken::initWithSmartCard); returns what prints for it, null for none.
  void createTokenForSmartCard(const std::function<Text()>& newToken) noexcept;

 private:
  PlatformServices services_;
};

}  // namespace mirel
