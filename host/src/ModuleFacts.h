#pragma once

#include <optional>
#include <string>

#include "host/ModuleFile.h"

namespace mirel {

/// What stands where the module should be, found without loading it.
struct ModuleFacts {
  std::string place;                      ///< where the card layer looks for it
  std::string name;                       ///< as the user knows it
  std::string path{};                     ///< the file behind all links; empty: there is none
  int error = 0;                          ///< why there is none: an errno
  std::string noFile{};                   ///< what it is instead of a regular file; empty where it is one
  std::optional<std::string> exposure{};  ///< how somebody else may change it; nothing: nobody
  std::string target{};                   ///< the processors that it was built for; empty: that does not show
  std::optional<Failure> otherTarget{};   ///< why it is not for this program; nothing where it is or may be
};

/// Nothing where the user has no home and names no module.
[[nodiscard]] std::optional<ModuleFacts> factsOfModule(const PlatformServices& services,
                                                       const ModuleChoice& choice);

}  // namespace mirel
