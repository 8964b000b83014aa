#include "support/ModuleHome.h"

namespace mirel::test {

ModuleHome::ModuleHome(const std::filesystem::path& module) {
  const std::filesystem::path link = modulePath();
  std::filesystem::create_directories(link.parent_path());
  if (!module.empty()) std::filesystem::create_symlink(module, link);
}

std::string ModuleHome::modulePath() const {
  return home() + "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";
}

}  // namespace mirel::test
