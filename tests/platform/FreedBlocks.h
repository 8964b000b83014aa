#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace mirel::test {

/// Looks, while it lives, into every block that `delete` and the standard containers give back, and counts
/// those that still hold certain bytes. One at a time; for the thread that made it.
class FreedBlocks {
 public:
  /// `needle`: not empty; must stay as it is as long as this lives.
  explicit FreedBlocks(std::span<const std::uint8_t> needle) noexcept;
  FreedBlocks(const FreedBlocks&) = delete;
  FreedBlocks& operator=(const FreedBlocks&) = delete;
  ~FreedBlocks();

  /// Blocks given back so far with the needle in them.
  [[nodiscard]] std::size_t withNeedle() const noexcept;
  /// Blocks given back so far.
  [[nodiscard]] std::size_t count() const noexcept;
};

}  // namespace mirel::test
