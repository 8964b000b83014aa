#include "token/MirelSCTokenDriver.h"

#include <utility>

#include "platform/Log.h"

namespace mirel {

MirelSCTokenDriver::MirelSCTokenDriver(PlatformServices services) noexcept : services_{std::move(services)} {}

void MirelSCTokenDriver::createTokenForSmartCard(const std::function<Text()>& newToken) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++Start+++", "MirelSCTokenDriver", 13));
  const Text token = newToken();
  log.process(logLine("[%s-%d] token = %@", "MirelSCTokenDriver", 15, token));
  log.systemDefault(logLine("CTK [%s-%d] ---END---", "MirelSCTokenDriver", 16));
}

}  // namespace mirel
