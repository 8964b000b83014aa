#include "platform/Memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <new>
#include <optional>
#include <vector>

#include "platform/SecretBytes.h"

// The sanitizers end the process when a size is absurd, unless told to answer as the heap does. Their
// run-time libraries look for these by name.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options();
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace mirel {
namespace {

constexpr std::size_t kLargestObject = PTRDIFF_MAX;

/// Counts, and refuses when told to.
class CountingMemory final : public Memory {
 public:
  void* allocate(std::size_t size) noexcept override {
    if (refuses) return nullptr;
    void* block = heap_->allocate(size);
    sizes_[block] = size;
    lastSize = size;
    return block;
  }
  void release(void* block) noexcept override {
    if (!block) return;
    EXPECT_EQ(sizes_.erase(block), 1U) << "released twice, or never allocated";
    heap_->release(block);
  }
  [[nodiscard]] std::size_t blocksInUse() const { return sizes_.size(); }

  bool refuses = false;
  std::size_t lastSize = 0;

 private:
  std::shared_ptr<Memory> heap_ = systemMemory();
  std::map<void*, std::size_t> sizes_;
};

TEST(SystemMemory, FillsWithZeros) {
  const std::shared_ptr<Memory> memory = systemMemory();
  constexpr std::size_t kSize = 4096;
  // A block that was used before is the likely one to come back dirty.
  for (int round = 0; round < 3; ++round) {
    auto* block = static_cast<std::uint8_t*>(memory->allocate(kSize));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(std::all_of(block, block + kSize, [](std::uint8_t byte) { return byte == 0; }));
    std::fill(block, block + kSize, std::uint8_t{0xA5});
    memory->release(block);
  }
}

TEST(SystemMemory, AlignsForAnyType) {
  const std::shared_ptr<Memory> memory = systemMemory();
  for (const std::size_t size : {1U, 3U, 17U, 255U}) {
    SCOPED_TRACE(size);
    void* block = memory->allocate(size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
    memory->release(block);
  }
}

TEST(SystemMemory, RefusesSizesThatNoObjectCanHaveOrTheHeapCannotGive) {
  for (const std::size_t size :
       {kLargestObject + 1, std::numeric_limits<std::size_t>::max(), kLargestObject - 4096})
    EXPECT_EQ(systemMemory()->allocate(size), nullptr) << size;
}

TEST(SystemMemory, ReleasesNull) { systemMemory()->release(nullptr); }

class MemoryBlockTest : public testing::Test {
 protected:
  MemoryBlockTest() { EXPECT_TRUE(block->allocate(16)); }
  /// The block is of that size, and the only one.
  void expectOnly(std::size_t size) const {
    EXPECT_EQ(block->size(), size);
    EXPECT_EQ(block->data() != nullptr, size > 0);
    EXPECT_EQ(memory.blocksInUse(), size > 0 ? 1U : 0U);
  }

  CountingMemory memory;
  std::optional<MemoryBlock> block{std::in_place, memory};
};

TEST_F(MemoryBlockTest, OwnsNothingAtFirst) {
  block.emplace(memory);
  expectOnly(0);
}

TEST_F(MemoryBlockTest, ReleasesItsBlockAtTheEnd) {
  expectOnly(16);
  block.reset();
  EXPECT_EQ(memory.blocksInUse(), 0U);
}

TEST_F(MemoryBlockTest, ReplacesItsBlock) {
  ASSERT_TRUE(block->allocate(32));
  expectOnly(32);
}

TEST_F(MemoryBlockTest, OwnsNothingAfterARefusal) {
  memory.refuses = true;
  EXPECT_FALSE(block->allocate(32));
  expectOnly(0);
}

TEST_F(MemoryBlockTest, KeepsABlockThatTheBorrowerLeft) {
  block->reclaim(block->data());
  expectOnly(16);
}

TEST_F(MemoryBlockTest, ForgetsABlockThatTheBorrowerReleased) {
  memory.release(block->data());
  block->reclaim(nullptr);
  expectOnly(0);
  block.reset();
  EXPECT_EQ(memory.blocksInUse(), 0U);
}

class MemoryAllocatorTest : public testing::Test {
 protected:
  const std::shared_ptr<CountingMemory> memory = std::make_shared<CountingMemory>();
};

TEST_F(MemoryAllocatorTest, ServesAContainer) {
  {
    std::vector<std::uint64_t, MemoryAllocator<std::uint64_t>> numbers{
        MemoryAllocator<std::uint64_t>{memory}};
    numbers.resize(10, 7);
    EXPECT_EQ(memory->lastSize, 10 * sizeof(std::uint64_t));
    EXPECT_EQ(memory->blocksInUse(), 1U);
  }
  EXPECT_EQ(memory->blocksInUse(), 0U);
}

TEST_F(MemoryAllocatorTest, ServesAllocateShared) {
  auto number = std::allocate_shared<int>(MemoryAllocator<int>{memory}, 5);
  EXPECT_EQ(*number, 5);
  EXPECT_EQ(memory->blocksInUse(), 1U);
  number.reset();
  EXPECT_EQ(memory->blocksInUse(), 0U);
}

TEST_F(MemoryAllocatorTest, ThrowsBadAllocWhenTheMemoryRefuses) {
  memory->refuses = true;
  std::vector<int, MemoryAllocator<int>> numbers{MemoryAllocator<int>{memory}};
  EXPECT_THROW(numbers.push_back(1), std::bad_alloc);
}

TEST_F(MemoryAllocatorTest, ThrowsBadAllocForACountWhoseSizeOverflows) {
  MemoryAllocator<std::uint64_t> allocator{memory};
  // 8 times this count is 8 again in 64 bits.
  constexpr std::size_t kCount = std::numeric_limits<std::size_t>::max() / 8 + 2;
  EXPECT_THROW((void)allocator.allocate(kCount), std::bad_alloc);
  EXPECT_EQ(memory->blocksInUse(), 0U);
}

TEST_F(MemoryAllocatorTest, IsEqualToOthersOfTheSameMemory) {
  const MemoryAllocator<int> ints{memory};
  EXPECT_TRUE(ints == MemoryAllocator<char>{ints});
  EXPECT_FALSE(ints == MemoryAllocator<int>{std::make_shared<CountingMemory>()});
}

TEST(SecretBytes, AreZerosAtFirstAndAtTheEnd) {
  alignas(SecretBytes<16>) std::array<std::byte, sizeof(SecretBytes<16>)> storage{};
  storage.fill(std::byte{0xEE});
  auto* secret = new (storage.data()) SecretBytes<16>;
  EXPECT_EQ(storage, decltype(storage){});
  std::fill_n(secret->data(), secret->size(), std::uint8_t{0x31});
  secret->~SecretBytes();
  EXPECT_EQ(storage, decltype(storage){});
}

}  // namespace
}  // namespace mirel
