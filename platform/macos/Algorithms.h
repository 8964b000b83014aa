#pragma once

#import <Security/Security.h>

#include "platform/SecKeyAlgorithm.h"

namespace mirel {

/// The constant of the key services.
[[nodiscard]] ::SecKeyAlgorithm constantOf(SecKeyAlgorithm algorithm) noexcept;

}  // namespace mirel
