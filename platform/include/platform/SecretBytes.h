#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/LockedMemory.h"
#include "platform/Memory.h"

namespace mirel {

/// Room for a secret: zeros at first, wiped at the end, and not written to a swap device if the system grants
/// it.
template <std::size_t Size>
class SecretBytes {
 public:
  SecretBytes() noexcept { keepOffDisk(bytes_.data(), Size); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  ~SecretBytes() { wipe(bytes_.data(), Size); }

  [[nodiscard]] std::uint8_t* data() noexcept { return bytes_.data(); }
  [[nodiscard]] static constexpr std::size_t size() noexcept { return Size; }
  [[nodiscard]] std::span<std::uint8_t> span() noexcept { return bytes_; }

 private:
  std::array<std::uint8_t, Size> bytes_{};
};

}  // namespace mirel
