#include "ModuleFront.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>

#include "bridge/CryptokiNames.h"

namespace mirel::recording {
namespace {

using Place = ModuleFront::Place;

template <Place place>
std::atomic<ModuleFront*> front{nullptr};

std::atomic<ModuleFront*>& frontIn(Place place) noexcept {
  return place == Place::kRecorder ? front<Place::kRecorder> : front<Place::kReplayer>;
}

template <typename T>
Word wordOf(T argument) noexcept {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<Word>(argument);
  } else {
    return static_cast<Word>(argument);
  }
}

template <auto Member>
const char* nameOf(const CK_FUNCTION_LIST& list) noexcept {
  const auto* start = reinterpret_cast<const std::byte*>(&list);
  return cryptokiFunctionName(
      static_cast<std::size_t>(reinterpret_cast<const std::byte*>(&(list.*Member)) - start));
}

/// What stands in the list in place of a function of the module.
template <Place place, auto Member, typename Function>
struct Entry;

template <Place place, auto Member, typename... Args>
struct Entry<place, Member, CK_RV (*CK_FUNCTION_LIST::*)(Args...)> {
  static CK_RV call(Args... args) noexcept {
    ModuleFront* module = front<place>;
    if (!module) return CKR_GENERAL_ERROR;
    const std::array<Word, sizeof...(Args)> words{wordOf(args)...};
    auto forward = [&]() -> CK_RV {
      const CK_FUNCTION_LIST* behind = module->behind();
      return behind && behind->*Member ? (behind->*Member)(args...) : CKR_FUNCTION_NOT_SUPPORTED;
    };
    static const CK_FUNCTION_LIST kPlaces{};
    return module->called(nameOf<Member>(kPlaces), words, Forward{forward});
  }
};

/// All functions but C_GetFunctionList.
template <auto... Members>
struct Functions {
  /// Those of the front in that place, without those of these names.
  template <Place place>
  static void put(CK_FUNCTION_LIST& ours, const std::vector<std::string>& missing) {
    const auto isThere = [&](const char* name) {
      return std::find(missing.begin(), missing.end(), name) == missing.end();
    };
    ((ours.*Members =
          isThere(nameOf<Members>(ours)) ? &Entry<place, Members, decltype(Members)>::call : nullptr),
     ...);
  }
  static std::vector<std::string> missing(const CK_FUNCTION_LIST& list) {
    std::vector<std::string> names;
    ((list.*Members ? void() : names.push_back(nameOf<Members>(list))), ...);
    return names;
  }
  static constexpr std::size_t kCount = sizeof...(Members);
};

using AllFunctions = Functions<
    &CK_FUNCTION_LIST::C_Initialize, &CK_FUNCTION_LIST::C_Finalize, &CK_FUNCTION_LIST::C_GetInfo,
    &CK_FUNCTION_LIST::C_GetSlotList, &CK_FUNCTION_LIST::C_GetSlotInfo, &CK_FUNCTION_LIST::C_GetTokenInfo,
    &CK_FUNCTION_LIST::C_GetMechanismList, &CK_FUNCTION_LIST::C_GetMechanismInfo,
    &CK_FUNCTION_LIST::C_InitToken, &CK_FUNCTION_LIST::C_InitPIN, &CK_FUNCTION_LIST::C_SetPIN,
    &CK_FUNCTION_LIST::C_OpenSession, &CK_FUNCTION_LIST::C_CloseSession,
    &CK_FUNCTION_LIST::C_CloseAllSessions, &CK_FUNCTION_LIST::C_GetSessionInfo,
    &CK_FUNCTION_LIST::C_GetOperationState, &CK_FUNCTION_LIST::C_SetOperationState,
    &CK_FUNCTION_LIST::C_Login, &CK_FUNCTION_LIST::C_Logout, &CK_FUNCTION_LIST::C_CreateObject,
    &CK_FUNCTION_LIST::C_CopyObject, &CK_FUNCTION_LIST::C_DestroyObject, &CK_FUNCTION_LIST::C_GetObjectSize,
    &CK_FUNCTION_LIST::C_GetAttributeValue, &CK_FUNCTION_LIST::C_SetAttributeValue,
    &CK_FUNCTION_LIST::C_FindObjectsInit, &CK_FUNCTION_LIST::C_FindObjects,
    &CK_FUNCTION_LIST::C_FindObjectsFinal, &CK_FUNCTION_LIST::C_EncryptInit, &CK_FUNCTION_LIST::C_Encrypt,
    &CK_FUNCTION_LIST::C_EncryptUpdate, &CK_FUNCTION_LIST::C_EncryptFinal, &CK_FUNCTION_LIST::C_DecryptInit,
    &CK_FUNCTION_LIST::C_Decrypt, &CK_FUNCTION_LIST::C_DecryptUpdate, &CK_FUNCTION_LIST::C_DecryptFinal,
    &CK_FUNCTION_LIST::C_DigestInit, &CK_FUNCTION_LIST::C_Digest, &CK_FUNCTION_LIST::C_DigestUpdate,
    &CK_FUNCTION_LIST::C_DigestKey, &CK_FUNCTION_LIST::C_DigestFinal, &CK_FUNCTION_LIST::C_SignInit,
    &CK_FUNCTION_LIST::C_Sign, &CK_FUNCTION_LIST::C_SignUpdate, &CK_FUNCTION_LIST::C_SignFinal,
    &CK_FUNCTION_LIST::C_SignRecoverInit, &CK_FUNCTION_LIST::C_SignRecover, &CK_FUNCTION_LIST::C_VerifyInit,
    &CK_FUNCTION_LIST::C_Verify, &CK_FUNCTION_LIST::C_VerifyUpdate, &CK_FUNCTION_LIST::C_VerifyFinal,
    &CK_FUNCTION_LIST::C_VerifyRecoverInit, &CK_FUNCTION_LIST::C_VerifyRecover,
    &CK_FUNCTION_LIST::C_DigestEncryptUpdate, &CK_FUNCTION_LIST::C_DecryptDigestUpdate,
    &CK_FUNCTION_LIST::C_SignEncryptUpdate, &CK_FUNCTION_LIST::C_DecryptVerifyUpdate,
    &CK_FUNCTION_LIST::C_GenerateKey, &CK_FUNCTION_LIST::C_GenerateKeyPair, &CK_FUNCTION_LIST::C_WrapKey,
    &CK_FUNCTION_LIST::C_UnwrapKey, &CK_FUNCTION_LIST::C_DeriveKey, &CK_FUNCTION_LIST::C_SeedRandom,
    &CK_FUNCTION_LIST::C_GenerateRandom, &CK_FUNCTION_LIST::C_GetFunctionStatus,
    &CK_FUNCTION_LIST::C_CancelFunction, &CK_FUNCTION_LIST::C_WaitForSlotEvent>;
static_assert(offsetof(CK_FUNCTION_LIST, C_Initialize) + (AllFunctions::kCount + 1) * sizeof(void*) ==
              sizeof(CK_FUNCTION_LIST));

template <Place place>
CK_RV getFunctionList(CK_FUNCTION_LIST_PTR_PTR outList) {
  ModuleFront* module = front<place>;
  if (!outList) return CKR_ARGUMENTS_BAD;
  *outList = nullptr;
  return module ? module->getFunctionList(outList) : CKR_GENERAL_ERROR;
}

}  // namespace

ModuleFront::ModuleFront(Place place) noexcept : place_{place} { frontIn(place) = this; }

ModuleFront::~ModuleFront() {
  ModuleFront* self = this;
  frontIn(place_).compare_exchange_strong(self, nullptr);
}

CK_C_GetFunctionList ModuleFront::entryPoint() const noexcept {
  return place_ == Place::kRecorder ? &recording::getFunctionList<Place::kRecorder>
                                    : &recording::getFunctionList<Place::kReplayer>;
}

CK_FUNCTION_LIST* ModuleFront::frontOf(const CK_FUNCTION_LIST& list) {
  behindCopy_ = list;
  behind_ = &behindCopy_;
  CK_FUNCTION_LIST* ours = frontWithout(missingIn(list), list.version);
  if (!list.C_GetFunctionList) ours->C_GetFunctionList = nullptr;
  return ours;
}

CK_FUNCTION_LIST* ModuleFront::frontWithout(const std::vector<std::string>& missing, CK_VERSION version) {
  list_.version = version;
  if (place_ == Place::kRecorder) {
    AllFunctions::put<Place::kRecorder>(list_, missing);
  } else {
    AllFunctions::put<Place::kReplayer>(list_, missing);
  }
  list_.C_GetFunctionList = entryPoint();
  return &list_;
}

std::vector<std::string> ModuleFront::missingIn(const CK_FUNCTION_LIST& list) {
  return AllFunctions::missing(list);
}

}  // namespace mirel::recording
