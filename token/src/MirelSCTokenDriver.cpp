#include "token/MirelSCTokenDriver.h"

#include "Description.h"
#include "platform/Log.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCTokenDriver";
constexpr int kStartLine = 13;
constexpr int kTokenLine = 15;
constexpr int kEndLine = 16;

}  // namespace

MirelSCTokenDriver::MirelSCTokenDriver(PlatformServices services) noexcept : services_{std::move(services)} {}

std::shared_ptr<TKSmartCardToken> MirelSCTokenDriver::createTokenForSmartCard(
    const std::shared_ptr<TKSmartCardTokenDriver>& driver, const std::shared_ptr<TKSmartCard>& smartCard,
    const Bytes& AID, TKErrorPointer outError) noexcept {
  services_.log->systemDefault(logLine("CTK [%s-%d] +++Start+++", kUnit, kStartLine));
  auto token = services_.tokenKit->newToken(services_, smartCard, AID, driver, outError);
  services_.log->process(
      logLine("[%s-%d] token = %@", kUnit, kTokenLine, objectDescription("MirelSCToken", token.get())));
  services_.log->systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return token;
}

}  // namespace mirel
