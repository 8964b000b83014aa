#pragma once

#include <cstdint>
#include <span>

namespace mirel {

/// Fills `out` (256 bytes at most) with unpredictable bytes of the operating system. False when it has none;
/// what is in `out` then is of no use. A function of the system, not handed down.
[[nodiscard]] bool fillWithRandomBytes(std::span<std::uint8_t> out) noexcept;

}  // namespace mirel
