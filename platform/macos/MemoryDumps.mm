#include "platform/MemoryDumps.h"

#include <sys/resource.h>

namespace mirel {

void forbidMemoryDumps() noexcept {
  const rlimit none{0, 0};
  (void)setrlimit(RLIMIT_CORE, &none);
}

}  // namespace mirel
