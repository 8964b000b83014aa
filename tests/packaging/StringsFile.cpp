#include "packaging/StringsFile.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace mirel::test {
namespace {

/// Goes through a file of texts from its front.
class Reader {
 public:
  explicit Reader(std::string_view rest) : rest_{rest} {}

  [[nodiscard]] bool atEnd() {
    skipSpaceAndComments();
    return rest_.empty();
  }

  void expect(char wanted) {
    skipSpaceAndComments();
    if (take() != wanted) throw std::runtime_error{std::string{"a "} + wanted + " is missing"};
  }

  [[nodiscard]] std::string quoted() {
    expect('"');
    std::string text;
    for (char c = take(); c != '"'; c = take()) text += c == '\\' ? escaped(take()) : c;
    return text;
  }

 private:
  char take() {
    if (rest_.empty()) throw std::runtime_error{"it ends too early"};
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  static char escaped(char c) {
    if (c == 'n') return '\n';
    if (c == 't') return '\t';
    return c;
  }

  void skipSpaceAndComments() {
    for (;;) {
      rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
      if (!rest_.starts_with("/*")) return;
      const std::size_t end = rest_.find("*/");
      if (end == std::string_view::npos) throw std::runtime_error{"a comment does not end"};
      rest_.remove_prefix(end + 2);
    }
  }

  std::string_view rest_;
};

}  // namespace

Strings readStringsFile(const std::filesystem::path& file) {
  std::ifstream stream{file, std::ios::binary};
  if (!stream) throw std::runtime_error{"cannot be read"};
  const std::string content{std::istreambuf_iterator<char>{stream}, {}};
  Strings strings;
  Reader reader{content};
  while (!reader.atEnd()) {
    std::string key = reader.quoted();
    reader.expect('=');
    std::string text = reader.quoted();
    reader.expect(';');
    strings.emplace_back(std::move(key), std::move(text));
  }
  return strings;
}

std::string textOf(const Strings& strings, std::string_view key) {
  const auto row =
      std::find_if(strings.begin(), strings.end(), [&](const auto& known) { return known.first == key; });
  if (row == strings.end()) throw std::out_of_range{"no such key"};
  return row->second;
}

std::filesystem::path stringsFileOf(const std::filesystem::path& resources, const std::string& language) {
  return resources / (language + ".lproj") / "Localizable.strings";
}

}  // namespace mirel::test
