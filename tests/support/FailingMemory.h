#pragma once

#include <cstddef>
#include <map>
#include <vector>

#include "module/Script.h"
#include "platform/Memory.h"

namespace mirel::test {

/// The heap, with its books kept: which blocks are out, what was asked for. Can be made to fail, and
/// refuses sizes that no honest card needs. Giving back a block that is not out fails the test.
class FailingMemory final : public Memory {
 public:
  /// The largest block that can be had, in bytes.
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20U;

  ~FailingMemory() override;

  [[nodiscard]] void* allocate(std::size_t size) noexcept override;
  void release(void* block) noexcept override;

  /// The n-th request from here on (the next one is 0) gets nothing.
  void failAllocation(std::size_t n, Times times = Times::kOnce);
  /// Whether a request was made to fail since `reset`.
  [[nodiscard]] bool fired() const { return fired_; }

  /// The sizes asked for since `reset`, refused ones included.
  [[nodiscard]] const std::vector<std::size_t>& requests() const { return requests_; }
  /// The largest of them; 0 when there were none.
  [[nodiscard]] std::size_t largestRequest() const;
  /// Blocks that were not given back yet.
  [[nodiscard]] std::size_t outstanding() const { return blocks_.size(); }

  /// The sizes of the blocks that were given back since `reset` with anything but zeros in them.
  [[nodiscard]] const std::vector<std::size_t>& releasedUnwiped() const { return releasedUnwiped_; }

  /// Forgets requests, releases and failures; blocks that are out stay out.
  void reset();

 private:
  std::map<void*, std::size_t> blocks_;
  std::vector<std::size_t> requests_;
  std::vector<std::size_t> releasedUnwiped_;
  bool armed_ = false;
  bool fired_ = false;
  std::size_t failAt_ = 0;
  Times times_ = Times::kOnce;
  std::size_t seen_ = 0;
};

}  // namespace mirel::test
