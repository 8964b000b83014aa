#include "token/MirelSCTokenSession.h"

#include "platform/Log.h"
#include "token/MirelSCToken.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCTokenSession";
constexpr int kStartLine = 70;
constexpr int kRefusedLine = 73;
constexpr int kNoProviderLine = 78;
constexpr int kEndLine = 81;

}  // namespace

MirelSCTokenSession::MirelSCTokenSession(PlatformServices services,
                                         std::shared_ptr<TKTokenSession> base) noexcept
    : services_{std::move(services)}, base_{std::move(base)} {}

bool MirelSCTokenSession::initWithToken(const std::shared_ptr<MirelSCToken>& token) noexcept {
  services_.log->systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kStartLine));
  if (!base_->initWithToken(token)) {
    services_.log->process(logLine("[%s-%d] ERROR", kUnit, kRefusedLine));
    return false;
  }
  const auto provider = token->sp();
  if (!provider) services_.log->process(logLine("[%s-%d] ERROR", kUnit, kNoProviderLine));
  setSp(provider);
  services_.log->systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return true;
}

}  // namespace mirel
