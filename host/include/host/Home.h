#pragma once

#include <memory>
#include <string>

#include "platform/UserDirectory.h"

namespace mirel {

/// The same user, with `home` (an absolute path) for every home folder.
[[nodiscard]] std::shared_ptr<UserDirectory> userWithHome(std::shared_ptr<UserDirectory> user,
                                                          std::string home);

/// The path of the card maker's module in that home folder.
[[nodiscard]] std::string moduleInHome(const std::string& home);

}  // namespace mirel
