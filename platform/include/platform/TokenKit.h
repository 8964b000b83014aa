#pragma once

/// The token framework's objects that this system speaks to, as abstract classes with the platform's
/// names. On macOS adapters implement them on CryptoTokenKit; elsewhere the host does.
///
/// Conventions: objects are shared; a null one means "none". `outError` may be null; where it is not
/// and the callee reports an error, it is set, and it is left alone otherwise. Nothing throws.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Certificate.h"
#include "platform/Text.h"

namespace mirel {

/// The domain of all errors that a token reports.
inline constexpr std::u16string_view kTKErrorDomain = u"CryptoTokenKit";

enum class TKErrorCode : std::int64_t {
  kNotImplemented = -1,
  kCommunicationError = -2,
  kCorruptedData = -3,
  kCanceledByUser = -4,
  kAuthenticationFailed = -5,
  kObjectNotFound = -6,
  kTokenNotFound = -7,
  kBadParameter = -8,
  kAuthenticationNeeded = -9,
};

/// An error object of the platform: domain, code and (optional) text for the user.
struct TKError {
  Text domain;
  std::int64_t code = 0;
  Text localizedDescription;  ///< null: none

  [[nodiscard]] bool operator==(const TKError&) const noexcept = default;
};

/// An out-argument for an error: may be null; empty until an error is set.
using TKErrorPointer = std::optional<TKError>*;

/// What a client can ask of a key; the numbers are the platform's.
enum class TKTokenOperation : std::int64_t {
  kNone = 0,
  kReadData = 1,
  kSignData = 2,
  kDecryptData = 3,
  kPerformKeyExchange = 4,
};

class TKTokenObject {
 public:
  TKTokenObject() = default;
  TKTokenObject(const TKTokenObject&) = delete;
  TKTokenObject& operator=(const TKTokenObject&) = delete;
  virtual ~TKTokenObject() = default;
};

/// A reader.
class TKSmartCardSlot : public TKTokenObject {
 public:
  /// The reader's name.
  [[nodiscard]] virtual Text name() const noexcept = 0;
};

/// A card in a reader.
class TKSmartCard : public TKTokenObject {
 public:
  /// Never null.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardSlot> slot() const noexcept = 0;
};

/// From operation to the name of what must happen before it.
using TKTokenConstraints = std::map<TKTokenOperation, Text>;

/// An item that a token publishes in the keychain.
class TKTokenKeychainItem : public TKTokenObject {
 public:
  [[nodiscard]] virtual Text objectID() const noexcept = 0;

  [[nodiscard]] virtual Text label() const noexcept = 0;
  virtual void setLabel(const Text& label) noexcept = 0;

  /// Nothing until it has been set.
  [[nodiscard]] virtual std::optional<TKTokenConstraints> constraints() const noexcept = 0;
  virtual void setConstraints(const TKTokenConstraints& constraints) noexcept = 0;

  /// The platform's own object behind this one, as an untyped pointer that the adapters understand
  /// (not owned by the caller); null where there is none.
  [[nodiscard]] virtual void* platformObject() const noexcept { return nullptr; }
};

class TKTokenKeychainCertificate : public TKTokenKeychainItem {
 public:
  /// The base initialiser: false when the platform refuses (then the object must not be used).
  [[nodiscard]] virtual bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                                 const Text& objectID) noexcept = 0;
  /// Null before a successful `initWithCertificate`.
  [[nodiscard]] virtual std::shared_ptr<SecCertificate> certificate() const noexcept = 0;
};

class TKTokenKeychainKey : public TKTokenKeychainItem {
 public:
  /// The base initialiser: takes key type and size from the certificate. False when the platform
  /// refuses, for instance a kind of key that the keychain has no name for (then the object must not
  /// be used).
  [[nodiscard]] virtual bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                                 const Text& objectID) noexcept = 0;

  [[nodiscard]] virtual CertificateKeyType keyType() const noexcept = 0;
  [[nodiscard]] virtual int keySizeInBits() const noexcept = 0;

  [[nodiscard]] virtual bool canSign() const noexcept = 0;
  virtual void setCanSign(bool value) noexcept = 0;
  [[nodiscard]] virtual bool canDecrypt() const noexcept = 0;
  virtual void setCanDecrypt(bool value) noexcept = 0;
  [[nodiscard]] virtual bool canPerformKeyExchange() const noexcept = 0;
  virtual void setCanPerformKeyExchange(bool value) noexcept = 0;
  [[nodiscard]] virtual bool suitableForLogin() const noexcept = 0;
  virtual void setSuitableForLogin(bool value) noexcept = 0;
};

/// What one token publishes.
class TKTokenKeychainContents : public TKTokenObject {
 public:
  /// Replaces all items of the token by these, in this order.
  virtual void fillWithItems(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) noexcept = 0;
  [[nodiscard]] virtual std::vector<std::shared_ptr<TKTokenKeychainItem>> items() const noexcept = 0;

  /// The key with that object identifier; null and kObjectNotFound when there is none.
  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainKey> keyForObjectID(
      const Text& objectID, TKErrorPointer outError) noexcept = 0;
};

class TKSmartCardTokenDriver;
class TKSmartCardToken;
class TKTokenSession;

/// What a token answers to the system.
class TKTokenDelegate {
 public:
  TKTokenDelegate() = default;
  TKTokenDelegate(const TKTokenDelegate&) = delete;
  TKTokenDelegate& operator=(const TKTokenDelegate&) = delete;
  virtual ~TKTokenDelegate() = default;

  /// A new session on the token, or null. `outError` may point to an error that the system already
  /// has.
  [[nodiscard]] virtual std::shared_ptr<TKTokenSession> createSessionWithError(
      const std::shared_ptr<TKSmartCardToken>& token, TKErrorPointer outError) noexcept = 0;
};

/// The token of one inserted card.
class TKSmartCardToken : public TKTokenObject {
 public:
  /// The base initialiser: registers the token under its instance identifier. False when the system
  /// refuses. `AID` may be null.
  [[nodiscard]] virtual bool initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
      const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept = 0;

  /// Null when the token publishes nothing yet and the system offers no contents to fill.
  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainContents> keychainContents() const noexcept = 0;
};

/// A client's authentication context on a token.
class TKTokenSession : public TKTokenObject {
 public:
  /// The base initialiser. False when the system refuses.
  [[nodiscard]] virtual bool initWithToken(const std::shared_ptr<TKSmartCardToken>& token) noexcept = 0;
};

/// The driver object that the system holds for the whole process.
class TKSmartCardTokenDriver : public TKTokenObject {};

/// What the driver answers to the system.
class TKSmartCardTokenDriverDelegate {
 public:
  TKSmartCardTokenDriverDelegate() = default;
  TKSmartCardTokenDriverDelegate(const TKSmartCardTokenDriverDelegate&) = delete;
  TKSmartCardTokenDriverDelegate& operator=(const TKSmartCardTokenDriverDelegate&) = delete;
  virtual ~TKSmartCardTokenDriverDelegate() = default;

  /// The token of a card that has just been inserted, or null (an error, or not our card). `AID` may
  /// be null.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardToken> createTokenForSmartCard(
      const std::shared_ptr<TKSmartCardTokenDriver>& driver, const std::shared_ptr<TKSmartCard>& smartCard,
      const Bytes& AID, TKErrorPointer outError) noexcept = 0;
};

/// Allocates the platform's objects, not yet initialised, that this system's own objects build on.
/// Each is new and never null.
class TokenKit {
 public:
  TokenKit() = default;
  TokenKit(const TokenKit&) = delete;
  TokenKit& operator=(const TokenKit&) = delete;
  virtual ~TokenKit() = default;

  [[nodiscard]] virtual std::shared_ptr<TKSmartCardToken> allocSmartCardToken() noexcept = 0;
  [[nodiscard]] virtual std::shared_ptr<TKTokenSession> allocTokenSession() noexcept = 0;
  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainCertificate> allocKeychainCertificate() noexcept = 0;
  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainKey> allocKeychainKey() noexcept = 0;
};

}  // namespace mirel
