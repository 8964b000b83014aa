#pragma once

#include <cstddef>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirel::cardmaker {

/// One line of a description: what to make, and with which values.
class Line {
 public:
  /// Throws std::invalid_argument for a word without "=", or one that comes twice.
  explicit Line(std::string_view text);

  /// "token", "public", "private" or "certificate"; unchecked.
  [[nodiscard]] const std::string& what() const noexcept { return what_; }

  /// The bytes of a value: those of "0x..." as hexadecimal digits say, else those of the text itself.
  /// Nothing when the line does not have it.
  [[nodiscard]] std::optional<std::string> bytes(std::string_view name) const;

  /// As `bytes`; throws when the line does not have it.
  [[nodiscard]] std::string requiredBytes(std::string_view name) const;

  /// The words of a value that are separated by commas.
  [[nodiscard]] std::vector<std::string> list(std::string_view name) const;

  /// A decimal number; nothing when the line does not have it.
  [[nodiscard]] std::optional<std::size_t> number(std::string_view name) const;

  /// Throws std::invalid_argument when the line has a value of another name.
  void allowOnly(std::initializer_list<std::string_view> names) const;

 private:
  std::string what_;
  std::map<std::string, std::string, std::less<>> values_;
};

/// A token and what is on it, in the order of the description.
struct TokenDescription {
  Line token;
  std::vector<Line> objects;
};

/// Reads a description (see main.cpp for its form). Throws std::invalid_argument, with the number of the
/// line, for one that has another form.
[[nodiscard]] std::vector<TokenDescription> readDescription(std::istream& in);

}  // namespace mirel::cardmaker
