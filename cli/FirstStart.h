#pragma once

#include "ExitCode.h"

namespace mirel {
class Desktop;
class UserDirectory;
}  // namespace mirel

namespace mirel::cli {

/// What the app does when it is started without arguments: makes itself known to the system, and tells the
/// user what to do next, in a message when the app was opened, otherwise on standard output. To be called
/// only when `desktop` has an app.
[[nodiscard]] ExitCode runFirstStart(Desktop& desktop, UserDirectory& user);

}  // namespace mirel::cli
