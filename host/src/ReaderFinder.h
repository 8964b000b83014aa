#pragma once

#include <string>
#include <vector>

#include "host/Host.h"
#include "host/Result.h"

namespace mirel {

class FailureDiary;
class P11Bridge;

/// Loads and initialises the module into the bridge and asks it for its slots: with a token only, or all.
/// `givenModule`: the path by which the user named the module, for messages; empty: the user did not.
[[nodiscard]] Result<std::vector<Reader>> findReaders(P11Bridge& bridge, FailureDiary& diary,
                                                      const std::string& givenModule, bool withTokenOnly);

}  // namespace mirel
