#include "platform/Log.h"
#include "token/TokenKit.h"

// Oddity: the lines name the unit MirelSCToken.

namespace mirel {

bool MirelCTKTokenKeychainKey::initWithCertificate(const std::function<bool()>& super, Log& log) noexcept {
  log.systemDefault("CTK [MirelSCToken-15] +++START+++");
  const bool made = super();
  log.systemDefault("CTK [MirelSCToken-21] ---END---");
  return made;
}

}  // namespace mirel
