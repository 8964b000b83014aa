#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mirel {

inline constexpr std::size_t kMostCharacters = 32;  ///< of a name in a message
inline constexpr std::size_t kMostHexDigits = 64;   ///< of an ID in a message: a SHA-256 is shown as a whole

/// A name (UTF-8) for a message: what is longer than `most` characters ends with "..." after them.
[[nodiscard]] std::string shortened(const std::string& name, std::size_t most = kMostCharacters);

/// The first few of many names, for a message that stays a line.
class NameList {
 public:
  [[nodiscard]] bool takesMore() const noexcept;
  void add(std::string_view name);
  /// The names, and how many more of `total` there are.
  [[nodiscard]] std::string textOf(std::size_t total) const;

 private:
  std::string text_;
  std::size_t count_ = 0;
};

}  // namespace mirel
