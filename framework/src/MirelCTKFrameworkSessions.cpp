#include <string_view>

#include "CardRecord.h"
#include "bridge/P11Bridge.h"
#include "bridge/SlotDescription.h"
#include "framework/MirelCTKFramework.h"
#include "platform/DistributedNotificationCenter.h"

namespace mirel {
namespace {

constexpr std::u16string_view kTokenNotify = u"TokenNotify";
constexpr CK_FLAGS kNotifyFlags = CKF_RNG | CKF_WRITE_PROTECTED | CKF_LOGIN_REQUIRED;

/// The slot with a token that the reader name leads to; kNoHandle when there is none.
CK_SLOT_ID slotOfReader(P11Bridge& bridge, const Text& readerName) noexcept {
  CK_SLOT_ID slotID = kNoHandle;
  return bridge.pkcs11_FindSlot(readerName, &slotID) == CKR_OK ? slotID : kNoHandle;
}

}  // namespace

bool MirelCTKFramework::OpenCardSession(const Text& readerName,
                                        const std::shared_ptr<PKCS11_SERVICE_INFO>&) noexcept {
  const auto bridge = p11Bridge();
  if (!bridge) return false;
  const CK_SLOT_ID slotID = slotOfReader(*bridge, readerName);
  if (slotID == kNoHandle) return false;
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  if (bridge->pkcs11_OpenReadOnlySession(slotID, &record) != CKR_OK) return false;
  setP11ServiceInfo(record->mutableCopyWithZone());
  return true;
}

bool MirelCTKFramework::CloseCardSession(const Text& readerName, const void*) noexcept {
  const auto bridge = p11Bridge();
  if (!bridge) return false;
  const CK_SLOT_ID slotID = slotOfReader(*bridge, readerName);
  if (slotID == kNoHandle) return false;
  return bridge->pkcs11_CloseSession(slotID, p11ServiceInfo_) == CKR_OK;
}

bool MirelCTKFramework::IsCardStateChanged(const char* readerName) noexcept {
  const auto stored = p11ServiceInfo_;
  const auto bridge = p11Bridge();
  if (!stored || !bridge) return true;
  std::shared_ptr<PKCS11_SERVICE_INFO> work = stored->mutableCopyWithZone();
  if (!descriptionBeginsWithAscii(stored->slotInfo(), readerName)) return true;
  if (bridge->pkcs11_GetTokenInfo(stored->slotID(), &work) != CKR_OK) return true;
  // Oddity: the flags are those of the last enumeration, not the ones just read.
  if ((stored->tokenInfo().flags & CKF_RNG) == 0) return true;
  if (!hasSession(*stored)) return true;
  if (bridge->pkcs11_GetSessionInfo(stored->hSession(), &work) != CKR_OK) return true;
  return !hasSession(*stored);
}

bool MirelCTKFramework::CheckEvent(const std::shared_ptr<PKCS11_SERVICE_INFO>& record,
                                   const Text& object) noexcept {
  // Oddity: exactly these flags, and no other.
  // A null record reads as all zeros: it has a slot and a session, and flags that are not 7.
  if (!record || record->slotID() == kNoHandle || record->hSession() == kNoHandle) return false;
  if (record->hSessionInfo().ulDeviceError == 0 && record->tokenInfo().flags == kNotifyFlags) {
    services_.notifications->postNotificationName(Text{kTokenNotify}, object, true);
  }
  return false;
}

}  // namespace mirel
