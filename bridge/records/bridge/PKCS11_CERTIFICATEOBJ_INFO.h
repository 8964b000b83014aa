#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "bridge/cryptoki.h"
#include "platform/AtomicProperty.h"
#include "platform/Bytes.h"
#include "platform/Text.h"

namespace mirel {

/// One certificate object found on a card. A new record has a zero handle and null members. All
/// accessors are atomic.
class PKCS11_CERTIFICATEOBJ_INFO final {
 public:
  PKCS11_CERTIFICATEOBJ_INFO() = default;
  PKCS11_CERTIFICATEOBJ_INFO(const PKCS11_CERTIFICATEOBJ_INFO&) = delete;
  PKCS11_CERTIFICATEOBJ_INFO& operator=(const PKCS11_CERTIFICATEOBJ_INFO&) = delete;

  /// Handle of the certificate object.
  [[nodiscard]] CK_OBJECT_HANDLE hCert() const noexcept { return hCert_; }
  void setHCert(CK_OBJECT_HANDLE value) noexcept { hCert_ = value; }

  /// CKA_ID as text.
  [[nodiscard]] Text strID() const noexcept { return strID_.get(); }
  void setStrID(const Text& value) noexcept { strID_.set(value); }

  /// CKA_LABEL as text.
  [[nodiscard]] Text strLabel() const noexcept { return strLabel_.get(); }
  void setStrLabel(const Text& value) noexcept { strLabel_.set(value); }

  /// CKA_VALUE: the encoded certificate.
  [[nodiscard]] Bytes pbCertData() const noexcept { return pbCertData_.get(); }
  void setPbCertData(const Bytes& value) noexcept { pbCertData_.set(value); }

  /// A new record that shares the texts and bytes of this one.
  [[nodiscard]] std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> mutableCopyWithZone() const;

 private:
  std::atomic<CK_OBJECT_HANDLE> hCert_{0};
  AtomicProperty<Text> strID_;
  AtomicProperty<Text> strLabel_;
  AtomicProperty<Bytes> pbCertData_;
};

/// A list of certificates that several records may share.
using CertificateRecords = std::vector<std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>>;

}  // namespace mirel
