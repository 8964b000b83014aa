#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace mirel {

using ByteVector = std::vector<std::uint8_t>;

/// An immutable byte string, shared by its copies; the twin of the platform's data object. Null and
/// empty are different things and compare unequal.
class Bytes {
 public:
  /// Null.
  Bytes() noexcept = default;

  explicit Bytes(ByteVector bytes) : bytes_{std::make_shared<const ByteVector>(std::move(bytes))} {}

  /// The same byte string, which is wiped when the last copy of what is returned ends. Copies of `bytes`
  /// itself stay as they are until then, and are zeros from then on.
  [[nodiscard]] static Bytes secret(const Bytes& bytes);

  [[nodiscard]] bool isNull() const noexcept { return !bytes_; }
  [[nodiscard]] std::size_t size() const noexcept { return bytes_ ? bytes_->size() : 0; }

  /// Valid while this or a copy of it lives. Empty for a null byte string.
  [[nodiscard]] std::span<const std::uint8_t> view() const noexcept {
    return bytes_ ? std::span<const std::uint8_t>{*bytes_} : std::span<const std::uint8_t>{};
  }

  /// True when both are copies of one byte string (or both are null).
  [[nodiscard]] bool sharesStorageWith(const Bytes& other) const noexcept { return bytes_ == other.bytes_; }

  [[nodiscard]] friend bool operator==(const Bytes& a, const Bytes& b) noexcept {
    if (a.isNull() || b.isNull()) return a.isNull() == b.isNull();
    return *a.bytes_ == *b.bytes_;
  }

 private:
  std::shared_ptr<const ByteVector> bytes_;
};

}  // namespace mirel
