#include <algorithm>
#include <span>

#include "CryptokiCall.h"
#include "bridge/SlotDescription.h"
#include "platform/DynamicLoader.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/UserDirectory.h"

namespace mirel {
namespace {

constexpr const char* kEntryPoint = "C_GetFunctionList";

/// A new, empty record, or null when there is no memory for it.
std::shared_ptr<PKCS11_SERVICE_INFO> newServiceRecord(const std::shared_ptr<Memory>& memory) noexcept {
  try {
    return std::allocate_shared<PKCS11_SERVICE_INFO>(MemoryAllocator<PKCS11_SERVICE_INFO>{memory});
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

P11Bridge::P11Bridge(PlatformServices services) noexcept : services_{std::move(services)} {}

bool P11Bridge::pkcs11_Load(const Text&) noexcept {
  // Oddity: the caller's path is not looked at; there is this one place and no other.
  const std::string home = services_.user->homeOf(services_.user->loginName());
  if (home.empty()) return false;
  const auto path = std::make_shared<const std::string>(home + kModuleTail);
  setP11dylib(path);
  // Oddity: the line names the unit P11Bridge and a position there, not this file.
  services_.log->process(logLine("[-[P11Bridge pkcs11_Load:]-30] P11Bridge path = %s", *path));

  setPhP11Module(services_.loader->open(path->c_str()));
  if (!phP11Module()) return false;
  setPhFunctionList(
      reinterpret_cast<CK_C_GetFunctionList>(services_.loader->symbol(phP11Module(), kEntryPoint)));
  if (!phFunctionList()) return false;

  CK_FUNCTION_LIST* list = nullptr;
  if (services_.observer) services_.observer->callStarts(kEntryPoint);
  const CK_RV rv = callAlone(phFunctionList(), &list);
  if (services_.observer) services_.observer->callReturned(kEntryPoint, rv);
  if (rv != CKR_OK) return false;
  setCkFunc(list);
  return list != nullptr;
}

bool P11Bridge::pkcs11_UnLoad(const void*) noexcept {
  if (!phP11Module()) return false;
  services_.loader->close(phP11Module());
  // Oddity: the handle and the function list keep their values; both are stale from here on.
  return true;
}

CK_RV P11Bridge::pkcs11_Initial(CK_VOID_PTR pInitArgs) noexcept {
  return operation(BridgeOperation::pkcs11_Initial, [&]() -> CK_RV {
    // Oddity: every other operation answers CKR_CRYPTOKI_NOT_INITIALIZED here.
    if (!ckFunc()) return CKR_GENERAL_ERROR;
    return call<&CK_FUNCTION_LIST::C_Initialize>(pInitArgs);
  });
}

CK_RV P11Bridge::pkcs11_Finalize(CK_VOID_PTR pReserved) noexcept {
  return operation(BridgeOperation::pkcs11_Finalize, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (pReserved) return CKR_FUNCTION_FAILED;
    return call<&CK_FUNCTION_LIST::C_Finalize>(nullptr);
  });
}

CK_RV P11Bridge::pkcs11_GetInfo(CK_INFO* outInfo) noexcept {
  return operation(BridgeOperation::pkcs11_GetInfo, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (!outInfo) return CKR_ARGUMENTS_BAD;
    CK_INFO info{};
    const CK_RV rv = call<&CK_FUNCTION_LIST::C_GetInfo>(&info);
    // Oddity: the caller's structure is written whatever the call returned.
    *outInfo = info;
    return rv;
  });
}

CK_RV P11Bridge::pkcs11_C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* outList,
                                      CK_ULONG* outCount) noexcept {
  return operation(BridgeOperation::pkcs11_C_GetSlotList, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (!outCount) return CKR_ARGUMENTS_BAD;
    // Oddity: the module is told of so many entries, whatever room the caller has.
    CK_ULONG numSlots = kAnnouncedSlots;
    const CK_RV rv = call<&CK_FUNCTION_LIST::C_GetSlotList>(tokenPresent, outList, &numSlots);
    if (rv != CKR_OK) return rv;
    if (numSlots == 0) return CKR_SLOT_ID_INVALID;
    if (outList && outList[0] == kNoHandle) return CKR_SLOT_ID_INVALID;
    *outCount = numSlots;
    return CKR_OK;
  });
}

CK_RV P11Bridge::pkcs11_FindSlot(const Text& description, CK_SLOT_ID* outSlotID) noexcept {
  return operation(BridgeOperation::pkcs11_FindSlot, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (!outSlotID) return CKR_ARGUMENTS_BAD;
    *outSlotID = kNoHandle;

    CK_ULONG numSlots = 0;
    if (CK_RV rv = pkcs11_C_GetSlotList(CK_TRUE, nullptr, &numSlots); rv != CKR_OK) return rv;
    if (numSlots > kMaxSlots) return CKR_HOST_MEMORY;

    // The module is told of so many entries even when it counted fewer, so the list has them.
    const CK_ULONG room = std::max(numSlots, kAnnouncedSlots);
    MemoryBlock block{*services_.memory};
    if (!block.allocate(room * sizeof(CK_SLOT_ID))) return CKR_HOST_MEMORY;
    auto* slots = reinterpret_cast<CK_SLOT_ID*>(block.data());
    std::fill_n(slots, room, kNoHandle);
    if (CK_RV rv = pkcs11_C_GetSlotList(CK_TRUE, slots, &numSlots); rv != CKR_OK) return rv;
    return chooseSlot(description, slots, std::min(numSlots, room), outSlotID);
  });
}

CK_RV P11Bridge::chooseSlot(const Text& description, const CK_SLOT_ID* slots, CK_ULONG numSlots,
                            CK_SLOT_ID* outSlotID) const noexcept {
  for (const CK_SLOT_ID slotID : std::span{slots, numSlots}) {
    CK_SLOT_INFO info{};
    if (call<&CK_FUNCTION_LIST::C_GetSlotInfo>(slotID, &info) != CKR_OK) continue;
    if (!descriptionBeginsWith(info, description.units())) continue;
    *outSlotID = slotID;
    return CKR_OK;
  }
  return CKR_SLOT_ID_INVALID;
}

CK_RV P11Bridge::pkcs11_GetTokenInfo(CK_SLOT_ID slotID,
                                     std::shared_ptr<PKCS11_SERVICE_INFO>* ioRecord) noexcept {
  return operation(BridgeOperation::pkcs11_GetTokenInfo, [&]() -> CK_RV {
    const std::shared_ptr<PKCS11_SERVICE_INFO> work = newServiceRecord(services_.memory);
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (!ioRecord) return CKR_ARGUMENTS_BAD;
    if (!work) return CKR_HOST_MEMORY;
    if (slotID == kNoHandle) return CKR_SLOT_ID_INVALID;
    work->setSlotID(slotID);

    CK_SLOT_INFO slotInfo{};
    if (CK_RV rv = call<&CK_FUNCTION_LIST::C_GetSlotInfo>(slotID, &slotInfo); rv != CKR_OK) return rv;

    // The open session makes some cards answer; whether it could be opened does not matter.
    CK_SESSION_HANDLE session = kNoHandle;
    const CK_RV opened =
        call<&CK_FUNCTION_LIST::C_OpenSession>(slotID, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    CK_TOKEN_INFO tokenInfo{};
    const CK_RV rv = readTokenInfo(
        [&](CK_TOKEN_INFO* out) { return call<&CK_FUNCTION_LIST::C_GetTokenInfo>(slotID, out); }, tokenInfo);
    if (opened == CKR_OK) closeUnusedSession(session, *ioRecord);
    if (rv != CKR_OK) return rv;

    work->setTokenInfo(tokenInfo);
    work->setSlotInfo(slotInfo);
    if (*ioRecord) {
      (*ioRecord)->setSlotInfo(work->slotInfo());
      (*ioRecord)->setTokenInfo(work->tokenInfo());
    } else {
      *ioRecord = work->mutableCopyWithZone();
    }
    return CKR_OK;
  });
}

}  // namespace mirel
