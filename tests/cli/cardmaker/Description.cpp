#include "Description.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <stdexcept>

namespace mirel::cardmaker {
namespace {

std::string bytesOfHex(std::string_view digits) {
  std::string bytes;
  for (; !digits.empty(); digits.remove_prefix(2)) {
    unsigned char byte = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + std::min<std::size_t>(2, digits.size()), byte, 16);
    if (error != std::errc{} || end != digits.data() + 2)
      throw std::invalid_argument{"no pairs of hexadecimal digits"};
    bytes.push_back(static_cast<char>(byte));
  }
  return bytes;
}

bool isSkipped(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\r");
  return start == std::string_view::npos || text[start] == '#';
}

TokenDescription& lastOf(std::vector<TokenDescription>& tokens) {
  if (tokens.empty()) throw std::invalid_argument{"a token must come first"};
  return tokens.back();
}

void add(std::vector<TokenDescription>& tokens, const Line& line) {
  if (line.what() == "token") {
    line.allowOnly({"label", "pin"});
    tokens.push_back({line, {}});
  } else if (line.what() == "public") {
    line.allowOnly({"type", "id", "label"});
    lastOf(tokens).objects.push_back(line);
  } else if (line.what() == "private") {
    line.allowOnly({"type", "id", "label", "allow"});
    lastOf(tokens).objects.push_back(line);
  } else if (line.what() == "certificate") {
    line.allowOnly({"type", "id", "label", "subject", "usage", "notafter", "size", "value"});
    lastOf(tokens).objects.push_back(line);
  } else {
    throw std::invalid_argument{"cannot make a \"" + line.what() + "\""};
  }
}

}  // namespace

Line::Line(std::string_view text) {
  std::istringstream words{std::string{text}};
  words >> what_;
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos) throw std::invalid_argument{"no \"=\" in " + word};
    if (!values_.emplace(word.substr(0, equals), word.substr(equals + 1)).second)
      throw std::invalid_argument{"twice: " + word.substr(0, equals)};
  }
}

std::optional<std::string> Line::bytes(std::string_view name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) return std::nullopt;
  const std::string& value = found->second;
  return value.starts_with("0x") ? bytesOfHex(std::string_view{value}.substr(2)) : value;
}

std::string Line::requiredBytes(std::string_view name) const {
  auto value = bytes(name);
  if (!value) throw std::invalid_argument{"without " + std::string{name} + "="};
  return *std::move(value);
}

std::vector<std::string> Line::list(std::string_view name) const {
  std::vector<std::string> words;
  std::istringstream value{bytes(name).value_or("")};
  for (std::string word; std::getline(value, word, ',');) words.push_back(word);
  return words;
}

std::optional<std::size_t> Line::number(std::string_view name) const {
  const auto digits = bytes(name);
  if (!digits) return std::nullopt;
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(digits->data(), digits->data() + digits->size(), number);
  if (error != std::errc{} || end != digits->data() + digits->size())
    throw std::invalid_argument{"not a number: " + *digits};
  return number;
}

void Line::allowOnly(std::initializer_list<std::string_view> names) const {
  for (const auto& [name, value] : values_) {
    if (std::find(names.begin(), names.end(), name) == names.end())
      throw std::invalid_argument{"a " + what_ + " has no " + name + "="};
  }
}

std::vector<TokenDescription> readDescription(std::istream& in) {
  std::vector<TokenDescription> tokens;
  std::size_t number = 0;
  for (std::string text; std::getline(in, text);) {
    ++number;
    if (isSkipped(text)) continue;
    try {
      add(tokens, Line{text});
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument{"line " + std::to_string(number) + ": " + error.what()};
    }
  }
  return tokens;
}

}  // namespace mirel::cardmaker
