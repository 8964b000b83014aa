#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace mirel::fuzz {

/// The bytes that the fuzzer gives, taken from front to back. Where they are used up everything is 0 or
/// empty, which each user takes for "as a good module does it": so a short input goes as deep as a long one.
class Input {
 public:
  explicit Input(std::span<const std::uint8_t> bytes) noexcept : rest_{bytes} {}

  [[nodiscard]] bool atEnd() const noexcept { return rest_.empty(); }

  [[nodiscard]] std::uint8_t byte() noexcept {
    if (rest_.empty()) return 0;
    const std::uint8_t first = rest_.front();
    rest_ = rest_.subspan(1);
    return first;
  }

  [[nodiscard]] bool flag() noexcept { return (byte() & 1U) != 0; }

  /// `count`: 1 to 256.
  [[nodiscard]] std::size_t below(std::size_t count) noexcept { return byte() % count; }

  /// One of the numbers at which lengths, counts and handles begin to be wrong, or any other.
  [[nodiscard]] std::uint64_t number() noexcept {
    constexpr std::uint64_t kAll = ~std::uint64_t{0};
    constexpr std::array<std::uint64_t, 32> kBorders{
        199,        200,        201,      254,          255,       256,      257,       520,
        521,        638,        639,      640,          1999,      2000,     2001,      4095,
        4096,       4097,       8191,     8192,         65535,     65536,    1U << 20U, 0x7FFFFFFF,
        0x80000000, 0xFFFFFFFF, kAll / 2, kAll / 2 + 1, kAll - 15, kAll - 7, kAll - 1,  kAll};
    constexpr std::uint8_t kFirstBorder = 0xC0;
    constexpr std::uint8_t kWhole = 0xE0;
    const std::uint8_t kind = byte();
    if (kind < kFirstBorder) return kind;
    if (kind < kWhole) return kBorders[kind - kFirstBorder];
    std::uint64_t number = 0;
    for (int i = 0; i < 8; ++i) number = number << 8U | byte();
    return number;
  }

  /// At most `most` bytes: those that follow their length, or, for a long value, one byte again and again.
  [[nodiscard]] std::vector<std::uint8_t> bytes(std::size_t most) {
    constexpr std::uint8_t kRepeated = 0xFF;
    const std::uint8_t length = byte();
    if (length == kRepeated) {
      const std::uint64_t size = number();
      return std::vector<std::uint8_t>(static_cast<std::size_t>(std::min<std::uint64_t>(size, most)), byte());
    }
    const std::size_t size = std::min({std::size_t{length}, most, rest_.size()});
    std::vector<std::uint8_t> taken(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(size));
    rest_ = rest_.subspan(size);
    return taken;
  }

  /// What is left; it is not taken.
  [[nodiscard]] std::span<const std::uint8_t> rest() const noexcept { return rest_; }

 private:
  std::span<const std::uint8_t> rest_;
};

/// One run with an input, by the target that the program is made of. Ends the process when a promise is
/// broken.
void runTarget(Input& input);

}  // namespace mirel::fuzz
