#include "HostTokenKit.h"

#include <atomic>

#include "platform/AtomicProperty.h"

namespace mirel {
namespace {

class HostSlot final : public TKSmartCardSlot {
 public:
  explicit HostSlot(Text name) : name_{std::move(name)} {}
  [[nodiscard]] Text name() const noexcept override { return name_; }

 private:
  Text name_;
};

class HostCard final : public TKSmartCard {
 public:
  explicit HostCard(const Text& readerName) : slot_{std::make_shared<HostSlot>(readerName)} {}
  [[nodiscard]] std::shared_ptr<TKSmartCardSlot> slot() const noexcept override { return slot_; }
  [[nodiscard]] std::uint8_t cla() const noexcept override { return 0; }
  [[nodiscard]] bool sensitive() const noexcept override { return sensitive_; }
  void setSensitive(bool value) noexcept override { sensitive_ = value; }
  [[nodiscard]] std::optional<bool> context() const noexcept override { return context_.get(); }
  void setContext(std::optional<bool> value) noexcept override { context_.set(value); }

 private:
  std::shared_ptr<TKSmartCardSlot> slot_;
  std::atomic<bool> sensitive_{false};
  AtomicProperty<std::optional<bool>> context_;
};

/// What certificate and key items have in common.
template <typename Base>
class HostItem : public Base {
 public:
  [[nodiscard]] Text objectID() const noexcept override { return objectID_; }
  [[nodiscard]] Text label() const noexcept override { return label_; }
  void setLabel(const Text& label) noexcept override { label_ = label; }
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return constraints_;
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override { constraints_ = constraints; }

 protected:
  void setObjectID(const Text& objectID) noexcept { objectID_ = objectID; }

 private:
  Text objectID_;
  Text label_;
  std::optional<TKTokenConstraints> constraints_;
};

class HostKeychainCertificate final : public HostItem<TKTokenKeychainCertificate> {
 public:
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override {
    certificate_ = certificate;
    setObjectID(objectID);
    return certificate_ != nullptr;
  }
  [[nodiscard]] std::shared_ptr<SecCertificate> certificate() const noexcept override { return certificate_; }

 private:
  std::shared_ptr<SecCertificate> certificate_;
};

class HostKeychainKey final : public HostItem<TKTokenKeychainKey> {
 public:
  /// The keychain knows RSA keys and those on curves over prime fields.
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override {
    if (!certificate || certificate->keyType() == CertificateKeyType::kOther) return false;
    keyType_ = certificate->keyType();
    keySizeInBits_ = certificate->keySizeInBits();
    setObjectID(objectID);
    return true;
  }
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return keyType_; }
  [[nodiscard]] int keySizeInBits() const noexcept override { return keySizeInBits_; }
  [[nodiscard]] bool canSign() const noexcept override { return canSign_; }
  void setCanSign(bool value) noexcept override { canSign_ = value; }
  [[nodiscard]] bool canDecrypt() const noexcept override { return canDecrypt_; }
  void setCanDecrypt(bool value) noexcept override { canDecrypt_ = value; }
  [[nodiscard]] bool canPerformKeyExchange() const noexcept override { return canPerformKeyExchange_; }
  void setCanPerformKeyExchange(bool value) noexcept override { canPerformKeyExchange_ = value; }
  [[nodiscard]] bool suitableForLogin() const noexcept override { return suitableForLogin_; }
  void setSuitableForLogin(bool value) noexcept override { suitableForLogin_ = value; }

 private:
  CertificateKeyType keyType_ = CertificateKeyType::kOther;
  int keySizeInBits_ = 0;
  bool canSign_ = false;
  bool canDecrypt_ = false;
  bool canPerformKeyExchange_ = false;
  bool suitableForLogin_ = false;
};

class HostTokenSession final : public TKSmartCardTokenSession {
 public:
  explicit HostTokenSession(const Text& readerName) : card_{cardInReader(readerName)} {}

  [[nodiscard]] bool initWithToken(const std::shared_ptr<TKSmartCardToken>& token) noexcept override {
    token_ = token;
    return token != nullptr;
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> token() const noexcept override { return token_.lock(); }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override { return card_; }

 private:
  std::shared_ptr<TKSmartCard> card_;
  std::weak_ptr<TKSmartCardToken> token_;
};

class HostPINFormat final : public TKSmartCardPINFormat {
 public:
  [[nodiscard]] TKSmartCardPINCharset charset() const noexcept override {
    return TKSmartCardPINCharset::kNumeric;
  }
  [[nodiscard]] TKSmartCardPINEncoding encoding() const noexcept override {
    return TKSmartCardPINEncoding::kASCII;
  }
  [[nodiscard]] int minPINLength() const noexcept override { return 4; }
  [[nodiscard]] int maxPINLength() const noexcept override { return 8; }
  [[nodiscard]] int PINBlockByteLength() const noexcept override { return 8; }
  [[nodiscard]] TKSmartCardPINJustification PINJustification() const noexcept override {
    return TKSmartCardPINJustification::kLeft;
  }
  [[nodiscard]] int PINBitOffset() const noexcept override { return pinBitOffset_; }
  void setPINBitOffset(int value) noexcept override { pinBitOffset_ = value; }
  [[nodiscard]] int PINLengthBitOffset() const noexcept override { return 0; }
  [[nodiscard]] int PINLengthBitSize() const noexcept override { return 0; }

 private:
  int pinBitOffset_ = 0;
};

/// Leaves the login to whoever builds on it: the host sends no command to the card.
class HostPINAuthOperation final : public TKTokenSmartCardPINAuthOperation {
 public:
  [[nodiscard]] bool init() noexcept override { return true; }
  [[nodiscard]] bool finishWithError(TKErrorPointer) noexcept override { return true; }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override { return card_; }
  void setSmartCard(const std::shared_ptr<TKSmartCard>& card) noexcept override { card_ = card; }
  [[nodiscard]] Bytes APDUTemplate() const noexcept override { return command_; }
  void setAPDUTemplate(const Bytes& command) noexcept override { command_ = command; }
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> PINFormat() const noexcept override { return format_; }
  void setPINFormat(const std::shared_ptr<TKSmartCardPINFormat>& format) noexcept override {
    format_ = format;
  }
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() const noexcept override { return pin_; }
  void setPIN(const std::shared_ptr<const SecretText>& pin) noexcept override { pin_ = pin; }

 private:
  std::shared_ptr<TKSmartCard> card_;
  Bytes command_;
  std::shared_ptr<TKSmartCardPINFormat> format_ = std::make_shared<HostPINFormat>();
  std::shared_ptr<const SecretText> pin_;
};

}  // namespace

void HostKeychainContents::fillWithItems(
    const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) noexcept {
  items_ = items;
  keys_.clear();
  for (const auto& item : items) {
    const auto key = std::dynamic_pointer_cast<TKTokenKeychainKey>(item);
    if (key) keys_.try_emplace(std::u16string{key->objectID().units()}, key);
  }
}

std::vector<std::shared_ptr<TKTokenKeychainItem>> HostKeychainContents::items() const noexcept {
  return items_.value_or(std::vector<std::shared_ptr<TKTokenKeychainItem>>{});
}

std::shared_ptr<TKTokenKeychainKey> HostKeychainContents::keyForObjectID(const Text& objectID,
                                                                         TKErrorPointer outError) noexcept {
  if (const auto found = keys_.find(objectID.units()); found != keys_.end()) return found->second;
  if (outError) {
    *outError =
        TKError{Text{kTKErrorDomain}, static_cast<std::int64_t>(TKErrorCode::kObjectNotFound), Text{}};
  }
  return nullptr;
}

bool HostSmartCardToken::initWithSmartCard(const std::shared_ptr<TKSmartCard>&, const Bytes&,
                                           const Text& instanceID,
                                           const std::shared_ptr<TKSmartCardTokenDriver>&) noexcept {
  instanceID_ = instanceID;
  return true;
}

std::shared_ptr<TKSmartCardToken> HostTokenKit::allocSmartCardToken() noexcept {
  auto token = std::make_shared<HostSmartCardToken>();
  lastToken_ = token;
  return token;
}

std::shared_ptr<TKSmartCardTokenSession> HostTokenKit::allocTokenSession() noexcept {
  return std::make_shared<HostTokenSession>(readerName_);
}

std::shared_ptr<TKTokenKeychainCertificate> HostTokenKit::allocKeychainCertificate() noexcept {
  return std::make_shared<HostKeychainCertificate>();
}

std::shared_ptr<TKTokenKeychainKey> HostTokenKit::allocKeychainKey() noexcept {
  return std::make_shared<HostKeychainKey>();
}

std::shared_ptr<TKTokenSmartCardPINAuthOperation> HostTokenKit::allocPINAuthOperation() noexcept {
  return std::make_shared<HostPINAuthOperation>();
}

std::shared_ptr<TKSmartCardPINFormat> HostTokenKit::allocPINFormat() noexcept {
  return std::make_shared<HostPINFormat>();
}

std::shared_ptr<TKSmartCard> cardInReader(const Text& readerName) {
  return std::make_shared<HostCard>(readerName);
}

}  // namespace mirel
