#pragma once

#include "ExitCode.h"
#include "Options.h"

namespace mirel {
class Host;
}

namespace mirel::cli {

/// "readers": the slots that hold a token.
[[nodiscard]] ExitCode runReaders(Host& host, const Options& options);

/// "items": what the keychain would hold of an inserted card.
[[nodiscard]] ExitCode runItems(Host& host, const Options& options);

}  // namespace mirel::cli
