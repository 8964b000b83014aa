#include "ModuleFront.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "bridge/CryptokiFunctions.h"

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
    return module->called(kCryptokiNameOf<Member>, words, Forward{forward});
  }
};

template <Place place>
CK_RV getFunctionList(CK_FUNCTION_LIST_PTR_PTR outList) {
  ModuleFront* module = front<place>;
  if (!outList) return CKR_ARGUMENTS_BAD;
  *outList = nullptr;
  return module ? module->getFunctionList(outList) : CKR_GENERAL_ERROR;
}

template <Place place>
struct Entry<place, &CK_FUNCTION_LIST::C_GetFunctionList, CK_C_GetFunctionList CK_FUNCTION_LIST::*> {
  static constexpr CK_C_GetFunctionList call = &getFunctionList<place>;
};

/// The functions of the front in that place, without those of these names.
template <Place place, auto... Members>
void put(FunctionPack<Members...>, CK_FUNCTION_LIST& ours, const std::vector<std::string>& missing) {
  const auto isThere = [&](const char* name) {
    return std::find(missing.begin(), missing.end(), name) == missing.end();
  };
  ((ours.*Members =
        isThere(kCryptokiNameOf<Members>) ? Entry<place, Members, decltype(Members)>::call : nullptr),
   ...);
}

template <auto... Members>
std::vector<std::string> missingOf(const CK_FUNCTION_LIST& list, FunctionPack<Members...>) {
  std::vector<std::string> names;
  ((list.*Members ? void() : names.push_back(kCryptokiNameOf<Members>)), ...);
  return names;
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
  return frontWithout(missingIn(list), list.version);
}

CK_FUNCTION_LIST* ModuleFront::frontWithout(const std::vector<std::string>& missing, CK_VERSION version) {
  list_.version = version;
  if (place_ == Place::kRecorder) {
    put<Place::kRecorder>(AllFunctions{}, list_, missing);
  } else {
    put<Place::kReplayer>(AllFunctions{}, list_, missing);
  }
  return &list_;
}

std::vector<std::string> ModuleFront::missingIn(const CK_FUNCTION_LIST& list) {
  return missingOf(list, AllFunctions{});
}

}  // namespace mirel::recording
