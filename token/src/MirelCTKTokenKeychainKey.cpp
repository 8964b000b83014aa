#include "platform/Log.h"
#include "token/TokenKit.h"

namespace mirel {

bool MirelCTKTokenKeychainKey::initWithCertificate(const std::function<bool()>& super, Log& log) noexcept {
  // Oddity: the lines name the token's unit.
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", "MirelSCToken", 15));
  const bool made = super();
  log.systemDefault(logLine("CTK [%s-%d] ---END---", "MirelSCToken", 21));
  return made;
}

}  // namespace mirel
