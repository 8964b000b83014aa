#include "recording/ShapedPseudonyms.h"

#include <algorithm>
#include <utility>

#include "platform/Hex.h"
#include "platform/Text.h"
#include "platform/Utf.h"

namespace mirel::recording {
namespace {

// Before the bytes of a number, which is no word: no character of a text.
constexpr char32_t kNumberMark = 0x110000;

constexpr bool isBetween(char32_t character, char32_t first, char32_t last) {
  return character >= first && character <= last;
}

constexpr bool isDigit(char32_t character) { return isBetween(character, U'0', U'9'); }
constexpr bool isLargeLetter(char32_t character) {
  return isBetween(character, U'A', U'Z') || (isBetween(character, 0xC0, 0xDE) && character != 0xD7);
}
constexpr bool isSmallLetter(char32_t character) {
  return isBetween(character, U'a', U'z') || (isBetween(character, 0xDF, 0xFF) && character != 0xF7);
}

/// Letters of all scripts; what merely separates, or directs the writing, is none.
constexpr bool isPartOfWord(char32_t character) {
  constexpr std::pair<char32_t, char32_t> kSeparators[] = {
      {0x2000, 0x206F}, {0x3000, 0x3002}, {0xFE00, 0xFE0F}, {0xFEFF, 0xFEFF}, {0xFFF0, 0xFFFF}};
  if (character < 0x100) return isDigit(character) || isLargeLetter(character) || isSmallLetter(character);
  return std::none_of(std::begin(kSeparators), std::end(kSeparators),
                      [&](const auto& range) { return isBetween(character, range.first, range.second); });
}

/// Without the blanks or zeros that fill a text up.
std::span<const std::uint8_t> trimmed(std::span<const std::uint8_t> text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == 0)) text = text.first(text.size() - 1);
  return text;
}

/// How many bytes at the start are UTF-8, when no more than a part of a character follows; else none.
std::size_t sizeOfUtf8(std::span<const std::uint8_t> text) {
  constexpr std::size_t kLongestPart = 3;
  const std::size_t size = trimmed(text).size();
  for (std::size_t rest = 0; rest <= std::min(kLongestPart, size); ++rest) {
    if (isValidUtf8(text.first(size - rest))) return size - rest;
  }
  return 0;
}

char32_t bigEndian(std::span<const std::uint8_t> bytes) {
  char32_t number = 0;
  for (const std::uint8_t byte : bytes) number = (number << 8U) | byte;
  return number;
}

}  // namespace

ShapedPseudonyms ShapedPseudonyms::after(const ShapedPseudonyms& first) {
  ShapedPseudonyms second;
  for (const auto& [original, pseudonym] : first.pseudonyms_) second.avoided_.insert(original);
  return second;
}

ShapedPseudonyms::Characters ShapedPseudonyms::decoded(std::span<const std::uint8_t> text,
                                                       Encoding encoding) {
  Characters characters;
  if (encoding == Encoding::kUtf32) {
    for (std::size_t at = 0; at + 4 <= text.size(); at += 4)
      characters.push_back({bigEndian(text.subspan(at, 4)), 4});
    return characters;
  }
  if (encoding == Encoding::kUtf16) {
    std::u16string units;
    for (std::size_t at = 0; at + 2 <= text.size(); at += 2)
      units.push_back(static_cast<char16_t>(bigEndian(text.subspan(at, 2))));
    for (std::u16string_view rest = units; !rest.empty();) {
      const auto [character, size] = decodedFromUtf16(rest);
      characters.push_back({character, size});
      rest.remove_prefix(size);
    }
    return characters;
  }
  const std::size_t utf8Size = sizeOfUtf8(text);
  std::string_view rest{reinterpret_cast<const char*>(text.data()), utf8Size};
  while (!rest.empty()) {
    const auto [character, size] = decodedFromUtf8(rest);
    characters.push_back({character, size});
    rest.remove_prefix(size);
  }
  for (const std::uint8_t byte : text.subspan(utf8Size)) characters.push_back({byte, 1});
  return characters;
}

void ShapedPseudonyms::encode(const Characters& characters, std::span<std::uint8_t> text, Encoding encoding) {
  std::size_t at = 0;
  const auto put = [&](char32_t number, std::size_t size) {
    for (; size > 0; --size) text[at++] = static_cast<std::uint8_t>(number >> (8 * (size - 1)));
  };
  for (const auto& [character, size] : characters) {
    if (encoding == Encoding::kUtf32) {
      put(character, 4);
    } else if (encoding == Encoding::kUtf16) {
      std::vector<char16_t> units;
      appendUtf16(units, character);
      for (const char16_t unit : units) put(unit, 2);
    } else if (size == 1) {
      put(character, 1);
    } else {
      const EncodedCharacter utf8 = encodedAsUtf8(character);
      for (std::size_t i = 0; i < utf8.size; ++i) put(utf8.bytes.at(i), 1);
    }
  }
}

/// For a small letter or a digit. All characters of an alphabet are as long as any that it stands for, in
/// UTF-8 and in UTF-16.
ShapedPseudonyms::Alphabet ShapedPseudonyms::alphabetOf(char32_t character) {
  if (isDigit(character)) return {U'0', 10};
  if (character < 0x80) return {U'a', 26};
  if (character < 0x800) return {0xE0, 23};       // letters of Latin-1, which has large ones for them
  if (character < 0x10000) return {0x4E00, 128};  // ideographs
  return {0x20000, 128};
}

char32_t ShapedPseudonyms::folded(char32_t character) {
  return isLargeLetter(character) ? character + 0x20 : character;
}

char32_t ShapedPseudonyms::withCaseOf(char32_t pseudonym, char32_t original) {
  return isLargeLetter(original) && isSmallLetter(pseudonym) ? pseudonym - 0x20 : pseudonym;
}

/// Counts on: the last place first.
void ShapedPseudonyms::step(std::u32string& word, const std::vector<Alphabet>& places) {
  for (std::size_t at = word.size(); at-- > 0;) {
    const auto& [first, size] = places[at];
    word[at] = first + (word[at] - first + 1) % size;
    if (word[at] != first) return;
  }
}

std::u32string ShapedPseudonyms::newPseudonym(const std::u32string& original, Family& family,
                                              const std::vector<Alphabet>& places) const {
  constexpr int kMostTries = 1000;
  constexpr int kTriesToAvoid = 500;  // there may be too few that are no original
  for (int i = 0; i < kMostTries && !family.isUsedUp; ++i) {
    step(family.next, places);
    if (family.next == original || given_.contains(family.next)) continue;
    if (i >= kTriesToAvoid || !avoided_.contains(family.next)) return family.next;
  }
  family.isUsedUp = true;
  step(family.next, places);
  if (family.next == original) step(family.next, places);
  return family.next;
}

const std::u32string& ShapedPseudonyms::pseudonymOf(const std::u32string& original,
                                                    const std::u32string& start,
                                                    const std::vector<Alphabet>& places) {
  const auto [known, isNew] = pseudonyms_.try_emplace(original);
  if (isNew) {
    std::u32string name = start;
    for (const auto& [first, size] : places) name.append({first, size});
    Family& family = families_.try_emplace(name, Family{start}).first->second;
    known->second = newPseudonym(original, family, places);
    given_.insert(known->second);
  }
  return known->second;
}

/// A pseudonym begins with the prefix of its kind, as far as there is room for that.
void ShapedPseudonyms::replaceWord(PseudonymKind kind, std::span<Character> word) {
  constexpr std::size_t kCounted = 2;  // places at the end that tell pseudonyms apart
  const std::string_view prefix = wordsOf(kind).prefix;
  std::u32string original;
  std::u32string start;
  std::vector<Alphabet> places;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char32_t character = folded(word[i].character);
    const Alphabet alphabet = alphabetOf(character);
    const bool takesPrefix = alphabet.first == U'a' && i + kCounted < word.size() && i < prefix.size();
    original += character;
    start += takesPrefix ? static_cast<char32_t>(prefix[i]) : alphabet.first;
    places.push_back(alphabet);
  }
  const std::u32string& pseudonym = pseudonymOf(original, start, places);
  for (std::size_t i = 0; i < word.size(); ++i)
    word[i].character = withCaseOf(pseudonym[i], word[i].character);
}

template <typename ForWord>
void ShapedPseudonyms::forEachWord(std::span<std::uint8_t> text, Encoding encoding, ForWord&& forWord) {
  Characters characters = decoded(text, encoding);
  const auto isPart = [](const Character& character) { return isPartOfWord(character.character); };
  for (auto start = characters.begin(); start != characters.end();) {
    start = std::find_if(start, characters.end(), isPart);
    const auto end = std::find_if_not(start, characters.end(), isPart);
    if (start != end) forWord(std::span{start, end});
    start = end;
  }
  encode(characters, text, encoding);
}

void ShapedPseudonyms::replaceText(PseudonymKind kind, std::span<std::uint8_t> text, Encoding encoding) {
  const auto asUtf8 = [&] {
    std::string utf8;
    for (const auto& [character, size] : decoded(text, encoding)) {
      const EncodedCharacter encoded = encodedAsUtf8(character);
      utf8.append(encoded.bytes.begin(), encoded.bytes.begin() + static_cast<std::ptrdiff_t>(encoded.size));
    }
    while (!utf8.empty() && (utf8.back() == ' ' || utf8.back() == '\0')) utf8.pop_back();
    return utf8;
  };
  const std::size_t unit = encoding == Encoding::kUtf32 ? 4 : encoding == Encoding::kUtf16 ? 2 : 1;
  bool isText = text.size() % unit == 0;
  for (std::size_t at = 0; isText && unit == 4 && at < text.size(); at += unit)
    isText = bigEndian(text.subspan(at, unit)) <= 0x10FFFF;
  if (!isText) return replaceNumber(kind, text);
  const std::string original = asUtf8();
  forEachWord(text, encoding, [&](std::span<Character> word) { replaceWord(kind, word); });
  note(kind, original, asUtf8());
}

void ShapedPseudonyms::replaceInReaderName(std::span<std::uint8_t> name) {
  constexpr std::size_t kShortestNumber = 5;
  const auto shown = [&] {
    const auto text = trimmed(name);
    return std::string{text.begin(), text.end()};
  };
  const std::string original = shown();
  forEachWord(name, Encoding::kBytes, [&](std::span<Character> word) {
    const bool hasDigit = std::any_of(
        word.begin(), word.end(), [](const Character& character) { return isDigit(character.character); });
    if (hasDigit && word.size() >= kShortestNumber) replaceWord(PseudonymKind::kReader, word);
  });
  note(PseudonymKind::kReader, original, shown());
}

void ShapedPseudonyms::replaceKnownWords(std::span<std::uint8_t> text) {
  constexpr std::size_t kShortest = 3;
  forEachWord(text, Encoding::kBytes, [&](std::span<Character> word) {
    std::u32string original;
    for (const Character& character : word) original += folded(character.character);
    const auto known = pseudonyms_.find(original);
    if (word.size() < kShortest || known == pseudonyms_.end()) return;
    for (std::size_t i = 0; i < word.size(); ++i)
      word[i].character = withCaseOf(known->second[i], word[i].character);
  });
}

void ShapedPseudonyms::replaceNumber(PseudonymKind kind, std::span<std::uint8_t> number) {
  if (number.empty()) return;
  std::u32string original{kNumberMark};
  original.append(number.begin(), number.end());
  // X.690, section 8.3.2: the first nine bits are neither all zeros nor all ones.
  std::vector<Alphabet> places{{kNumberMark, 1}};
  places.resize(number.size() + 1, Alphabet{0, 256});
  const std::uint8_t first = number.front();
  const bool isFilled = number.size() > 1 && (first == 0 || first == 0xFF) && (first ^ number[1]) >= 0x80;
  if (isFilled) {
    places[1] = {first, 1};
    places[2] = first == 0 ? Alphabet{0x80, 0x80} : Alphabet{0, 0x80};
  } else if (first >= 0x80) {
    places[1] = {0x80, 0x7F};  // not 0xFF, before which there might be one that fills
  } else if (number.size() > 1) {
    places[1] = {1, 0x7F};
  } else {
    places[1] = {0, 0x80};
  }
  std::u32string start;
  for (const Alphabet& place : places) start += place.first;
  const std::u32string& pseudonym = pseudonymOf(original, start, places);
  const std::string before = hexOfBytes(number, HexDigits::kLower);
  for (std::size_t i = 0; i < number.size(); ++i) number[i] = static_cast<std::uint8_t>(pseudonym[i + 1]);
  note(kind, before, hexOfBytes(number, HexDigits::kLower));
}

void ShapedPseudonyms::replaceTextOrNumber(PseudonymKind kind, std::span<std::uint8_t> value) {
  const bool hasControl =
      std::any_of(value.begin(), value.end(), [](std::uint8_t byte) { return byte < 0x20 || byte == 0x7F; });
  const bool hasLetter =
      std::any_of(value.begin(), value.end(), [](std::uint8_t byte) { return isPartOfWord(byte); });
  if (hasControl || !hasLetter || !isValidUtf8(value)) return replaceNumber(kind, value);
  replaceText(kind, value);
}

void ShapedPseudonyms::note(PseudonymKind kind, std::string original, std::string pseudonym) {
  if (original == pseudonym || !noted_.insert(original).second) return;
  replaced_.push_back({kind, std::move(original), std::move(pseudonym)});
}

std::string ShapedPseudonyms::counts() const {
  std::array<std::size_t, kNumPseudonymKinds> counts{};
  for (const Replaced& one : replaced_) ++counts.at(static_cast<std::size_t>(one.kind));
  std::string text;
  for (std::size_t kind = 0; kind < kNumPseudonymKinds; ++kind) {
    if (counts.at(kind) == 0) continue;
    text.append(kPseudonymWords.at(kind).plural).append(": ").append(std::to_string(counts.at(kind)));
    text.append("\n");
  }
  return text;
}

}  // namespace mirel::recording
