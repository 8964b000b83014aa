#include "ModuleLock.h"

namespace mirel {

std::mutex& moduleLock() noexcept {
  static constinit std::mutex lock;
  return lock;
}

}  // namespace mirel
