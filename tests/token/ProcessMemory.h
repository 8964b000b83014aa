#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace mirel::test {

/// Eight bytes that this process holds only in two halves, so that looking for them does not find what is
/// looked for: letters and digits chosen at random.
class HiddenPin {
 public:
  static constexpr std::size_t kSize = 8;

  HiddenPin();

  [[nodiscard]] std::uint8_t at(std::size_t i) const {
    return static_cast<std::uint8_t>(half_[i] ^ mask_[i]);
  }

 private:
  std::array<std::uint8_t, kSize> half_{};
  std::array<std::uint8_t, kSize> mask_{};
};

/// How often a PIN stands in the process's memory, as ASCII and as UTF-16.
struct PinCopies {
  std::size_t ascii = 0;
  std::size_t utf16 = 0;
};

/// Looks through all of the process's own writable memory: heap, stacks, static variables.
[[nodiscard]] PinCopies copiesInMemory(const HiddenPin& pin);

}  // namespace mirel::test
