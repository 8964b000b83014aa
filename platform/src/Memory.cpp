#include "platform/Memory.h"

#include <cstdint>
#include <cstdlib>

namespace mirel {
namespace {

class HeapMemory final : public Memory {
 public:
  void* allocate(std::size_t size) noexcept override {
    // No object can be larger, so a larger size is a wrong length and not worth asking the heap for.
    if (size > static_cast<std::size_t>(PTRDIFF_MAX)) return nullptr;
    return std::calloc(1, size);
  }

  void release(void* block) noexcept override { std::free(block); }
};

}  // namespace

void wipe(void* data, std::size_t size) noexcept {
  volatile auto* byte = static_cast<volatile unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) byte[i] = 0;
}

void wipeStackLeftBehind() noexcept {
  unsigned char room[65536];
  wipe(room, sizeof room);
}

std::shared_ptr<Memory> systemMemory() { return std::make_shared<HeapMemory>(); }

}  // namespace mirel
