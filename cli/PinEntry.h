#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Options.h"
#include "host/PinSource.h"

namespace mirel::cli {

/// Where the options say that the PIN comes from: a file, an open file descriptor (each read once), or the
/// terminal. `pinState`: what is known about the PIN of the card just now (UTF-8, may be empty); shown with
/// the prompt.
[[nodiscard]] std::unique_ptr<PinSource> pinSourceFor(const Options& options,
                                                      std::function<std::string()> pinState);

/// Why the options' file descriptor gives no PIN, as far as that shows beforehand. To be asked before
/// anything is opened, because a file of ours could get the number of a closed one, and be taken for the PIN.
[[nodiscard]] std::optional<Failure> pinDescriptorTrouble(const Options& options);

}  // namespace mirel::cli
