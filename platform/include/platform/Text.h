#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel {

/// An immutable text of UTF-16 code units, shared by its copies; the twin of the platform's string
/// object. A null text ("no text") and an empty text are different things and compare unequal.
/// Any code unit is allowed, U+0000 included. Copies are cheap and safe to use from any thread.
class Text {
 public:
  /// Null.
  Text() noexcept = default;

  explicit Text(std::u16string_view units);

  /// Takes bytes one to one as U+0000 to U+00FF, for exactly the length given. So equal bytes give
  /// equal texts and different bytes different ones, whatever their meaning. Never null.
  [[nodiscard]] static Text fromBytes(std::span<const std::uint8_t> bytes);

  /// Decodes UTF-8 (RFC 3629); each byte that belongs to no valid sequence becomes U+FFFD. Never null.
  [[nodiscard]] static Text fromUtf8(std::string_view utf8);

  [[nodiscard]] bool isNull() const noexcept { return !units_; }

  /// True for a null text too.
  [[nodiscard]] bool isEmpty() const noexcept { return !units_ || units_->empty(); }

  /// Code units; 0 for a null text.
  [[nodiscard]] std::size_t length() const noexcept { return units_ ? units_->size() : 0; }

  /// The code units, valid while this text or a copy of it lives. Empty for a null text.
  [[nodiscard]] std::u16string_view units() const noexcept {
    return units_ ? std::u16string_view{*units_} : std::u16string_view{};
  }

  /// Encodes as UTF-8; an unpaired surrogate becomes U+FFFD. Empty for a null text.
  [[nodiscard]] std::string toUtf8() const;

  /// This text, or "(null)" when it is null: what the platform's formatter prints for "%@".
  [[nodiscard]] Text orNullMark() const;

  /// True when both are copies of one text (or both are null).
  [[nodiscard]] bool sharesStorageWith(const Text& other) const noexcept { return units_ == other.units_; }

  [[nodiscard]] friend bool operator==(const Text& a, const Text& b) noexcept {
    return a.isNull() == b.isNull() && a.units() == b.units();
  }

 private:
  std::shared_ptr<const std::u16string> units_;
};

/// Joins the texts in order; a null one reads as "(null)", as in the platform's formatter.
[[nodiscard]] Text joined(std::initializer_list<Text> parts);

/// True when `text` contains `letters` (ASCII), whatever the case of the letters A to Z. A null text contains
/// nothing.
[[nodiscard]] bool containsIgnoringCase(const Text& text, std::u16string_view letters) noexcept;

/// True for well-formed UTF-8 (RFC 3629).
[[nodiscard]] bool isValidUtf8(std::span<const std::uint8_t> bytes) noexcept;

/// An immutable byte string, shared by its copies; the twin of the platform's data object. Null and
/// empty are different things and compare unequal.
class Bytes {
 public:
  /// Null.
  Bytes() noexcept = default;

  explicit Bytes(std::vector<std::uint8_t> bytes)
      : bytes_{std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes))} {}

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
  std::shared_ptr<const std::vector<std::uint8_t>> bytes_;
};

}  // namespace mirel
