#include "framework/LargestAllocation.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace mirel::test {
namespace {

std::atomic<std::size_t> largest{0};

void note(std::size_t size) noexcept {
  std::size_t known = largest;
  while (size > known && !largest.compare_exchange_weak(known, size)) {
  }
}

}  // namespace

/// A block from the heap; null when there is none.
static void* allocateOrNull(std::size_t size) noexcept {
  note(size);
  return std::malloc(std::max<std::size_t>(size, 1));
}

void forgetAllocations() noexcept { largest = 0; }

std::size_t largestAllocation() noexcept { return largest; }

}  // namespace mirel::test

// All forms for types without a special alignment, so that blocks of one never reach the other's end:
// sanitizers bring forms of their own.

void* operator new(std::size_t size) {
  if (void* const block = mirel::test::allocateOrNull(size)) return block;
  throw std::bad_alloc{};
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return mirel::test::allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return mirel::test::allocateOrNull(size);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
