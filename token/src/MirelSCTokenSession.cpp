#include "token/MirelSCTokenSession.h"

#include <algorithm>
#include <iterator>

#include "platform/LocalizedStrings.h"
#include "platform/Log.h"
#include "token/MirelSCToken.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCTokenSession";
constexpr int kStartLine = 70;
constexpr int kRefusedLine = 73;
constexpr int kNoProviderLine = 78;
constexpr int kEndLine = 81;

constexpr std::u16string_view kPinConstraints[] = {u"PIN", u"PINAlways"};
// Oddity: the spelling is that of the key in the tables of texts.
constexpr std::string_view kConstraintNotSupportedKey = "Not suppport this constraint";

bool asksForPin(const Text& constraint) noexcept {
  return std::any_of(std::begin(kPinConstraints), std::end(kPinConstraints),
                     [&](std::u16string_view name) { return constraint == Text{name}; });
}

}  // namespace

MirelSCTokenSession::MirelSCTokenSession(PlatformServices services,
                                         std::shared_ptr<TKSmartCardTokenSession> base) noexcept
    : services_{std::move(services)}, base_{std::move(base)} {}

bool MirelSCTokenSession::initWithToken(const std::shared_ptr<MirelSCToken>& token) noexcept {
  services_.log->systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kStartLine));
  if (!base_->initWithToken(token)) {
    services_.log->process(logLine("[%s-%d] ERROR", kUnit, kRefusedLine));
    return false;
  }
  const auto provider = token ? token->sp() : nullptr;
  // Oddity: an error, and yet the session is made.
  if (!provider) services_.log->process(logLine("[%s-%d] ERROR", kUnit, kNoProviderLine));
  setSp(provider);
  services_.log->systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return true;
}

std::shared_ptr<TKTokenAuthOperation> MirelSCTokenSession::beginAuthForOperation(
    const std::shared_ptr<TKTokenSession>&, TKTokenOperation, const Text& constraint,
    TKErrorPointer outError) noexcept {
  if (asksForPin(constraint)) {
    return services_.tokenKit->newPINAuthOperation(services_, weak_from_this().lock());
  }
  if (outError) {
    *outError = TKError{Text{kTKErrorDomain}, static_cast<std::int64_t>(TKErrorCode::kBadParameter),
                        services_.strings->localizedString(kConstraintNotSupportedKey)};
  }
  return nullptr;
}

}  // namespace mirel
