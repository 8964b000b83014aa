#include "token/MirelSCTokenAuth.h"

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "TriesLeft.h"
#include "platform/Log.h"
#include "platform/SecretBytes.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelSCTokenSession.h"

// Oddity: the lines name the unit MirelSCTokenSession.

namespace mirel {
namespace {

constexpr int kPinBitOffset = 40;  // behind the header of the command

/// VERIFY (ISO 7816-4, section 7.5.6) of reference data 0 with a PIN block of eight bytes.
Bytes verifyCommand(std::uint8_t cla) {
  return Bytes{
      std::vector<std::uint8_t>{cla, 0x20, 0x00, 0x80, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
}

}  // namespace

MirelSCTokenAuth::MirelSCTokenAuth(PlatformServices services) noexcept : services_{std::move(services)} {}

bool MirelSCTokenAuth::initWithSession(const std::shared_ptr<MirelSCTokenSession>& session,
                                       TKTokenSmartCardPINAuthOperation& operation,
                                       const std::function<bool()>& super) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCTokenSession-13] +++START+++");
  const bool made = super();
  if (made) {
    session_ = session;
    const TKSmartCard& card = operation.sessionSmartCard();
    operation.setSmartCard(card);
    operation.setAPDUTemplate(verifyCommand(card.cla()));
    operation.setPINFormat(kPinBitOffset);
  }
  log.systemDefault("CTK [MirelSCTokenSession-24] ---END---");
  return made;
}

bool MirelSCTokenAuth::finishWithError(TKTokenSmartCardPINAuthOperation& operation,
                                       TKErrorPointer outError) noexcept {
  static const SecretText kNoPin;
  const auto entered = operation.PIN();
  const SecretText& pin = entered ? *entered : kNoPin;
  // Oddity: a copy of the PIN that nothing looks at, kept until the login has ended.
  SecretBytes<8> scratch;
  (void)pin.copyUtf8(scratch.span());
  std::optional<std::uint64_t> triesLeft;

  const auto provider = session_ ? session_->sp() : nullptr;
  if (!provider) services_.log->systemError("sp is nil");
  bool loggedIn = false;
  if (provider) {
    const Text reader = operation.smartCard().name();  // the platform is asked before the gate is taken
    const std::lock_guard alone{provider->gate()};
    loggedIn = provider->userLogin(reader, pin, pin.length(), &triesLeft);
  }
  operation.clearPIN();  // the platform's copy, as far as it can be reached
  if (loggedIn) {
    TKSmartCard& card = operation.sessionSmartCard();
    card.setSensitive(true);
    card.setContext(true);
    session_->setAuthState(MirelSCTokenSession::kAuthenticated);
    return true;
  }
  if (outError) {
    *outError =
        tkError(TKErrorCode::kAuthenticationFailed, triesLeftText(*services_.strings, triesLeft.value_or(0)));
  }
  return false;
}

}  // namespace mirel
