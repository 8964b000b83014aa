#pragma once

#include <cstddef>
#include <string_view>

#include "bridge/cryptoki.h"

namespace mirel {

/// The names that the standard gives to what a module has and answers: one list of each kind, for all who
/// show them to somebody.

/// A function's name ("C_Login"), by the place of its entry: `offset` bytes into CK_FUNCTION_LIST. "?" where
/// no function is.
[[nodiscard]] const char* cryptokiFunctionName(std::size_t offset) noexcept;

/// A result code's name ("CKR_DEVICE_ERROR"); empty when the standard has none for it.
[[nodiscard]] std::string_view cryptokiResultName(CK_RV result) noexcept;

/// The name of one bit of a token's flags, without "CKF_"; empty when the standard has none for it.
[[nodiscard]] std::string_view tokenFlagName(CK_FLAGS flag) noexcept;

/// The same for a slot's flags.
[[nodiscard]] std::string_view slotFlagName(CK_FLAGS flag) noexcept;

}  // namespace mirel
