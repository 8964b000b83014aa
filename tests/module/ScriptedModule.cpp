/// The shared library: its function list, whose entries all go through one place, and its two exported
/// symbols.

#include "module/PrivateKeyBehaviour.h"
#include "module/Script.h"
#include "module/SessionBehaviour.h"

namespace mirel::test {
namespace {

CK_FUNCTION_LIST liveList{};

}  // namespace

template <>
inline CK_RV Behaviour<&List::C_GetFunctionList>::call(CK_FUNCTION_LIST_PTR_PTR list) {
  if (!list) return CKR_ARGUMENTS_BAD;
  *list = &liveList;
  return CKR_OK;
}

namespace {

template <auto Function, typename Type = FunctionType<Function>>
struct Entry;

template <auto Function, typename... Args>
struct Entry<Function, CK_RV (*)(Args...)> {
  static CK_RV call(Args... args) {
    Script& script = theScript();
    if (!script.beginCall()) return CKR_CANT_LOCK;
    const std::size_t place =
        script.record(kCryptokiNameOf<Function>, Behaviour<Function>::arguments(args...));
    script.actBeforeCall();
    const CK_RV result = answer(script, args...);
    script.setResult(place, result);
    script.endCall();
    return result;
  }

 private:
  static CK_RV answer(Script& script, Args... args) {
    if (const auto code = script.dueFault(kCryptokiNameOf<Function>)) {
      if constexpr (requires { Behaviour<Function>::afterFailure(args...); }) {
        Behaviour<Function>::afterFailure(args...);
      }
      return *code;
    }
    if (script.deviations.silent.contains(std::string{kCryptokiNameOf<Function>})) return CKR_OK;
    // Held here, because the hook may replace itself.
    const std::shared_ptr<void> hook = script.hookAt(functionPosition(kCryptokiNameOf<Function>));
    if (hook) return (*static_cast<Hook<Function>*>(hook.get()))(&Behaviour<Function>::call, args...);
    return Behaviour<Function>::call(args...);
  }
};

template <auto... Functions>
CK_FUNCTION_LIST listOf(FunctionPack<Functions...>) {
  CK_FUNCTION_LIST list{};
  list.version = {2, 40};
  ((list.*Functions = &Entry<Functions>::call), ...);
  return list;
}

}  // namespace

Script& theScript() {
  static const CK_FUNCTION_LIST complete = listOf(AllFunctions{});
  static Script script{complete, liveList};
  return script;
}

}  // namespace mirel::test

extern "C" {

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  return mirel::test::Entry<&CK_FUNCTION_LIST::C_GetFunctionList>::call(list);
}

__attribute__((visibility("default"))) mirel::test::Script* scriptedModule() {
  return &mirel::test::theScript();
}

}  // extern "C"
