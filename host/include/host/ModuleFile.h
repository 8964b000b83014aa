#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/Failure.h"
#include "platform/PlatformServices.h"

namespace mirel {

/// Has the loader of `services` open the file `path` where the card layer looks for its module: in the user's
/// home. Nothing is written to disk. The loader's error texts name the file as `path` does. Nothing when that
/// could be arranged; also when there is no such file, which the loader then tells.
///
/// Fails for what is no regular file.
///
/// `path`: the module's file; without a slash it is one in the working folder, never one in the loader's
/// folders. Nothing: the module in the home.
[[nodiscard]] std::optional<Failure> chooseModule(PlatformServices& services,
                                                  const std::optional<std::string>& path);

}  // namespace mirel
