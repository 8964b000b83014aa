#pragma once

/// Reading the texts for users: the Localizable.strings, and the catalogues that the build makes of them.

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel::test {

/// Keys and their texts, in the order of the file.
using Strings = std::vector<std::pair<std::string, std::string>>;

/// Reads a Localizable.strings: `"key" = "text";` any number of times, with white space and comments between
/// all its parts. Throws std::runtime_error when it is not that, or not valid UTF-8.
[[nodiscard]] Strings readStringsFile(const std::filesystem::path& file);

/// Reads a catalogue of gettext ("GNU gettext utilities", section 10.3), its header left out. Throws
/// std::runtime_error when it is not one of this machine's byte order.
[[nodiscard]] Strings readCatalogue(const std::filesystem::path& file);

/// What is wrong with the texts of a language, in plain words; nothing when they are as they must be.
[[nodiscard]] std::vector<std::string> faultsOf(const Strings& strings);

/// What in the texts does not keep to the punctuation of the language, in plain words.
[[nodiscard]] std::vector<std::string> punctuationFaultsOf(const std::string& language,
                                                           const Strings& strings);

/// The languages that have a folder <language>.lproj in `resources`, in alphabetical order.
[[nodiscard]] std::vector<std::string> languagesIn(const std::filesystem::path& resources);

/// What is wrong with `resources`: the number of languages, and for each language the faults of its file, or
/// why it cannot be read; "<language>: " stands before those.
[[nodiscard]] std::vector<std::string> faultsOfResources(const std::filesystem::path& resources);

/// The text of that key. Throws std::out_of_range when there is none.
[[nodiscard]] std::string textOf(const Strings& strings, std::string_view key);

/// The Localizable.strings of that language.
[[nodiscard]] std::filesystem::path stringsFileOf(const std::filesystem::path& resources,
                                                  const std::string& language);

}  // namespace mirel::test
