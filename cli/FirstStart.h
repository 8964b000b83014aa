#pragma once

#include <optional>

#include "ExitCode.h"

namespace mirel {
class Desktop;
class UserDirectory;
}  // namespace mirel

namespace mirel::cli {

/// What the app does when it is started without arguments: makes itself known to the system, and tells the
/// user what to do next, in a message when the app was opened, otherwise on standard output. `argc`: as main
/// got it; `desktop`: may be null. Nothing when there are arguments or the program is in no app; then the
/// command line has its say.
[[nodiscard]] std::optional<ExitCode> runFirstStart(int argc, Desktop* desktop, UserDirectory& user);

}  // namespace mirel::cli
