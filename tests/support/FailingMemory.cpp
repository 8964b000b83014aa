#include "support/FailingMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace mirel::test {

FailingMemory::~FailingMemory() {
  for (const auto& [block, size] : blocks_) std::free(block);
}

void* FailingMemory::allocate(std::size_t size) noexcept {
  if (size == 0) ADD_FAILURE() << "an empty block was asked for";
  requests_.push_back(size);
  if (armed_) {
    const std::size_t place = seen_++;
    if (times_ == Times::kOnce ? place == failAt_ : place >= failAt_) {
      fired_ = true;
      return nullptr;
    }
  }
  if (size > kMostBytes) return nullptr;
  void* const block = std::calloc(1, size);
  blocks_[block] = size;
  return block;
}

void FailingMemory::release(void* block) noexcept {
  if (!block) return;
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "a block was given back that was not out";
    return;
  }
  const std::size_t size = found->second;
  const auto* const bytes = static_cast<const unsigned char*>(block);
  if (std::any_of(bytes, bytes + size, [](unsigned char byte) { return byte != 0; })) {
    releasedUnwiped_.push_back(size);
  }
  blocks_.erase(found);
  std::free(block);
}

void FailingMemory::failAllocation(std::size_t n, Times times) {
  armed_ = true;
  failAt_ = n;
  times_ = times;
  seen_ = 0;
}

std::size_t FailingMemory::largestRequest() const {
  return requests_.empty() ? 0 : *std::max_element(requests_.begin(), requests_.end());
}

void FailingMemory::reset() {
  requests_.clear();
  releasedUnwiped_.clear();
  armed_ = false;
  fired_ = false;
  seen_ = 0;
}

}  // namespace mirel::test
