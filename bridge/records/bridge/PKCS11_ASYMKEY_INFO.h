#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "bridge/cryptoki.h"
#include "platform/AtomicProperty.h"
#include "platform/Bytes.h"
#include "platform/Text.h"

namespace mirel {

/// One key pair found on a card, known by its public-key object. A new record has zero handles and
/// null members. All accessors are atomic.
class PKCS11_ASYMKEY_INFO final {
 public:
  PKCS11_ASYMKEY_INFO() = default;
  PKCS11_ASYMKEY_INFO(const PKCS11_ASYMKEY_INFO&) = delete;
  PKCS11_ASYMKEY_INFO& operator=(const PKCS11_ASYMKEY_INFO&) = delete;

  /// Handle of the public-key object, valid in the session of the record that lists this key.
  [[nodiscard]] CK_OBJECT_HANDLE hPubKey() const noexcept { return hPubKey_; }
  void setHPubKey(CK_OBJECT_HANDLE value) noexcept { hPubKey_ = value; }

  /// Always 0 in a listed key: whoever needs the private key finds it anew.
  [[nodiscard]] CK_OBJECT_HANDLE hPriKey() const noexcept { return hPriKey_; }
  void setHPriKey(CK_OBJECT_HANDLE value) noexcept { hPriKey_ = value; }

  /// CKA_ID as text.
  [[nodiscard]] Text keyID() const noexcept { return keyID_.get(); }
  void setKeyID(const Text& value) noexcept { keyID_.set(value); }

  /// Serial number, kind of key, ID and label in one text.
  [[nodiscard]] Text keyName() const noexcept { return keyName_.get(); }
  void setKeyName(const Text& value) noexcept { keyName_.set(value); }

  /// The RSA modulus, or the EC point as the module gives it; null for other keys.
  [[nodiscard]] Bytes pKeyValue() const noexcept { return pKeyValue_.get(); }
  void setPKeyValue(const Bytes& value) noexcept { pKeyValue_.set(value); }

  /// A new record that shares the texts and bytes of this one.
  [[nodiscard]] std::shared_ptr<PKCS11_ASYMKEY_INFO> mutableCopyWithZone() const;

 private:
  std::atomic<CK_OBJECT_HANDLE> hPubKey_{0};
  std::atomic<CK_OBJECT_HANDLE> hPriKey_{0};
  AtomicProperty<Text> keyID_;
  AtomicProperty<Text> keyName_;
  AtomicProperty<Bytes> pKeyValue_;
};

/// A list of key pairs that several records may share.
using KeyRecords = std::vector<std::shared_ptr<PKCS11_ASYMKEY_INFO>>;

}  // namespace mirel
