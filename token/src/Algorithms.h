#pragma once

/// What this system says about algorithms. Tables are searched in their order, which the platform can see.

#include <string_view>

#include "token/TokenKit.h"

namespace mirel {

/// What an operation needs of a key, and the algorithms it is offered for.
/// Oddity: the type of the key does not matter, and message algorithms are never offered.
[[nodiscard]] bool isSupported(TKTokenOperation operation, const TKTokenKeychainKey& key,
                               const TKTokenKeyAlgorithm& algorithm) noexcept;

/// The name that an algorithm has in the layers below, for kSignData and kDecryptData; empty when the
/// operation does not know it.
[[nodiscard]] std::string_view algorithmName(TKTokenOperation operation,
                                             const TKTokenKeyAlgorithm& algorithm) noexcept;

}  // namespace mirel
