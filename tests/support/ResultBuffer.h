#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "bridge/cryptoki.h"
#include "support/AddressSanitizer.h"

namespace mirel::test {

/// A caller's buffer of exactly `capacity` bytes, filled with 11. Whoever writes behind it fails the test at
/// the buffer's end; under AddressSanitizer the buffer ends with its block and the write itself is reported.
class ResultBuffer {
 public:
  static constexpr CK_BYTE kUntouched = 0x11;

  explicit ResultBuffer(std::size_t capacity)
      : capacity_{capacity}, bytes_(capacity + kGuardBytes, kUntouched) {
    bytes_.reserve(1);  // a buffer without room is not a null one
  }
  ResultBuffer(const ResultBuffer&) = delete;
  ResultBuffer& operator=(const ResultBuffer&) = delete;
  ~ResultBuffer() {
    const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(capacity_);
    EXPECT_TRUE(std::all_of(end, bytes_.end(), [](CK_BYTE byte) { return byte == kUntouched; }))
        << "written behind the end of " << capacity_ << " bytes";
  }

  [[nodiscard]] CK_BYTE* data() { return bytes_.data(); }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }

  [[nodiscard]] std::vector<CK_BYTE> first(std::size_t size) const {
    return {bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size)};
  }
  [[nodiscard]] std::vector<CK_BYTE> all() const { return first(capacity_); }
  [[nodiscard]] bool untouched() const { return untouchedFrom(0); }
  /// Whether nothing was written from that byte on.
  [[nodiscard]] bool untouchedFrom(std::size_t start) const {
    return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(start), bytes_.end(),
                       [](CK_BYTE byte) { return byte == kUntouched; });
  }

 private:
#if defined(MIREL_ADDRESS_SANITIZER)
  static constexpr std::size_t kGuardBytes = 0;
#else
  static constexpr std::size_t kGuardBytes = 8192;
#endif

  std::size_t capacity_;
  std::vector<CK_BYTE> bytes_;
};

}  // namespace mirel::test
