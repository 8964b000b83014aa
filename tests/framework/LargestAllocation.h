#pragma once

#include <cstddef>

namespace mirel::test {

/// Forgets the largest block.
void forgetAllocations() noexcept;

/// The size of the largest block that anything in this process asked `operator new` for since then.
[[nodiscard]] std::size_t largestAllocation() noexcept;

}  // namespace mirel::test
