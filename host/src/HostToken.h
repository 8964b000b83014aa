#pragma once

/// The platform's side of a token where there is no CryptoTokenKit: readers' connections, the keychain
/// contents of one token, sessions and requests for a PIN, around the token layer's own objects.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/PlatformServices.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"
#include "token/TokenKit.h"

namespace mirel {

/// A connection to the card in the reader of that name. Several threads may use the marks.
class HostSmartCard final : public TKSmartCard {
 public:
  explicit HostSmartCard(Text readerName) : name_{std::move(readerName)} {}
  [[nodiscard]] Text name() const noexcept override { return name_; }
  [[nodiscard]] std::uint8_t cla() const noexcept override { return 0; }
  void setSensitive(bool value) noexcept override { sensitive_ = value; }
  [[nodiscard]] bool hasContext() const noexcept override { return hasContext_; }
  void setContext(bool) noexcept override { hasContext_ = true; }

  [[nodiscard]] bool sensitive() const noexcept { return sensitive_; }
  /// What the platform does when the card is reset.
  void dropContext() noexcept { hasContext_ = false; }

 private:
  Text name_;
  std::atomic<bool> sensitive_{false};
  std::atomic<bool> hasContext_{false};
};

/// What one token publishes. The keychain knows RSA keys and those on curves over prime fields; of keys with
/// one identifier it finds the first.
class HostKeychainContents final : public TKTokenKeychainContents {
 public:
  using Item = std::variant<TKTokenKeychainCertificate, MirelCTKTokenKeychainKey>;

  explicit HostKeychainContents(std::shared_ptr<Log> log) : log_{std::move(log)} {}

  void append(const TKTokenKeychainCertificate& item) noexcept override;
  [[nodiscard]] bool initKey(const MirelCTKTokenKeychainKey& item) noexcept override;
  void append(const MirelCTKTokenKeychainKey& item) noexcept override;
  void fillWithItems() noexcept override;

  /// False until a token has filled it, be it with nothing.
  [[nodiscard]] bool filled() const noexcept { return published_.has_value(); }
  /// In published order.
  [[nodiscard]] std::vector<Item> items() const;
  /// Nothing, and kObjectNotFound, when there is none.
  [[nodiscard]] std::optional<MirelCTKTokenKeychainKey> keyForObjectID(const Text& objectID,
                                                                       TKErrorPointer outError) const;

 private:
  std::shared_ptr<Log> log_;
  std::vector<Item> appended_;
  std::optional<std::vector<Item>> published_;
  std::map<std::u16string, std::size_t, std::less<>> keys_;  // the place of the first of each name
};

class HostTokenSession;

/// The token of an inserted card. Keep it in a shared pointer.
class HostToken final : public std::enable_shared_from_this<HostToken> {
 public:
  /// The token of the card in the reader, as the driver makes it; null when it makes none. `services`: those
  /// of the token and all that belongs to it. `outError`: see MirelSCToken::initWithSmartCard.
  [[nodiscard]] static std::shared_ptr<HostToken> createdForReader(const PlatformServices& services,
                                                                   const Text& readerName,
                                                                   TKErrorPointer outError);

  HostToken(const PlatformServices& services, Text readerName);

  /// A new client's session with a connection of its own to the card. Never null.
  [[nodiscard]] std::shared_ptr<HostTokenSession> createSessionWithError(TKErrorPointer outError);

  [[nodiscard]] MirelSCToken& core() noexcept { return core_; }
  /// Null until the token has been initialised.
  [[nodiscard]] const Text& instanceID() const noexcept { return instanceID_; }
  [[nodiscard]] const HostKeychainContents& contents() const noexcept { return contents_; }
  /// The card layer's name of the key that it takes for that object identifier; null when it has none. As
  /// the card was listed last; no call of the module.
  [[nodiscard]] Text nameInCard(const Text& keyObjectID);
  [[nodiscard]] Text description() const;

 private:
  [[nodiscard]] bool initWithSmartCard(TKErrorPointer outError);

  PlatformServices services_;
  Text readerName_;
  Text instanceID_;
  HostKeychainContents contents_;
  MirelSCToken core_;
};

class HostPINAuthOperation;

/// One client's session on a token. Keep it in a shared pointer.
class HostTokenSession final : public TKSmartCardTokenSession,
                               public std::enable_shared_from_this<HostTokenSession> {
 public:
  HostTokenSession(const PlatformServices& services, Text readerName, std::weak_ptr<HostToken> token);

  /// False when the token has gone.
  [[nodiscard]] bool initWithToken();

  [[nodiscard]] HostSmartCard& smartCard() noexcept override { return card_; }
  [[nodiscard]] std::optional<MirelCTKTokenKeychainKey> keyForObjectID(
      const Text& objectID, TKErrorPointer outError) noexcept override;

  // What a client's request becomes; see MirelSCTokenSession.
  /// Null when the token begins no authentication for that constraint.
  [[nodiscard]] std::shared_ptr<HostPINAuthOperation> beginAuthForOperation(const Text& constraint,
                                                                            TKErrorPointer outError);
  [[nodiscard]] bool supportsOperation(TKTokenOperation operation, const Text& keyObjectID,
                                       const TKTokenKeyAlgorithm& algorithm);
  [[nodiscard]] Bytes signData(const Bytes& dataToSign, const Text& keyObjectID,
                               const TKTokenKeyAlgorithm& algorithm, TKErrorPointer outError);
  [[nodiscard]] Bytes decryptData(const Bytes& ciphertext, const Text& keyObjectID,
                                  const TKTokenKeyAlgorithm& algorithm, TKErrorPointer outError);
  [[nodiscard]] Bytes performKeyExchangeWithPublicKey(const Text& keyObjectID,
                                                      const TKTokenKeyAlgorithm& algorithm,
                                                      TKErrorPointer outError);

  [[nodiscard]] const std::shared_ptr<MirelSCTokenSession>& core() const noexcept { return core_; }
  [[nodiscard]] Text description() const;

 private:
  PlatformServices services_;
  HostSmartCard card_;
  std::weak_ptr<HostToken> token_;
  std::shared_ptr<MirelSCTokenSession> core_;
};

/// A request for a PIN. The host sends no command to the card: the login is the token's.
class HostPINAuthOperation final : public TKTokenSmartCardPINAuthOperation {
 public:
  /// `session`: the one that asked.
  HostPINAuthOperation(const PlatformServices& services, std::shared_ptr<HostTokenSession> session);

  [[nodiscard]] TKSmartCard& sessionSmartCard() noexcept override { return session_->smartCard(); }
  [[nodiscard]] TKSmartCard& smartCard() noexcept override { return session_->smartCard(); }
  void setSmartCard(const TKSmartCard&) noexcept override {}  // always the session's
  void setAPDUTemplate(const Bytes&) noexcept override {}
  void setPINFormat(int) noexcept override {}
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() noexcept override { return pin_; }
  void clearPIN() noexcept override { pin_ = nullptr; }

  /// Enters the PIN. True when the user is authenticated.
  [[nodiscard]] bool finishWithPIN(std::shared_ptr<const SecretText> pin, TKErrorPointer outError);

 private:
  std::shared_ptr<HostTokenSession> session_;
  std::shared_ptr<const SecretText> pin_;
  MirelSCTokenAuth core_;
};

/// A request for exactly that algorithm.
class HostKeyAlgorithm final : public TKTokenKeyAlgorithm {
 public:
  explicit HostKeyAlgorithm(SecKeyAlgorithm algorithm) : algorithm_{algorithm} {}
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
    return algorithm == algorithm_;
  }
  [[nodiscard]] Text description() const noexcept override;

 private:
  SecKeyAlgorithm algorithm_;
};

/// What the token says, in the language of the user, to stand within a line that is English.
[[nodiscard]] std::string wordsOf(const std::optional<TKError>& error);

}  // namespace mirel
