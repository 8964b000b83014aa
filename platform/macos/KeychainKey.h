#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include "Certificate.h"
#include "Convert.h"
#include "Guard.h"
#include "TokenObjects.h"
#include "platform/TokenKit.h"

namespace mirel {

/// The platform's key item as the core sees it. `Parent`: an implementation of TKTokenKeychainKey that has
/// the Objective-C object as object().
template <typename Parent>
class KeychainKey : public Parent {
 public:
  using Parent::Parent;

  [[nodiscard]] Text objectID() const noexcept override { return textOfObject([item() objectID]); }
  [[nodiscard]] Text label() const noexcept override { return textOf([item() label]); }
  void setLabel(const Text& label) noexcept override {
    guard("a key has no label", [&] { [item() setLabel:stringOf(label)]; });
  }
  /// Only written by the core.
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return std::nullopt;
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override {
    guard("a key has no constraints", [&] { [item() setConstraints:dictionaryOf(constraints)]; });
  }
  /// The platform takes type and size from the certificate; the core does not look at them.
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return CertificateKeyType::kOther; }
  [[nodiscard]] int keySizeInBits() const noexcept override {
    return static_cast<int>([item() keySizeInBits]);
  }
  [[nodiscard]] bool canSign() const noexcept override { return [item() canSign]; }
  void setCanSign(bool value) noexcept override { [item() setCanSign:value ? YES : NO]; }
  [[nodiscard]] bool canDecrypt() const noexcept override { return [item() canDecrypt]; }
  void setCanDecrypt(bool value) noexcept override { [item() setCanDecrypt:value ? YES : NO]; }
  [[nodiscard]] bool canPerformKeyExchange() const noexcept override {
    return [item() canPerformKeyExchange];
  }
  void setCanPerformKeyExchange(bool value) noexcept override {
    [item() setCanPerformKeyExchange:value ? YES : NO];
  }
  [[nodiscard]] bool suitableForLogin() const noexcept override { return [item() isSuitableForLogin]; }
  void setSuitableForLogin(bool value) noexcept override { [item() setSuitableForLogin:value ? YES : NO]; }

 private:
  [[nodiscard]] ::TKTokenKeychainKey* item() const noexcept { return this->object(); }
};

}  // namespace mirel
