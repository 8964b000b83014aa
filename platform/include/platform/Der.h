#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace mirel {

/// The first byte of a SEQUENCE in DER (X.690, section 8.1.2), and so of a certificate.
inline constexpr std::uint8_t kDerSequence = 0x30;

struct DerValue {
  std::uint8_t tag = 0;  ///< or the first byte of a tag of several
  std::span<const std::uint8_t> content;
};

/// Walks along DER values that follow each other. A tag and a length must be in the fewest bytes, and the
/// length definite (X.690, sections 8.1.2.4 and 10.1). `der` is not copied.
class DerReader {
 public:
  explicit DerReader(std::span<const std::uint8_t> der) noexcept : rest_{der} {}

  [[nodiscard]] bool atEnd() const noexcept { return rest_.empty(); }

  /// The content of the next value, which is then passed. Nothing when it has another tag than this one, a
  /// tag of several bytes, or a length that is not DER; the reader is of no use then.
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> read(std::uint8_t tag) noexcept;

  /// The next value, whatever its tag is; it is then passed. Nothing at the end, and when tag or length is
  /// not DER; the reader is of no use then.
  [[nodiscard]] std::optional<DerValue> readAny() noexcept;

  [[nodiscard]] bool skip(std::uint8_t tag) noexcept { return read(tag).has_value(); }
  [[nodiscard]] bool skipIfPresent(std::uint8_t tag) noexcept { return !isNext(tag) || skip(tag); }
  [[nodiscard]] bool isNext(std::uint8_t tag) const noexcept {
    return !rest_.empty() && rest_.front() == tag;
  }

 private:
  [[nodiscard]] bool skipTag() noexcept;
  [[nodiscard]] std::optional<std::size_t> readLength() noexcept;

  std::span<const std::uint8_t> rest_;
};

/// The content of the only value in `der`; nothing also when something follows it.
[[nodiscard]] std::optional<std::span<const std::uint8_t>> onlyDerValue(std::span<const std::uint8_t> der,
                                                                        std::uint8_t tag) noexcept;

}  // namespace mirel
