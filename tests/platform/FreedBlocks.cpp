#include "FreedBlocks.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace mirel::test {
namespace {

// Nothing here may allocate: it runs inside the operators.
thread_local std::span<const std::uint8_t> wanted;
thread_local std::size_t numFreed = 0;
thread_local std::size_t numWithNeedle = 0;

/// In front of each block, keeping it aligned for any type.
struct alignas(std::max_align_t) Header {
  std::size_t size;
};

}  // namespace

/// A block from the heap; null when there is none.
static void* allocated(std::size_t size) noexcept {
  void* whole = std::malloc(sizeof(Header) + size);
  if (!whole) return nullptr;
  return new (whole) Header{size} + 1;
}

static void release(void* block) noexcept {
  if (!block) return;
  Header* header = static_cast<Header*>(block) - 1;
  if (!wanted.empty()) {
    const auto* bytes = static_cast<const std::uint8_t*>(block);
    const auto* end = bytes + header->size;
    ++numFreed;
    if (std::search(bytes, end, wanted.begin(), wanted.end()) != end) ++numWithNeedle;
  }
  std::free(header);
}

FreedBlocks::FreedBlocks(std::span<const std::uint8_t> needle) noexcept {
  numFreed = 0;
  numWithNeedle = 0;
  wanted = needle;
}

FreedBlocks::~FreedBlocks() { wanted = {}; }

std::size_t FreedBlocks::withNeedle() const noexcept { return numWithNeedle; }

std::size_t FreedBlocks::count() const noexcept { return numFreed; }

}  // namespace mirel::test

// All forms for types without a special alignment, so that blocks of one never reach the other's end:
// sanitizers bring forms of their own.

void* operator new(std::size_t size) {
  if (void* const block = mirel::test::allocated(size)) return block;
  throw std::bad_alloc{};
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return mirel::test::allocated(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return mirel::test::allocated(size);
}

void operator delete(void* block) noexcept { mirel::test::release(block); }
void operator delete[](void* block) noexcept { mirel::test::release(block); }
void operator delete(void* block, std::size_t) noexcept { mirel::test::release(block); }
void operator delete[](void* block, std::size_t) noexcept { mirel::test::release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { mirel::test::release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { mirel::test::release(block); }
