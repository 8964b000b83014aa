#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace mirel {

/// The first byte of a SEQUENCE in DER (X.690, section 8.1.2), and so of a certificate.
inline constexpr std::uint8_t kDerSequence = 0x30;

/// A value whose tag is `tag`.
struct DerValue {
  std::uint8_t tag = 0;
  std::span<const std::uint8_t> content;
};

/// Walks along DER values that follow each other, whose tags have one byte. A length must be definite and in
/// the fewest bytes (X.690, section 10.1). `der` is not copied.
class DerReader {
 public:
  explicit DerReader(std::span<const std::uint8_t> der) noexcept : rest_{der} {}

  [[nodiscard]] bool atEnd() const noexcept { return rest_.empty(); }

  /// The content of the next value, which is then passed. Nothing when it has another tag or its
  /// length is not DER; the reader is of no use then.
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> read(std::uint8_t tag) noexcept;

  /// The next value, whatever its tag of one byte is; it is then passed. Nothing at the end, and when tag or
  /// length is not DER of that kind; the reader is of no use then.
  [[nodiscard]] std::optional<DerValue> readAny() noexcept;

  [[nodiscard]] bool skip(std::uint8_t tag) noexcept { return read(tag).has_value(); }
  [[nodiscard]] bool skipIfPresent(std::uint8_t tag) noexcept { return !isNext(tag) || skip(tag); }
  [[nodiscard]] bool isNext(std::uint8_t tag) const noexcept {
    return !rest_.empty() && rest_.front() == tag;
  }

 private:
  [[nodiscard]] std::optional<std::size_t> readLength() noexcept;

  std::span<const std::uint8_t> rest_;
};

/// The content of the only value in `der`; nothing also when something follows it.
[[nodiscard]] std::optional<std::span<const std::uint8_t>> onlyDerValue(std::span<const std::uint8_t> der,
                                                                        std::uint8_t tag) noexcept;

}  // namespace mirel
