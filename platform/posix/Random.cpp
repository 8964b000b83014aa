#include "platform/Random.h"

#include <sys/random.h>
#include <unistd.h>

namespace mirel {

bool fillWithRandomBytes(std::span<std::uint8_t> out) noexcept {
  return getentropy(out.data(), out.size()) == 0;
}

}  // namespace mirel
