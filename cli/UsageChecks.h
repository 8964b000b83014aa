#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Options.h"
#include "host/Result.h"
#include "platform/UserDirectory.h"

namespace mirel::cli {

// What a command line must satisfy beyond what the parser knows.

/// The user, with the home folder that the options name.
[[nodiscard]] std::shared_ptr<UserDirectory> userOf(const Options& options,
                                                    std::shared_ptr<UserDirectory> user);

/// Whether the options of a command, with what the environment adds to them, make sense together. None of
/// their files is opened.
[[nodiscard]] Result<void> checkUsage(const Options& options);

/// Whether the options of "record" itself do.
[[nodiscard]] Result<void> checkRecord(const Options& options);

/// `command`: whose help has what was meant; empty: that of the program.
[[nodiscard]] Failure wrongUsage(const std::string& why, std::string_view command = {});

}  // namespace mirel::cli
