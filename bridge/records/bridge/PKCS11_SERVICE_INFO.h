#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/cryptoki.h"

namespace mirel {

/// "None" for a slot and for a session.
inline constexpr CK_ULONG kNoHandle = ~CK_ULONG{0};

/// "None" for the key and certificate counters.
inline constexpr std::int32_t kNoIndex = -1;

/// One card, seen through one slot and one session. A new record has every scalar 0, every structure
/// zero-filled and null arrays; whoever makes it sets the "none" values that it needs.
///
/// Only the accessors of the two counters are atomic. Structures are held by value: the getter
/// returns a copy, the setter stores one. Nothing points into the module.
class PKCS11_SERVICE_INFO final {
 public:
  PKCS11_SERVICE_INFO() = default;
  PKCS11_SERVICE_INFO(const PKCS11_SERVICE_INFO&) = delete;
  PKCS11_SERVICE_INFO& operator=(const PKCS11_SERVICE_INFO&) = delete;

  /// The open session; kNoHandle: none.
  [[nodiscard]] CK_SESSION_HANDLE hSession() const noexcept { return hSession_; }
  void setHSession(CK_SESSION_HANDLE value) noexcept { hSession_ = value; }

  [[nodiscard]] CK_SESSION_INFO hSessionInfo() const noexcept { return hSessionInfo_; }
  void setHSessionInfo(const CK_SESSION_INFO& value) noexcept { hSessionInfo_ = value; }

  [[nodiscard]] CK_TOKEN_INFO tokenInfo() const noexcept { return tokenInfo_; }
  void setTokenInfo(const CK_TOKEN_INFO& value) noexcept { tokenInfo_ = value; }

  /// The slot the card sits in; kNoHandle: none.
  [[nodiscard]] CK_SLOT_ID slotID() const noexcept { return slotID_; }
  void setSlotID(CK_SLOT_ID value) noexcept { slotID_ = value; }

  [[nodiscard]] CK_SLOT_INFO slotInfo() const noexcept { return slotInfo_; }
  void setSlotInfo(const CK_SLOT_INFO& value) noexcept { slotInfo_ = value; }

  /// Number of keys that the last enumeration appended; kNoIndex before any.
  [[nodiscard]] std::int32_t m_keyIndex() const noexcept { return m_keyIndex_; }
  void setM_keyIndex(std::int32_t value) noexcept { m_keyIndex_ = value; }

  /// Number of certificates that the last enumeration appended; kNoIndex before any.
  [[nodiscard]] std::int32_t m_certIndex() const noexcept { return m_certIndex_; }
  void setM_certIndex(std::int32_t value) noexcept { m_certIndex_ = value; }

  /// The card's key pairs in enumeration order. May be null.
  [[nodiscard]] std::shared_ptr<KeyRecords> pAsymKeys() const noexcept { return pAsymKeys_; }
  void setPAsymKeys(std::shared_ptr<KeyRecords> value) noexcept { pAsymKeys_ = std::move(value); }

  /// The card's certificates in enumeration order. May be null.
  [[nodiscard]] std::shared_ptr<CertificateRecords> pCerts() const noexcept { return pCerts_; }
  void setPCerts(std::shared_ptr<CertificateRecords> value) noexcept { pCerts_ = std::move(value); }

  /// A new record with the same values, which shares the very arrays of this one: what is appended
  /// through one is seen through the other. (Replacing the array of one leaves the other alone.)
  [[nodiscard]] std::shared_ptr<PKCS11_SERVICE_INFO> mutableCopyWithZone() const;

 private:
  CK_SESSION_HANDLE hSession_ = 0;
  CK_SESSION_INFO hSessionInfo_{};
  CK_TOKEN_INFO tokenInfo_{};
  CK_SLOT_ID slotID_ = 0;
  CK_SLOT_INFO slotInfo_{};
  std::atomic<std::int32_t> m_keyIndex_{0};
  std::atomic<std::int32_t> m_certIndex_{0};
  std::shared_ptr<KeyRecords> pAsymKeys_;
  std::shared_ptr<CertificateRecords> pCerts_;
};

}  // namespace mirel
