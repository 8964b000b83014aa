#pragma once

#include <fstream>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>

namespace mirel::test {

/// The texts for users in a file, by their keys: of lines `"key" = "text";` without an escape. StringsTest.py
/// judges the files.
[[nodiscard]] inline std::map<std::string, std::string> readStringsFile(const std::string& file) {
  std::ifstream stream{file, std::ios::binary};
  const std::regex row{R"re("([^"\\]+)" = "([^"\\]+)";)re"};
  std::map<std::string, std::string> strings;
  for (std::string line; std::getline(stream, line);) {
    if (std::smatch match; std::regex_match(line, match, row)) strings[match[1]] = match[2];
  }
  if (strings.empty()) throw std::runtime_error{"there is no text in " + file};
  return strings;
}

}  // namespace mirel::test
