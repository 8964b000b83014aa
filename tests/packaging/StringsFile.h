#pragma once

/// Reading the texts for users. StringsTest.py judges them.

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel::test {

/// Keys and their texts, in the order of the file.
using Strings = std::vector<std::pair<std::string, std::string>>;

/// Reads a file of texts: `"key" = "text";` any number of times, with white space and comments between all
/// its parts. Throws std::runtime_error when it is not that.
[[nodiscard]] Strings readStringsFile(const std::filesystem::path& file);

/// The text of that key. Throws std::out_of_range when there is none.
[[nodiscard]] std::string textOf(const Strings& strings, std::string_view key);

/// The Localizable.strings of that language.
[[nodiscard]] std::filesystem::path stringsFileOf(const std::filesystem::path& resources,
                                                  const std::string& language);

}  // namespace mirel::test
