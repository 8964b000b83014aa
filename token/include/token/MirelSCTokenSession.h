#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "token/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;
class Log;
class MirelSCToken;

/// One client's session on a token: what the system asks for on that client's behalf. It keeps the token's
/// provider. The platform's session owns it, and hands itself to each operation as `session`: the one that
/// was initialised, whichever the system names. Keys are named by their object identifiers.
///
/// Every use of a key needs a user who has entered the PIN in this session, on the connection to the card
/// that is there now. Nothing throws.
///
/// Sessions of one token, and one session in several threads, may be used at once: what reaches the provider
/// waits for the provider's gate. `supportsOperation` and the key exchange do not reach it and never wait.
class MirelSCTokenSession {
 public:
  // Values of `authState`.
  static constexpr std::int64_t kNotAuthenticated = 0;
  static constexpr std::int64_t kAuthenticated = 1;
  /// Refuses keys that ask for the PIN each time.
  /// Oddity: nothing ever sets it.
  static constexpr std::int64_t kUsed = 2;

  explicit MirelSCTokenSession(PlatformServices services) noexcept;
  MirelSCTokenSession(const MirelSCTokenSession&) = delete;
  MirelSCTokenSession& operator=(const MirelSCTokenSession&) = delete;

  /// Runs `super`, the platform's `initWithToken:`, and takes the token's provider. False when `super`
  /// refuses. `token`: null for one that is not ours. Without a provider the session is made all the same.
  [[nodiscard]] bool initWithToken(const MirelSCToken* token, const std::function<bool()>& super) noexcept;

  /// kNotAuthenticated at first; never goes back to it. Atomic accessors.
  [[nodiscard]] std::int64_t authState() const noexcept { return authState_; }
  void setAuthState(std::int64_t value) noexcept { authState_ = value; }

  /// The provider that every operation on the card goes through; may be null. Atomic accessors.
  [[nodiscard]] std::shared_ptr<CryptTKitSProvider> sp() const noexcept { return sp_.get(); }
  void setSp(std::shared_ptr<CryptTKitSProvider> provider) noexcept { sp_.set(std::move(provider)); }

  // ---- What the system asks. Data and results are never null where null has no meaning of its own. ----

  /// True when the user is to be asked for the PIN by a MirelSCTokenAuth on this session: for the constraints
  /// "PIN" and "PINAlways", whatever the operation. For any other, and for null, false and kBadParameter.
  [[nodiscard]] bool beginAuthForOperation(const Text& constraint, TKErrorPointer outError) noexcept;

  /// What the key's flags and the table of supported algorithms say; the type of the key does not matter.
  /// Never asks for a PIN.
  [[nodiscard]] bool supportsOperation(TKSmartCardTokenSession& session, TKTokenOperation operation,
                                       const Text& keyObjectID,
                                       const TKTokenKeyAlgorithm& algorithm) noexcept;

  /// Null when the user is not authenticated (kAuthenticationNeeded), the key is unknown or must not be used
  /// (kTokenNotFound), or the algorithm is none that is signed with (no error). Else what the provider
  /// signed: empty, and no error, when it refused.
  [[nodiscard]] Bytes signData(TKSmartCardTokenSession& session, const Bytes& dataToSign,
                               const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                               TKErrorPointer outError) noexcept;

  /// The same for decrypting.
  [[nodiscard]] Bytes decryptData(TKSmartCardTokenSession& session, const Bytes& ciphertext,
                                  const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                  TKErrorPointer outError) noexcept;

  /// Always null: without an error when the key is known, else with kTokenNotFound.
  [[nodiscard]] Bytes performKeyExchangeWithPublicKey(TKSmartCardTokenSession& session,
                                                      const Text& keyObjectID,
                                                      const TKTokenKeyAlgorithm& algorithm,
                                                      TKErrorPointer outError) noexcept;

  // ---- Within the session ----

  /// Whether the key may be used now. False with the platform's error when it is unknown, with
  /// kAuthenticationNeeded when the user must enter the PIN first.
  [[nodiscard]] bool authenticatedKeyForObjectID(TKSmartCardTokenSession& session, const Text& keyObjectID,
                                                 TKErrorPointer outError) noexcept;
  /// The same; data and tag are not used.
  [[nodiscard]] bool generalAuthenticateWithData(TKSmartCardTokenSession& session, const Bytes& data,
                                                 std::int64_t dataTag, const Text& keyObjectID,
                                                 TKErrorPointer outError) noexcept;

 private:
  PlatformServices services_;
  std::atomic<std::int64_t> authState_{kNotAuthenticated};
  AtomicProperty<std::shared_ptr<CryptTKitSProvider>> sp_;
};

/// Writes the printable name of the algorithm to the process log; nothing for an algorithm without one. Asks
/// for every algorithm with a name, in the order of `kSecKeyAlgorithms`.
void algorithmToPrint(const TKTokenKeyAlgorithm& algorithm, Log& log) noexcept;

}  // namespace mirel
