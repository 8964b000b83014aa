#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;
class Log;
class MirelSCToken;

/// One client's session on a token: what the system asks for on that client's behalf. It builds on the
/// platform's session, keeps the token's provider, and is its own delegate, so the session that the
/// delegate's operations name is not looked at. Keep it in a shared pointer.
///
/// Every use of a key needs a user who has entered the PIN in this session, on the connection to the card
/// that is there now. Nothing throws.
///
/// Sessions of one token, and one session in several threads, may be used at once: what reaches the provider
/// waits for the provider's gate. `supportsOperation` and the key exchange do not reach it and never wait.
class MirelSCTokenSession final : public TKSmartCardTokenSession,
                                  public TKTokenSessionDelegate,
                                  public std::enable_shared_from_this<MirelSCTokenSession> {
 public:
  // Values of `authState`.
  static constexpr std::int64_t kNotAuthenticated = 0;
  static constexpr std::int64_t kAuthenticated = 1;
  /// Refuses keys that ask for the PIN each time.
  /// Oddity: nothing ever sets it.
  static constexpr std::int64_t kUsed = 2;

  /// `base`: the platform's session, allocated and not initialised.
  MirelSCTokenSession(PlatformServices services, std::shared_ptr<TKSmartCardTokenSession> base) noexcept;

  /// False when the platform refuses the session. A token without a provider gives a session without
  /// one.
  [[nodiscard]] bool initWithToken(const std::shared_ptr<MirelSCToken>& token) noexcept;

  /// kNotAuthenticated at first; never goes back to it. Atomic accessors.
  [[nodiscard]] std::int64_t authState() const noexcept { return authState_; }
  void setAuthState(std::int64_t value) noexcept { authState_ = value; }

  /// The provider that every operation on the card goes through; may be null. Atomic accessors.
  [[nodiscard]] std::shared_ptr<CryptTKitSProvider> sp() const noexcept { return sp_.get(); }
  void setSp(std::shared_ptr<CryptTKitSProvider> provider) noexcept { sp_.set(std::move(provider)); }

  // ---- The delegate's operations. Data and results are never null where null has no meaning of its own.
  // ----

  /// A MirelSCTokenAuth for the constraints "PIN" and "PINAlways", whatever the operation; null when the
  /// platform refuses it. For any other constraint null and kBadParameter.
  [[nodiscard]] std::shared_ptr<TKTokenAuthOperation> beginAuthForOperation(
      const std::shared_ptr<TKTokenSession>& session, TKTokenOperation operation, const Text& constraint,
      TKErrorPointer outError) noexcept override;

  /// What the key's flags and the table of supported algorithms say; the type of the key does not matter.
  [[nodiscard]] bool supportsOperation(const std::shared_ptr<TKTokenSession>& session,
                                       TKTokenOperation operation, const Text& keyObjectID,
                                       const TKTokenKeyAlgorithm& algorithm) noexcept override;

  /// Null when the user is not authenticated (kAuthenticationNeeded), the key is unknown or must not be used
  /// (kTokenNotFound), or the algorithm is none that is signed with (no error). Else what the provider
  /// signed: empty, and no error, when it refused.
  [[nodiscard]] Bytes signData(const std::shared_ptr<TKTokenSession>& session, const Bytes& dataToSign,
                               const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                               TKErrorPointer outError) noexcept override;

  /// The same for decrypting.
  [[nodiscard]] Bytes decryptData(const std::shared_ptr<TKTokenSession>& session, const Bytes& ciphertext,
                                  const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                  TKErrorPointer outError) noexcept override;

  /// Always null: without an error when the key is known, else with kTokenNotFound.
  [[nodiscard]] Bytes performKeyExchangeWithPublicKey(
      const std::shared_ptr<TKTokenSession>& session, const Bytes& otherPartyPublicKey,
      const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
      const std::shared_ptr<TKTokenKeyExchangeParameters>& parameters,
      TKErrorPointer outError) noexcept override;

  // ---- Within the session ----

  /// The key, if it may be used now. Null with the platform's error when it is unknown, with
  /// kAuthenticationNeeded when the user must enter the PIN first.
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> authenticatedKeyForObjectID(
      const Text& keyObjectID, TKErrorPointer outError) noexcept;

  /// The same; data and tag are not used.
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> generalAuthenticateWithData(
      const Bytes& data, std::uint8_t dataTag, const Text& keyObjectID, TKErrorPointer outError) noexcept;

  // The platform's session.
  [[nodiscard]] bool initWithToken(const std::shared_ptr<TKSmartCardToken>& token) noexcept override {
    return base_->initWithToken(token);
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> token() const noexcept override { return base_->token(); }
  [[nodiscard]] void* platformObject() const noexcept override { return base_->platformObject(); }
  [[nodiscard]] Text description() const noexcept override { return base_->description(); }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override {
    return base_->smartCard();
  }

 private:
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> keyForObjectID(const Text& keyObjectID,
                                                                   TKErrorPointer outError) const noexcept;
  [[nodiscard]] Text readerName() const noexcept;

  PlatformServices services_;
  std::shared_ptr<TKSmartCardTokenSession> base_;
  std::atomic<std::int64_t> authState_{kNotAuthenticated};
  AtomicProperty<std::shared_ptr<CryptTKitSProvider>> sp_;
};

/// Writes the printable name of the algorithm to the process log; nothing for an algorithm without one.
void algorithmToPrint(const TKTokenKeyAlgorithm& algorithm, Log& log) noexcept;

}  // namespace mirel
