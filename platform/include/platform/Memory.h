#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace mirel {

/// The one allocator whose failure has a result of its own: everything sized by what a card or a
/// module reports comes from here. Elsewhere running out of memory ends the process.
class Memory {
 public:
  Memory() = default;
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  virtual ~Memory() = default;

  /// `size` bytes (1 or more), zero-filled and aligned for any type; null when they cannot be had.
  [[nodiscard]] virtual void* allocate(std::size_t size) noexcept = 0;

  /// Gives back what `allocate` returned; null is allowed.
  virtual void release(void* block) noexcept = 0;
};

/// The heap of the process.
[[nodiscard]] std::shared_ptr<Memory> systemMemory();

/// Overwrites `size` bytes with zeros, in a way that is not optimised away. `data` may be null when `size`
/// is 0.
void wipe(void* data, std::size_t size) noexcept;

/// Overwrites what calls that have returned left on the stack, 64 KiB below the caller: the dynamic loader
/// saves registers there, with what was copied last.
void wipeStackLeftBehind() noexcept;

/// Sole owner of one block of a Memory, which must outlive it.
class MemoryBlock {
 public:
  /// Owns nothing.
  explicit MemoryBlock(Memory& memory) noexcept : memory_{&memory} {}
  MemoryBlock(const MemoryBlock&) = delete;
  MemoryBlock& operator=(const MemoryBlock&) = delete;
  ~MemoryBlock() { memory_->release(data_); }

  /// Replaces the block by a zero-filled one of `size` bytes. False when it cannot be had (then it
  /// owns nothing).
  [[nodiscard]] bool allocate(std::size_t size) noexcept {
    memory_->release(data_);
    data_ = static_cast<std::uint8_t*>(memory_->allocate(size));
    size_ = data_ ? size : 0;
    return data_ != nullptr;
  }

  /// Takes over what a callee that was lent the block left in its place: the same pointer, or null
  /// when the callee has released the block.
  void reclaim(const void* lent) noexcept {
    if (lent) return;
    data_ = nullptr;
    size_ = 0;
  }

  [[nodiscard]] std::uint8_t* data() const noexcept { return data_; }
  [[nodiscard]] std::size_t size() const noexcept { return size_; }  ///< bytes

 private:
  Memory* memory_;
  std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Lets standard library facilities take their memory from a Memory; throws std::bad_alloc.
template <typename T>
class MemoryAllocator {
 public:
  using value_type = T;

  explicit MemoryAllocator(std::shared_ptr<Memory> memory) noexcept : memory_{std::move(memory)} {}
  template <typename U>
  MemoryAllocator(const MemoryAllocator<U>& other) noexcept  // NOLINT(google-explicit-constructor)
      : memory_{other.memory()} {}

  [[nodiscard]] T* allocate(std::size_t count) {
    if (count > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc{};
    void* block = memory_->allocate(count * sizeof(T));
    if (!block) throw std::bad_alloc{};
    return static_cast<T*>(block);
  }
  void deallocate(T* block, std::size_t) noexcept { memory_->release(block); }

  [[nodiscard]] const std::shared_ptr<Memory>& memory() const noexcept { return memory_; }
  template <typename U>
  [[nodiscard]] bool operator==(const MemoryAllocator<U>& other) const noexcept {
    return memory_ == other.memory();
  }

 private:
  std::shared_ptr<Memory> memory_;
};

}  // namespace mirel
