#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/TokenKit.h"
#include "token/BasedTokenKit.h"
#include "token/FakePinOperation.h"
#include "token/FakeSmartCard.h"

namespace mirel::test {

/// What the fakes do, and what they were told. Shared by a kit with all that it allocates, so that
/// nothing refers back to the kit.
struct TokenKitScript {
  // ---- Switches ----

  /// The base initialiser of tokens refuses.
  bool refusesTokens = false;
  /// The base initialiser of sessions refuses.
  bool refusesSessions = false;
  /// The base initialisers of certificate items refuse.
  bool refusesCertificateItems = false;
  /// The object identifiers for which the base initialiser of key items refuses.
  std::set<std::u16string> refusedKeyItems;
  /// The base initialiser of PIN operations refuses.
  bool refusesPinOperations = false;
  /// Tokens offer no contents to fill.
  bool withoutContents = false;
  /// Called when the base initialiser of a token runs.
  std::function<void()> whenTokenIsInitialised = [] {};
  /// Called when the contents of a token are filled.
  std::function<void()> whenContentsAreFilled = [] {};
  /// The same as whenTokenIsInitialised for PIN operations.
  std::function<void()> whenPinOperationIsInitialised = [] {};

  /// The reader that new sessions are connected to.
  Text readerName{u"Reader A 00"};
};

class FakeKeychainContents final : public TKTokenKeychainContents {
 public:
  explicit FakeKeychainContents(std::shared_ptr<const TokenKitScript> script) : script_{std::move(script)} {}

  void fillWithItems(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) noexcept override {
    script_->whenContentsAreFilled();
    fills.push_back(items);
  }
  [[nodiscard]] std::vector<std::shared_ptr<TKTokenKeychainItem>> items() const noexcept override {
    return fills.empty() ? std::vector<std::shared_ptr<TKTokenKeychainItem>>{} : fills.back();
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> keyForObjectID(const Text& objectID,
                                                                   TKErrorPointer outError) noexcept override;

  /// The items of every time it was filled.
  std::vector<std::vector<std::shared_ptr<TKTokenKeychainItem>>> fills;

 private:
  std::shared_ptr<const TokenKitScript> script_;
};

class FakeSmartCardToken final : public TKSmartCardToken {
 public:
  /// The arguments of the base initialiser.
  struct Initialisation {
    std::shared_ptr<TKSmartCard> smartCard;
    Bytes AID;
    Text instanceID;
    std::shared_ptr<TKSmartCardTokenDriver> driver;
  };

  explicit FakeSmartCardToken(const std::shared_ptr<const TokenKitScript>& script)
      : contents{std::make_shared<FakeKeychainContents>(script)}, script_{script} {}

  [[nodiscard]] bool initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
      const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainContents> keychainContents() const noexcept override;

  /// Each run of the base initialiser.
  std::vector<Initialisation> initialisations;
  const std::shared_ptr<FakeKeychainContents> contents;

 private:
  std::shared_ptr<const TokenKitScript> script_;
};

/// A session with a connection to the card of its own.
class FakeTokenSession final : public TKSmartCardTokenSession {
 public:
  explicit FakeTokenSession(std::shared_ptr<const TokenKitScript> script)
      : card{std::make_shared<FakeSmartCard>(script->readerName)}, script_{std::move(script)} {}

  [[nodiscard]] bool initWithToken(const std::shared_ptr<TKSmartCardToken>& token) noexcept override {
    initialisedWith.push_back(token.get());
    token_ = token;
    return !script_->refusesSessions;
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> token() const noexcept override { return token_.lock(); }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override { return card; }

  /// The token of each run of the base initialiser; only to be compared.
  std::vector<const TKSmartCardToken*> initialisedWith;
  /// Null: there is no connection.
  std::shared_ptr<FakeSmartCard> card;

 private:
  std::shared_ptr<const TokenKitScript> script_;
  std::weak_ptr<TKSmartCardToken> token_;
};

/// What certificate and key items have in common.
template <typename Base>
class FakeItem : public Base {
 public:
  [[nodiscard]] Text objectID() const noexcept override { return objectID_; }
  [[nodiscard]] Text label() const noexcept override { return label_; }
  void setLabel(const Text& label) noexcept override { label_ = label; }
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return constraints_;
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override { constraints_ = constraints; }

  /// What it was made of.
  [[nodiscard]] const std::shared_ptr<SecCertificate>& madeOf() const { return certificate_; }

 protected:
  void make(const std::shared_ptr<SecCertificate>& certificate, const Text& objectID) {
    certificate_ = certificate;
    objectID_ = objectID;
  }

 private:
  std::shared_ptr<SecCertificate> certificate_;
  Text objectID_;
  Text label_;
  std::optional<TKTokenConstraints> constraints_;
};

class FakeKeychainCertificate final : public FakeItem<TKTokenKeychainCertificate> {
 public:
  explicit FakeKeychainCertificate(std::shared_ptr<const TokenKitScript> script)
      : script_{std::move(script)} {}

  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override;
  [[nodiscard]] std::shared_ptr<SecCertificate> certificate() const noexcept override { return madeOf(); }

 private:
  std::shared_ptr<const TokenKitScript> script_;
};

class FakeKeychainKey final : public FakeItem<TKTokenKeychainKey> {
 public:
  explicit FakeKeychainKey(std::shared_ptr<const TokenKitScript> script) : script_{std::move(script)} {}

  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override;
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return madeOf()->keyType(); }
  [[nodiscard]] int keySizeInBits() const noexcept override { return madeOf()->keySizeInBits(); }

  [[nodiscard]] bool canSign() const noexcept override { return canSign_; }
  void setCanSign(bool value) noexcept override { canSign_ = value; }
  [[nodiscard]] bool canDecrypt() const noexcept override { return canDecrypt_; }
  void setCanDecrypt(bool value) noexcept override { canDecrypt_ = value; }
  [[nodiscard]] bool canPerformKeyExchange() const noexcept override { return canPerformKeyExchange_; }
  void setCanPerformKeyExchange(bool value) noexcept override { canPerformKeyExchange_ = value; }
  [[nodiscard]] bool suitableForLogin() const noexcept override { return suitableForLogin_; }
  void setSuitableForLogin(bool value) noexcept override { suitableForLogin_ = value; }

 private:
  std::shared_ptr<const TokenKitScript> script_;
  bool canSign_ = false;
  bool canDecrypt_ = false;
  bool canPerformKeyExchange_ = false;
  bool suitableForLogin_ = false;
};

/// Allocates fakes. Keeps no item, because items keep the kit.
class FakeTokenKit final : public BasedTokenKit {
 public:
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> allocSmartCardToken() noexcept override;
  [[nodiscard]] std::shared_ptr<TKSmartCardTokenSession> allocTokenSession() noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainCertificate> allocKeychainCertificate() noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> allocKeychainKey() noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenSmartCardPINAuthOperation> allocPINAuthOperation() noexcept override;
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> allocPINFormat() noexcept override;

  const std::shared_ptr<TokenKitScript> script = std::make_shared<TokenKitScript>();

  /// What was allocated last; null when nobody uses it any more.
  [[nodiscard]] std::shared_ptr<FakeSmartCardToken> lastToken() const { return lastToken_.lock(); }
  [[nodiscard]] std::shared_ptr<FakeTokenSession> lastSession() const { return lastSession_.lock(); }
  [[nodiscard]] std::shared_ptr<FakePinOperation> lastPinOperation() const {
    return lastPinOperation_.lock();
  }

 private:
  std::weak_ptr<FakeSmartCardToken> lastToken_;
  std::weak_ptr<FakeTokenSession> lastSession_;
  std::weak_ptr<FakePinOperation> lastPinOperation_;
};

}  // namespace mirel::test
