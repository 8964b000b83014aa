#include "token/MirelSCTokenDriver.h"

#include <utility>

#include "platform/Log.h"

namespace mirel {

MirelSCTokenDriver::MirelSCTokenDriver(PlatformServices services) noexcept : services_{std::move(services)} {}

void MirelSCTokenDriver::createTokenForSmartCard(const std::function<Text()>& newToken) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCTokenDriver-13] +++Start+++");
  const Text token = newToken();
  log.process(logLine("[MirelSCTokenDriver-15] token = %@", token));
  log.systemDefault("CTK [MirelSCTokenDriver-16] ---END---");
}

}  // namespace mirel
