#include "platform/LockedMemory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace mirel {

void keepOffDisk(const void* data, std::size_t size) noexcept {
  static const long pageSize = sysconf(_SC_PAGESIZE);
  if (size == 0 || pageSize <= 0) return;
  const auto start = reinterpret_cast<std::uintptr_t>(data);
  const std::size_t before = start % static_cast<std::uintptr_t>(pageSize);
  // The address has to be that of a page (POSIX, mlock).
  (void)mlock(static_cast<const char*>(data) - before, before + size);
}

}  // namespace mirel
