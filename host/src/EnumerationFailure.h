#pragma once

#include <string>

#include "FailureDiary.h"
#include "host/Advice.h"
#include "host/Host.h"

namespace mirel {

/// Between quotation marks. `shown`: fit for a message.
[[nodiscard]] std::string quoted(const std::string& shown);
/// The same for a name of the card.
[[nodiscard]] std::string quoted(const Text& name);

/// The card in the reader cannot be listed, for that reason ...
[[nodiscard]] Failure enumerationFailure(const Reader& reader, const std::string& why, const Advice& advice);

/// ... or because of that call.
[[nodiscard]] Failure enumerationFailure(const Reader& reader, const FailedCall& cause);

}  // namespace mirel
