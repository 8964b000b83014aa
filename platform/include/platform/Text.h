#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>

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

}  // namespace mirel
