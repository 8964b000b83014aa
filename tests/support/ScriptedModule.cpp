#include "support/ScriptedModule.h"

#include <dlfcn.h>

#include <stdexcept>

#include "module/ModuleFiles.h"

namespace mirel::test {
namespace {

Script& openedScript() {
  void* const library = dlopen(kScriptedModule, RTLD_NOW);
  if (!library) throw std::runtime_error{dlerror()};
  const auto entry = reinterpret_cast<ScriptEntry>(dlsym(library, kScriptSymbol));
  if (!entry) throw std::runtime_error{dlerror()};
  return *entry();
}

}  // namespace

Script& scriptedModule() {
  static Script& script = openedScript();
  return script;
}

}  // namespace mirel::test
