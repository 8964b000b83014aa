#pragma once

#include <functional>
#include <memory>

#include "platform/PlatformServices.h"
#include "token/TokenKit.h"

namespace mirel {

class MirelSCTokenSession;

/// One entry of the PIN. The platform's PIN operation, which owns it, describes to the platform how the PIN
/// is laid into a VERIFY command (ISO 7816-4, section 7.5.6); the login itself goes through the session's
/// provider, with the PIN that the platform has filled in. Nothing throws.
class MirelSCTokenAuth {
 public:
  explicit MirelSCTokenAuth(PlatformServices services) noexcept;

  /// Runs `super`, the platform's `init`, then sets card, command and PIN format of `operation`. `session`:
  /// the session that asked; may be null. False when `super` refuses; then nothing is set.
  [[nodiscard]] bool initWithSession(const std::shared_ptr<MirelSCTokenSession>& session,
                                     TKTokenSmartCardPINAuthOperation& operation,
                                     const std::function<bool()>& super) noexcept;

  /// The session that asked for it; null before a successful initialisation. Set once.
  [[nodiscard]] std::shared_ptr<MirelSCTokenSession> session() const noexcept { return session_; }

  /// Logs in with the PIN of `operation`, and lets go of it. On success the session is authenticated and its
  /// card marked as sensitive and in use. On failure `outError` gets kAuthenticationFailed with a text for
  /// the user that tells the tries left.
  [[nodiscard]] bool finishWithError(TKTokenSmartCardPINAuthOperation& operation,
                                     TKErrorPointer outError) noexcept;

 private:
  PlatformServices services_;
  std::shared_ptr<MirelSCTokenSession> session_;
};

}  // namespace mirel
