#pragma once

#include <memory>

#include "platform/Log.h"

namespace mirel::cli {

/// The log of a command line: the system's lines go to the system log; on standard error there is
/// nothing unless `verbose`, and then every line.
[[nodiscard]] std::shared_ptr<Log> commandLineLog(std::shared_ptr<Log> systemLog, bool verbose);

}  // namespace mirel::cli
