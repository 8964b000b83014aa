#include "token/MirelSCTokenSession.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/LocalizedStrings.h"
#include "platform/Log.h"
#include "token/MirelSCToken.h"

namespace mirel {
namespace {

constexpr std::u16string_view kPinConstraints[] = {u"PIN", u"PINAlways"};
// Oddity: the spelling is that of the key in the tables of texts.
constexpr std::string_view kConstraintNotSupportedKey = "Not suppport this constraint";

bool asksForPin(const Text& constraint) noexcept {
  return std::any_of(std::begin(kPinConstraints), std::end(kPinConstraints),
                     [&](std::u16string_view name) { return constraint == Text{name}; });
}

}  // namespace

MirelSCTokenSession::MirelSCTokenSession(PlatformServices services) noexcept
    : services_{std::move(services)} {}

bool MirelSCTokenSession::initWithToken(const MirelSCToken* token,
                                        const std::function<bool()>& super) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCTokenSession-70] +++START+++");
  if (!super()) {
    log.process("[MirelSCTokenSession-73] ERROR");
    return false;
  }
  const auto provider = token ? token->sp() : nullptr;
  // Oddity: an error, and yet the session is made.
  if (!provider) log.process("[MirelSCTokenSession-78] ERROR");
  setSp(provider);
  log.systemDefault("CTK [MirelSCTokenSession-81] ---END---");
  return true;
}

bool MirelSCTokenSession::beginAuthForOperation(const Text& constraint, TKErrorPointer outError) noexcept {
  if (asksForPin(constraint)) return true;
  if (outError) {
    *outError =
        tkError(TKErrorCode::kBadParameter, services_.strings->localizedString(kConstraintNotSupportedKey));
  }
  return false;
}

}  // namespace mirel
