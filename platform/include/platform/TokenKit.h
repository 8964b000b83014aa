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

#include "platform/Bytes.h"
#include "platform/Certificate.h"
#include "platform/SecKeyAlgorithm.h"
#include "platform/SecretText.h"
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
  /// The platform's own object, for an error that has come through the platform; null for one of ours.
  std::shared_ptr<const void> platformError{};
  Text description{};  ///< what the platform prints for that object; null without one

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

  /// The platform's own object behind this one, as an untyped pointer that the adapters understand (not
  /// owned by the caller); null where there is none.
  [[nodiscard]] virtual void* platformObject() const noexcept { return nullptr; }

  /// What the platform prints for its object; null where there is none.
  [[nodiscard]] virtual Text description() const noexcept { return {}; }
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

  /// The class byte of commands to the card (ISO 7816-4, section 5.4.1).
  [[nodiscard]] virtual std::uint8_t cla() const noexcept = 0;

  // Several threads may read and set the two marks at once, as with the platform's own atomic properties.

  /// A sensitive card is reset before another application gets it.
  [[nodiscard]] virtual bool sensitive() const noexcept = 0;
  virtual void setSensitive(bool value) noexcept = 0;

  /// A mark that its user may leave on the connection to the card; nothing when there is none, as after a
  /// reset of the card. (An object of another kind than a boolean reads as true.)
  [[nodiscard]] virtual std::optional<bool> context() const noexcept = 0;
  virtual void setContext(std::optional<bool> value) noexcept = 0;
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

  /// The token it was made for; null when that has gone.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardToken> token() const noexcept = 0;
};

class TKSmartCardTokenSession : public TKTokenSession {
 public:
  /// The session's connection to the card; null when there is none.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCard> smartCard() const noexcept = 0;
};

/// An algorithm as a client asked for it.
class TKTokenKeyAlgorithm : public TKTokenObject {
 public:
  /// True when data arrive, and results are expected, in the form of exactly that algorithm.
  [[nodiscard]] virtual bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept = 0;
};

/// What a key exchange is to be made with.
class TKTokenKeyExchangeParameters : public TKTokenObject {};

/// An authentication that is under way.
class TKTokenAuthOperation : public TKTokenObject {
 public:
  /// Called when what it needs has been filled in. True when the user is authenticated.
  [[nodiscard]] virtual bool finishWithError(TKErrorPointer outError) noexcept = 0;
};

enum class TKSmartCardPINCharset { kNumeric = 0, kAlphanumeric = 1, kUpperAlphanumeric = 2 };
enum class TKSmartCardPINEncoding { kBinary = 0, kASCII = 1, kBCD = 2 };
enum class TKSmartCardPINJustification { kLeft = 0, kRight = 1 };

/// How a PIN is laid into a command. New ones have the platform's defaults: numeric, ASCII, 4 to 8
/// characters, a block of 8 bytes, left-justified, offsets and length field 0.
class TKSmartCardPINFormat : public TKTokenObject {
 public:
  [[nodiscard]] virtual TKSmartCardPINCharset charset() const noexcept = 0;
  [[nodiscard]] virtual TKSmartCardPINEncoding encoding() const noexcept = 0;
  [[nodiscard]] virtual int minPINLength() const noexcept = 0;        ///< characters
  [[nodiscard]] virtual int maxPINLength() const noexcept = 0;        ///< characters
  [[nodiscard]] virtual int PINBlockByteLength() const noexcept = 0;  ///< bytes
  [[nodiscard]] virtual TKSmartCardPINJustification PINJustification() const noexcept = 0;
  [[nodiscard]] virtual int PINBitOffset() const noexcept = 0;  ///< bits
  virtual void setPINBitOffset(int value) noexcept = 0;
  [[nodiscard]] virtual int PINLengthBitOffset() const noexcept = 0;  ///< bits
  [[nodiscard]] virtual int PINLengthBitSize() const noexcept = 0;    ///< bits; 0: no length is written
};

/// An authentication by a PIN, which the system asks the user for.
class TKTokenSmartCardPINAuthOperation : public TKTokenAuthOperation {
 public:
  /// The base initialiser. False when the system refuses (then the object must not be used).
  [[nodiscard]] virtual bool init() noexcept = 0;

  [[nodiscard]] virtual std::shared_ptr<TKSmartCard> smartCard() const noexcept = 0;
  virtual void setSmartCard(const std::shared_ptr<TKSmartCard>& card) noexcept = 0;

  /// The command that the PIN is laid into; null: none.
  [[nodiscard]] virtual Bytes APDUTemplate() const noexcept = 0;
  virtual void setAPDUTemplate(const Bytes& command) noexcept = 0;

  [[nodiscard]] virtual std::shared_ptr<TKSmartCardPINFormat> PINFormat() const noexcept = 0;
  virtual void setPINFormat(const std::shared_ptr<TKSmartCardPINFormat>& format) noexcept = 0;

  /// What the user has entered; null until then, and again when the operation has been finished.
  [[nodiscard]] virtual std::shared_ptr<const SecretText> PIN() const noexcept = 0;
  virtual void setPIN(const std::shared_ptr<const SecretText>& pin) noexcept = 0;
};

/// What a session answers to the system, for the client it was made for. Keys are named by their object
/// identifiers.
class TKTokenSessionDelegate {
 public:
  TKTokenSessionDelegate() = default;
  TKTokenSessionDelegate(const TKTokenSessionDelegate&) = delete;
  TKTokenSessionDelegate& operator=(const TKTokenSessionDelegate&) = delete;
  virtual ~TKTokenSessionDelegate() = default;

  /// The operation that authenticates the user, or null. `constraint`: what the key asks for before the
  /// operation; null when that is no text.
  [[nodiscard]] virtual std::shared_ptr<TKTokenAuthOperation> beginAuthForOperation(
      const std::shared_ptr<TKTokenSession>& session, TKTokenOperation operation, const Text& constraint,
      TKErrorPointer outError) noexcept = 0;

  /// Whether the key can do that. Never asks for a PIN.
  [[nodiscard]] virtual bool supportsOperation(const std::shared_ptr<TKTokenSession>& session,
                                               TKTokenOperation operation, const Text& keyObjectID,
                                               const TKTokenKeyAlgorithm& algorithm) noexcept = 0;

  /// The signature, or null.
  [[nodiscard]] virtual Bytes signData(const std::shared_ptr<TKTokenSession>& session,
                                       const Bytes& dataToSign, const Text& keyObjectID,
                                       const TKTokenKeyAlgorithm& algorithm,
                                       TKErrorPointer outError) noexcept = 0;

  /// The plain text, or null.
  [[nodiscard]] virtual Bytes decryptData(const std::shared_ptr<TKTokenSession>& session,
                                          const Bytes& ciphertext, const Text& keyObjectID,
                                          const TKTokenKeyAlgorithm& algorithm,
                                          TKErrorPointer outError) noexcept = 0;

  /// The shared secret, or null. `parameters` may be null.
  [[nodiscard]] virtual Bytes performKeyExchangeWithPublicKey(
      const std::shared_ptr<TKTokenSession>& session, const Bytes& otherPartyPublicKey,
      const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
      const std::shared_ptr<TKTokenKeyExchangeParameters>& parameters, TKErrorPointer outError) noexcept = 0;
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

struct PlatformServices;

/// Makes the objects that a token consists of.
class TokenKit {
 public:
  TokenKit() = default;
  TokenKit(const TokenKit&) = delete;
  TokenKit& operator=(const TokenKit&) = delete;
  virtual ~TokenKit() = default;

  // ---- This system's own objects, each new and initialised as its class says; null when that fails. They
  // use `services`. ----

  [[nodiscard]] virtual std::shared_ptr<TKSmartCardToken> newToken(
      const PlatformServices& services, const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID,
      const std::shared_ptr<TKSmartCardTokenDriver>& driver, TKErrorPointer outError) noexcept = 0;

  /// `token`: one that a token kit has made.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardTokenSession> newTokenSession(
      const PlatformServices& services, const std::shared_ptr<TKSmartCardToken>& token) noexcept = 0;

  /// `session`: one that a token kit has made.
  [[nodiscard]] virtual std::shared_ptr<TKTokenSmartCardPINAuthOperation> newPINAuthOperation(
      const PlatformServices& services, const std::shared_ptr<TKSmartCardTokenSession>& session) noexcept = 0;

  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainKey> newKeychainKey(
      const PlatformServices& services, const std::shared_ptr<SecCertificate>& certificate,
      const Text& objectID, const Text& certificateID, bool alwaysAuthenticate) noexcept = 0;

  // ---- The platform's own objects, each new and never null. ----

  /// Not yet initialised.
  [[nodiscard]] virtual std::shared_ptr<TKTokenKeychainCertificate> allocKeychainCertificate() noexcept = 0;
  /// Needs no further initialisation.
  [[nodiscard]] virtual std::shared_ptr<TKSmartCardPINFormat> allocPINFormat() noexcept = 0;
};

}  // namespace mirel
