// In place of the system's random bytes (see platform/Random.h): the same input must do the same in each run.

#include <algorithm>

#include "platform/Random.h"

namespace mirel {

bool fillWithRandomBytes(std::span<std::uint8_t> out) noexcept {
  constexpr std::size_t kMost = 256;  // as of the system
  if (out.size() > kMost) return false;
  std::fill(out.begin(), out.end(), std::uint8_t{0xA5});
  return true;
}

}  // namespace mirel
