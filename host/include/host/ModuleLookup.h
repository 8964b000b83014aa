#pragma once

#include <string>
#include <vector>

#include "host/Result.h"
#include "platform/UserDirectory.h"

namespace mirel {

/// Where a system keeps the files that tell of its PKCS #11 modules, one for each, called NAME.module. Their
/// lines are "key: value"; the key "module" has the module's file (pkcs11.conf(5)).
struct ModuleFolders {
  std::vector<std::string> configurations;  ///< of those files, the folder whose files come first in front
  std::string modules;                      ///< where a module lies whose file is given without a folder
};

/// The folders of this user, of the administrator, and of the system's packages. The user's is below
/// XDG_CONFIG_HOME, or .config in the home that the user database gives.
[[nodiscard]] ModuleFolders systemModuleFolders(UserDirectory& user);

/// The file of the module that a user calls `name`. A name with a slash, and one that something other than a
/// folder has in the working folder, is that of a file, whether there is one or not: what a user sees beside
/// him is what he means, and whether somebody else may change it is looked at when it is loaded (see
/// ModuleFile.h). Any other is looked up in the folders, never in those of the loader.
///
/// Fails when no module of that name is configured, naming those that are, and the one that may be meant.
/// Fails for a configuration that is no text of such lines, and, unless `trusted`, for one that somebody else
/// may change: he would choose the program's code. A folder that nothing else of its name stands for is left
/// to chooseModule, which tells what it is.
[[nodiscard]] Result<std::string> moduleFileFor(const std::string& name, const ModuleFolders& folders,
                                                bool trusted);

/// The same for who examines what is wrong with the module: a name that is not known is that of a file which
/// is missing.
[[nodiscard]] Result<std::string> moduleFileToExamine(const std::string& name, const ModuleFolders& folders,
                                                      bool trusted);

}  // namespace mirel
