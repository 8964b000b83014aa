#pragma once

#include <cstddef>

namespace mirel {

/// Asks the system not to write the pages of these bytes to a swap device, ever again: other secrets may lie
/// in them too. As good as it goes: the system may refuse. A function of the system, not handed down. `data`
/// may be null when `size` is 0.
void keepOffDisk(const void* data, std::size_t size) noexcept;

}  // namespace mirel
