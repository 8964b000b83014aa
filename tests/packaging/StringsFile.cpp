#include "packaging/StringsFile.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace mirel::test {
namespace {

constexpr std::string_view kTriesLeftKey = "VERIFY_TRY_LEFT";
constexpr std::string_view kConstraintKey = "Not suppport this constraint";
constexpr std::size_t kFewestLanguages = 8;

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream{file, std::ios::binary};
  if (!stream) throw std::runtime_error{"cannot be read"};
  return {std::istreambuf_iterator<char>{stream}, {}};
}

/// The length of the UTF-8 character at `at` (RFC 3629, section 4); 0 when there is none.
std::size_t characterLength(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0U;
  };
  const auto within = [&](std::size_t i, unsigned low, unsigned high) {
    return byte(i) >= low && byte(i) <= high;
  };
  const auto tail = [&](std::size_t i) { return within(i, 0x80, 0xBF); };
  if (byte(0) < 0x80) return 1;
  if (within(0, 0xC2, 0xDF)) return tail(1) ? 2 : 0;
  if (within(0, 0xE0, 0xEF)) {
    const bool second = within(1, byte(0) == 0xE0 ? 0xA0 : 0x80, byte(0) == 0xED ? 0x9F : 0xBF);
    return second && tail(2) ? 3 : 0;
  }
  if (within(0, 0xF0, 0xF4)) {
    const bool second = within(1, byte(0) == 0xF0 ? 0x90 : 0x80, byte(0) == 0xF4 ? 0x8F : 0xBF);
    return second && tail(2) && tail(3) ? 4 : 0;
  }
  return 0;
}

void requireUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = characterLength(text, at);
    if (length == 0) throw std::runtime_error{"not UTF-8 at byte " + std::to_string(at)};
    at += length;
  }
}

/// Goes through a Localizable.strings from its front.
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
    if (c == '"' || c == '\\') return c;
    throw std::runtime_error{"an escape that is not used here"};
  }

  void skipPast(std::string_view end) {
    const std::size_t at = rest_.find(end);
    if (at == std::string_view::npos) throw std::runtime_error{"a comment does not end"};
    rest_.remove_prefix(at + end.size());
  }

  void skipSpaceAndComments() {
    for (;;) {
      rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
      if (rest_.starts_with("/*")) {
        skipPast("*/");
      } else if (rest_.starts_with("//")) {
        skipPast("\n");
      } else {
        return;
      }
    }
  }

  std::string_view rest_;
};

std::size_t countOf(const Strings& strings, std::string_view key) {
  return static_cast<std::size_t>(
      std::count_if(strings.begin(), strings.end(), [&](const auto& row) { return row.first == key; }));
}

/// What is wrong with a text that must have the conversions `wanted` ("%lu", or none).
void checkText(const std::string& key, const std::string& text, std::string_view wanted,
               std::vector<std::string>& outFaults) {
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) outFaults.push_back(key + ": empty");
  std::size_t conversions = 0;
  for (std::size_t at = text.find('%'); at != std::string::npos; at = text.find('%', at + 1)) {
    ++conversions;
    if (wanted.empty() || text.compare(at, wanted.size(), wanted) != 0) {
      outFaults.push_back(key + ": a foreign conversion");
    }
  }
  if (!wanted.empty() && conversions != 1) {
    outFaults.push_back(key + ": " + std::to_string(conversions) + " conversions");
  }
}

}  // namespace

Strings readStringsFile(const std::filesystem::path& file) {
  const std::string content = contentOf(file);
  requireUtf8(content);
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

Strings readCatalogue(const std::filesystem::path& file) {
  const std::string content = contentOf(file);
  const auto word = [&](std::size_t at) {
    std::uint32_t value = 0;
    if (at > content.size() || content.size() - at < sizeof value)
      throw std::runtime_error{"it is too short"};
    std::memcpy(&value, content.data() + at, sizeof value);
    return std::size_t{value};
  };
  // A table of lengths and offsets.
  const auto text = [&](std::size_t table, std::size_t i) {
    const std::size_t length = word(table + 8 * i);
    const std::size_t offset = word(table + 8 * i + 4);
    if (offset > content.size() || length > content.size() - offset)
      throw std::runtime_error{"a text is cut"};
    return content.substr(offset, length);
  };
  if (word(0) != 0x950412DE || word(4) != 0) throw std::runtime_error{"it is no catalogue"};
  Strings strings;
  for (std::size_t i = 0; i < word(8); ++i) {
    if (std::string key = text(word(12), i); !key.empty()) strings.emplace_back(key, text(word(16), i));
  }
  return strings;
}

std::vector<std::string> faultsOf(const Strings& strings) {
  std::vector<std::string> faults;
  for (const std::string_view key : {kTriesLeftKey, kConstraintKey}) {
    if (const std::size_t count = countOf(strings, key); count != 1) {
      faults.push_back(std::string{key} + ": " + std::to_string(count) + " times");
    }
  }
  for (const auto& [key, text] : strings) {
    if (key == kTriesLeftKey) {
      checkText(key, text, "%lu", faults);
      // A card whose software reports no number must not read like one that is locked.
      if (text.find('0', text.find('%')) == std::string::npos) faults.push_back(key + ": nothing about 0");
    } else if (key == kConstraintKey) {
      checkText(key, text, "", faults);
    } else {
      faults.push_back(key + ": not a key");
    }
  }
  return faults;
}

std::vector<std::string> punctuationFaultsOf(const std::string& language, const Strings& strings) {
  const auto has = [](const std::string& text, std::initializer_list<std::string_view> marks) {
    return std::any_of(marks.begin(), marks.end(),
                       [&](std::string_view mark) { return text.find(mark) != std::string::npos; });
  };
  std::vector<std::string> faults;
  for (const auto& [key, text] : strings) {
    if (language == "fr" && has(text, {" :", " ;", " !", " ?"})) {
      faults.push_back(key + ": a line may break before a mark");
    }
    if (language == "ja" && has(text, {":"})) faults.push_back(key + ": a narrow colon");
  }
  return faults;
}

std::vector<std::string> languagesIn(const std::filesystem::path& resources) {
  std::vector<std::string> languages;
  for (const auto& entry : std::filesystem::directory_iterator{resources}) {
    if (entry.path().extension() == ".lproj") languages.push_back(entry.path().stem().string());
  }
  std::sort(languages.begin(), languages.end());
  return languages;
}

std::vector<std::string> faultsOfResources(const std::filesystem::path& resources) {
  std::vector<std::string> faults;
  const auto languages = languagesIn(resources);
  if (languages.size() < kFewestLanguages) faults.push_back(std::to_string(languages.size()) + " languages");
  for (const std::string& language : languages) {
    try {
      const Strings strings = readStringsFile(stringsFileOf(resources, language));
      for (const auto& found : {faultsOf(strings), punctuationFaultsOf(language, strings)}) {
        for (const std::string& fault : found)
          faults.push_back(std::string{language}.append(": ").append(fault));
      }
    } catch (const std::runtime_error& error) {
      faults.push_back(language + ": " + error.what());
    }
  }
  return faults;
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
