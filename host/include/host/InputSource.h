#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/Result.h"

namespace mirel {

/// Data to work on, read once from front to back.
class InputSource {
 public:
  InputSource() = default;
  InputSource(const InputSource&) = delete;
  InputSource& operator=(const InputSource&) = delete;
  virtual ~InputSource() = default;

  /// Fills `room` (not empty) as far as data are at hand; 0 at their end.
  [[nodiscard]] virtual Result<std::size_t> read(std::span<std::uint8_t> room) = 0;
};

}  // namespace mirel
