#include "token/MirelSCTokenAuth.h"

#include <mutex>
#include <optional>
#include <vector>

#include "ReaderName.h"
#include "TriesLeft.h"
#include "platform/Log.h"
#include "platform/SecretBytes.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCTokenSession";
constexpr int kStartLine = 13;
constexpr int kEndLine = 24;

constexpr int kPinBitOffset = 40;  // behind the header of the command

/// VERIFY (ISO 7816-4, section 7.5.6) of reference data 0 with a PIN block of eight bytes.
Bytes verifyCommand(std::uint8_t cla) {
  return Bytes{
      std::vector<std::uint8_t>{cla, 0x20, 0x00, 0x80, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
}

}  // namespace

MirelSCTokenAuth::MirelSCTokenAuth(PlatformServices services,
                                   std::shared_ptr<TKTokenSmartCardPINAuthOperation> base) noexcept
    : services_{std::move(services)}, base_{std::move(base)} {}

bool MirelSCTokenAuth::initWithSession(const std::shared_ptr<MirelSCTokenSession>& session) noexcept {
  services_.log->systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kStartLine));
  const bool made = base_->init();
  if (made) {
    session_ = session;
    const auto card = session ? session->smartCard() : nullptr;
    setSmartCard(card);
    setAPDUTemplate(verifyCommand(card ? card->cla() : std::uint8_t{0}));
    const auto format = services_.tokenKit->allocPINFormat();
    setPINFormat(format);
    format->setPINBitOffset(kPinBitOffset);
  }
  services_.log->systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return made;
}

bool MirelSCTokenAuth::finishWithError(TKErrorPointer outError) noexcept {
  static const SecretText kNoPin;
  const auto entered = PIN();
  const SecretText& pin = entered ? *entered : kNoPin;
  // Oddity: a copy of the PIN that nothing looks at, kept until the login has ended.
  SecretBytes<8> scratch;
  (void)pin.copyUtf8(scratch.span());
  std::optional<std::uint64_t> triesLeft;

  const auto provider = session_ ? session_->sp() : nullptr;
  if (!provider) services_.log->systemError("sp is nil");
  bool loggedIn = false;
  if (provider) {
    const Text reader = readerNameOf(smartCard());  // the platform is asked before the gate is taken
    const std::lock_guard alone{provider->gate()};
    loggedIn = provider->userLogin(reader, pin, pin.length(), &triesLeft);
  }
  setPIN(nullptr);  // the platform's copy, as far as it can be reached
  if (loggedIn) {
    if (const auto card = session_->smartCard()) {
      card->setSensitive(true);
      card->setContext(true);
    }
    session_->setAuthState(MirelSCTokenSession::kAuthenticated);
    return true;
  }
  if (outError) {
    *outError = TKError{Text{kTKErrorDomain}, static_cast<std::int64_t>(TKErrorCode::kAuthenticationFailed),
                        triesLeftText(*services_.strings, triesLeft.value_or(0))};
  }
  return false;
}

}  // namespace mirel
