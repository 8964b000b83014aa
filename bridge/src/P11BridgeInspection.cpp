#include <algorithm>

#include "CryptokiCall.h"
#include "CryptokiValues.h"

namespace mirel {
namespace {

constexpr int kSlotListTries = 3;  // a slot may appear between counting and listing

using CalledFunctions = FunctionPack<
    &CK_FUNCTION_LIST::C_Initialize, &CK_FUNCTION_LIST::C_GetSlotList, &CK_FUNCTION_LIST::C_GetSlotInfo,
    &CK_FUNCTION_LIST::C_GetTokenInfo, &CK_FUNCTION_LIST::C_OpenSession, &CK_FUNCTION_LIST::C_CloseSession,
    &CK_FUNCTION_LIST::C_GetSessionInfo, &CK_FUNCTION_LIST::C_FindObjectsInit,
    &CK_FUNCTION_LIST::C_FindObjects, &CK_FUNCTION_LIST::C_FindObjectsFinal,
    &CK_FUNCTION_LIST::C_GetAttributeValue, &CK_FUNCTION_LIST::C_Login, &CK_FUNCTION_LIST::C_SignInit,
    &CK_FUNCTION_LIST::C_Sign, &CK_FUNCTION_LIST::C_DecryptInit, &CK_FUNCTION_LIST::C_Decrypt>;

template <auto... Members>
void addMissing(const CK_FUNCTION_LIST& list, FunctionPack<Members...>, std::vector<const char*>& names) {
  ((list.*Members ? void() : names.push_back(kCryptokiNameOf<Members>)), ...);
}

}  // namespace

std::vector<const char*> P11Bridge::missingEntries() const noexcept {
  std::vector<const char*> missing;
  const CK_FUNCTION_LIST* list = ckFunc();
  if (!list) return missing;
  addMissing(*list, CalledFunctions{}, missing);
  return missing;
}

CK_RV P11Bridge::inspectSlots(bool withTokenOnly, std::vector<CK_SLOT_ID>& outSlots) const noexcept {
  const CK_BBOOL tokenPresent = withTokenOnly ? CK_TRUE : CK_FALSE;
  CK_RV rv = CKR_OK;
  outSlots.reserve(kMaxSlots);  // so that no size is the module's
  for (int attempt = 0; attempt < kSlotListTries; ++attempt) {
    CK_ULONG numSlots = 0;
    rv = ask<&CK_FUNCTION_LIST::C_GetSlotList>(tokenPresent, nullptr, &numSlots);
    if (rv != CKR_OK) return rv;
    if (numSlots > kMaxSlots) return CKR_HOST_MEMORY;
    outSlots.assign(numSlots, kNoHandle);
    if (numSlots == 0) return CKR_OK;
    rv = ask<&CK_FUNCTION_LIST::C_GetSlotList>(tokenPresent, outSlots.data(), &numSlots);
    if (rv == CKR_BUFFER_TOO_SMALL) continue;
    outSlots.resize(std::min<std::size_t>(numSlots, outSlots.size()));
    return rv;
  }
  return rv;
}

CK_RV P11Bridge::inspectSlot(CK_SLOT_ID slotID, CK_SLOT_INFO& outInfo) const noexcept {
  outInfo = {};
  const CK_RV rv = ask<&CK_FUNCTION_LIST::C_GetSlotInfo>(slotID, &outInfo);
  if (rv != CKR_OK) outInfo = {};
  return rv;
}

CK_RV P11Bridge::inspectToken(CK_SLOT_ID slotID, CK_TOKEN_INFO& outInfo) const noexcept {
  return readTokenInfo(
      [&](CK_TOKEN_INFO* out) { return ask<&CK_FUNCTION_LIST::C_GetTokenInfo>(slotID, out); }, outInfo);
}

CK_RV P11Bridge::openInspection(CK_SLOT_ID slotID, CK_SESSION_HANDLE& outSession) const noexcept {
  outSession = 0;
  return ask<&CK_FUNCTION_LIST::C_OpenSession>(slotID, CKF_SERIAL_SESSION, nullptr, nullptr, &outSession);
}

void P11Bridge::closeInspection(CK_SESSION_HANDLE session) const noexcept {
  (void)ask<&CK_FUNCTION_LIST::C_CloseSession>(session);
}

CK_RV P11Bridge::inspectSession(CK_SESSION_HANDLE session, CK_SESSION_INFO& outInfo) const noexcept {
  outInfo = {};
  const CK_RV rv = ask<&CK_FUNCTION_LIST::C_GetSessionInfo>(session, &outInfo);
  if (rv != CKR_OK) outInfo = {};
  return rv;
}

P11Bridge::Answer P11Bridge::inspectObjects(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass,
                                            std::vector<CK_OBJECT_HANDLE>& outObjects,
                                            CK_ULONG most) const noexcept {
  outObjects.clear();
  outObjects.reserve(most);
  CK_ATTRIBUTE filter = attribute(CKA_CLASS, objectClass);
  if (CK_RV rv = ask<&CK_FUNCTION_LIST::C_FindObjectsInit>(session, &filter, CK_ULONG{1}); rv != CKR_OK) {
    return {"C_FindObjectsInit", rv};
  }
  CK_RV rv = CKR_OK;
  while (outObjects.size() < most) {
    CK_OBJECT_HANDLE object = 0;
    CK_ULONG numFetched = 0;
    rv = ask<&CK_FUNCTION_LIST::C_FindObjects>(session, &object, CK_ULONG{1}, &numFetched);
    if (rv != CKR_OK || numFetched != 1) break;
    outObjects.push_back(object);
  }
  (void)ask<&CK_FUNCTION_LIST::C_FindObjectsFinal>(session);  // the handles are ours already
  return {"C_FindObjects", rv};
}

CK_RV P11Bridge::inspectAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                   std::span<CK_ATTRIBUTE> ioEntries) const noexcept {
  return ask<&CK_FUNCTION_LIST::C_GetAttributeValue>(session, object, ioEntries.data(),
                                                     CK_ULONG{ioEntries.size()});
}

}  // namespace mirel
