#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/Result.h"
#include "platform/PlatformServices.h"

namespace mirel {

/// What stands where the module should be, found without loading it.
struct ModuleFacts {
  std::string place;   ///< where the card layer looks for it
  std::string name;    ///< as the user knows it
  std::string path{};  ///< the file behind all links; empty: there is none
  int error = 0;       ///< why there is none, or why it cannot be read: an errno
  /// What it is instead of a library, or, where `target` is known, why no whole one; empty where it may be
  /// one.
  std::string noFile{};
  std::optional<std::string> exposure{};  ///< how somebody else may change it; nothing: nobody
  std::string target{};                   ///< the processors that it was built for; empty: that does not show
  std::optional<Failure> otherTarget{};   ///< why it is not for this program; nothing where it is or may be
};

/// What a user says about the PKCS #11 module of a run.
struct ModuleChoice {
  /// The module's file; without a slash it is one in the working folder, never one in the loader's folders.
  /// The names of configured modules are none: see ModuleLookup.h. Nothing: the module in the home.
  std::optional<std::string> path;

  /// It is loaded although somebody else may change it.
  bool trusted = false;

  /// Is told what was found of the file, and answers what is to be taken for it, so that a run can be
  /// recorded and repeated; null: nobody.
  std::function<std::optional<ModuleFacts>(std::optional<ModuleFacts> found)> onFacts{};
};

/// Has the loader of `services` open the chosen file where the card layer looks for its module: in the user's
/// home. Nothing is written to disk. The loader's error texts name the file as the user does. Succeeds also
/// when there is no such file: the loader then tells that, and does not open it when it appears later.
///
/// Fails for what is no regular file or no library, for what cannot be read, and for a library whose header
/// says that it is for other systems or that the file is cut off. Fails for a file that is not trusted and
/// that somebody else may change: the module gets the PIN, and runs with the rights of this user. What is
/// looked at, and what is not (access control lists), stands in ModuleTrust.h. What is looked at is also what
/// is opened: the file behind all links.
[[nodiscard]] Result<void> chooseModule(PlatformServices& services, const ModuleChoice& choice);

}  // namespace mirel
