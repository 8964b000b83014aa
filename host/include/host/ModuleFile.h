#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/Result.h"
#include "platform/PlatformServices.h"

namespace mirel {

/// What a user says about the PKCS #11 module of a run.
struct ModuleChoice {
  /// The module's file; without a slash it is one in the working folder, never one in the loader's folders.
  /// The names of configured modules are none: see ModuleLookup.h. Nothing: the module in the home.
  std::optional<std::string> path;

  /// It is loaded although somebody else may change it.
  bool trusted = false;
};

/// Has the loader of `services` open the chosen file where the card layer looks for its module: in the user's
/// home. Nothing is written to disk. The loader's error texts name the file as the user does. Succeeds also
/// when there is no such file: the loader then tells that, and does not open it when it appears later.
///
/// Fails for what is no regular file, and for a library whose header says that it is for other systems. Fails
/// for a file that is not trusted and that somebody else may change: the module gets the PIN, and runs with
/// the rights of this user. What is looked at, and what is not (access control lists), stands in
/// ModuleTrust.h. What is looked at is also what is opened: the file behind all links.
[[nodiscard]] Result<void> chooseModule(PlatformServices& services, const ModuleChoice& choice);

}  // namespace mirel
