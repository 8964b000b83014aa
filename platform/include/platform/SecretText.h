#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace mirel {

/// A text that must not stay in memory, such as a PIN: UTF-16 code units in one block that is wiped when
/// the object ends, is never moved, and is not written to a swap device if the system grants it. A null text
/// ("none") and an empty one are different things.
class SecretText {
 public:
  /// Null.
  SecretText() noexcept = default;

  explicit SecretText(std::u16string_view units);

  /// Decodes UTF-8 (RFC 3629); each byte that belongs to no valid sequence becomes U+FFFD. Not null. The
  /// caller wipes `utf8`.
  [[nodiscard]] static std::shared_ptr<const SecretText> fromUtf8(std::span<const std::uint8_t> utf8);

  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;
  ~SecretText();

  [[nodiscard]] bool isNull() const noexcept { return isNull_; }

  /// UTF-16 code units; 0 for a null text.
  [[nodiscard]] std::size_t length() const noexcept { return units_.size(); }

  /// Writes the first bytes of its UTF-8 encoding, as many as there are and fit. Returns how many; the rest
  /// of `out` is left alone. The caller wipes `out`. An unpaired surrogate becomes U+FFFD.
  std::size_t copyUtf8(std::span<std::uint8_t> out) const noexcept;

 private:
  std::vector<char16_t> units_;
  bool isNull_ = true;
};

}  // namespace mirel
