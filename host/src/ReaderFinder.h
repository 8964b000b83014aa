#pragma once

#include <string>
#include <vector>

#include "bridge/cryptoki.h"
#include "host/Host.h"
#include "host/Result.h"

namespace mirel {

class FailureDiary;
class P11Bridge;

/// Loads the module into the bridge. `givenModule`: the path by which the user named the module, for
/// messages; empty: the user did not.
[[nodiscard]] Result<void> loadModule(P11Bridge& bridge, FailureDiary& diary, const std::string& givenModule);

/// Initialises the module that was loaded. One that runs already is as good.
[[nodiscard]] Result<void> startModule(P11Bridge& bridge, const std::string& givenModule, CK_RV& outAnswer);

/// Asks the module that was started for its slots: with a token only, or all.
[[nodiscard]] Result<std::vector<Reader>> listReaders(const P11Bridge& bridge, bool withTokenOnly);

/// The three in turn.
[[nodiscard]] Result<std::vector<Reader>> findReaders(P11Bridge& bridge, FailureDiary& diary,
                                                      const std::string& givenModule, bool withTokenOnly);

}  // namespace mirel
