#pragma once

#include <mutex>
#include <utility>

namespace mirel {

/// A property whose accessors several threads may call at once: a reader gets either the old value
/// or the new one, never a mixture. For values that hold a reference (texts, byte strings, shared
/// objects); plain scalars use std::atomic.
///
/// The value that a write replaces is destroyed outside the lock, so its destructor may use the
/// property's owner.
template <typename Value>
class AtomicProperty {
 public:
  AtomicProperty() = default;
  AtomicProperty(const AtomicProperty&) = delete;
  AtomicProperty& operator=(const AtomicProperty&) = delete;

  [[nodiscard]] Value get() const noexcept {
    const std::lock_guard lock{mutex_};
    return value_;
  }

  void set(Value value) noexcept {
    const std::lock_guard lock{mutex_};
    std::swap(value_, value);
  }

 private:
  mutable std::mutex mutex_;
  Value value_{};
};

}  // namespace mirel
