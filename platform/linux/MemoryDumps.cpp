#include "platform/MemoryDumps.h"

#include <sys/prctl.h>
#include <sys/resource.h>

namespace mirel {

void forbidMemoryDumps() noexcept {
  const rlimit none{0, 0};
  (void)setrlimit(RLIMIT_CORE, &none);
  // The limit does not hold for a core that is piped to a program; this does, and it forbids tracing too.
  (void)prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace mirel
