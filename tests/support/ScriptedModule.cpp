#include "support/ScriptedModule.h"

#include <dlfcn.h>

#include <stdexcept>

#include "module/ModuleFiles.h"

namespace mirel::test {
namespace {

/// The library's function of that name.
template <typename Function>
Function functionNamed(const char* name) {
  void* const library = dlopen(kScriptedModule, RTLD_NOW);
  void* const found = library ? dlsym(library, name) : nullptr;
  if (!found) throw std::runtime_error{dlerror()};
  return reinterpret_cast<Function>(found);
}

}  // namespace

Script& scriptedModule() {
  static Script& script = *functionNamed<ScriptEntry>(kScriptSymbol)();
  return script;
}

CK_FUNCTION_LIST* scriptedFunctions() {
  CK_FUNCTION_LIST* list = nullptr;
  const CK_RV rv = functionNamed<CK_C_GetFunctionList>("C_GetFunctionList")(&list);
  return rv == CKR_OK ? list : nullptr;
}

}  // namespace mirel::test
