#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"
#include "recording/PseudonymKind.h"

namespace mirel::recording {

/// Pseudonyms that keep the shape of what they stand for, so that a recording still shows what went wrong:
/// the same number of bytes, letters for letters (large ones for large ones), digits for digits, and all
/// that separates words as it was.
///
/// Texts are replaced word by word, whatever the case of a word and the encoding of its text: "Jane Doe" on
/// the card, "DOE" in a certificate and "jane.doe@..." in another stay recognisable as the same person.
/// Different words get different pseudonyms, as long as there are enough: there are only 26 for one letter.
class ShapedPseudonyms {
 public:
  enum class Encoding {
    kBytes,  ///< UTF-8 (also when its last character is cut off), and else Latin-1
    kUtf16,  ///< big-endian, as a BMPString
    kUtf32   ///< big-endian, as a UniversalString
  };

  struct Replaced {
    PseudonymKind kind;
    std::string original;  ///< UTF-8, or hexadecimal digits when it is bytes
    std::string pseudonym;
  };

  ShapedPseudonyms() = default;

  /// With no pseudonym that is a word of what `first` has replaced, except where there are too few. So the
  /// same texts are given to two objects, and the pseudonyms of the second one are used.
  [[nodiscard]] static ShapedPseudonyms after(const ShapedPseudonyms& first);

  void replaceText(PseudonymKind kind, std::span<std::uint8_t> text, Encoding encoding = Encoding::kBytes);

  /// The name of a reader says which product it is, and which piece of it: only words of five characters or
  /// more with a digit are replaced, such as "0x1dd5ef4f" or "(E0FAD7BD)".
  void replaceInReaderName(std::span<std::uint8_t> name);

  /// Only the words of three characters or more that were replaced before.
  void replaceKnownWords(std::span<std::uint8_t> text);

  /// Bytes that are a number, as the content of an INTEGER: its sign stays, and it stays in the fewest bytes.
  void replaceNumber(PseudonymKind kind, std::span<std::uint8_t> number);

  /// As a text when it looks like one, as a number otherwise.
  void replaceTextOrNumber(PseudonymKind kind, std::span<std::uint8_t> value);

  /// Each text and number once, in the order in which they came.
  [[nodiscard]] const std::vector<Replaced>& replaced() const noexcept { return replaced_; }

  /// How many of each kind were replaced, one line each; not which.
  [[nodiscard]] std::string counts() const;

 private:
  /// The characters that may stand at a place of a pseudonym.
  struct Alphabet {
    char32_t first;
    std::uint32_t size;
  };
  struct Character {
    char32_t character;
    std::size_t size;  // in the text, bytes or code units
  };
  using Characters = std::vector<Character>;
  /// Pseudonyms with the same alphabets and the same start.
  struct Family {
    std::u32string next;
    bool isUsedUp = false;
  };

  static Characters decoded(std::span<const std::uint8_t> text, Encoding encoding);
  static void encode(const Characters& characters, std::span<std::uint8_t> text, Encoding encoding);
  static Alphabet alphabetOf(char32_t character);
  static char32_t folded(char32_t character);
  static char32_t withCaseOf(char32_t pseudonym, char32_t original);
  static void step(std::u32string& word, const std::vector<Alphabet>& places);

  template <typename ForWord>
  void forEachWord(std::span<std::uint8_t> text, Encoding encoding, ForWord&& forWord);
  void replaceWord(PseudonymKind kind, std::span<Character> word);
  [[nodiscard]] const std::u32string& pseudonymOf(const std::u32string& original, const std::u32string& start,
                                                  const std::vector<Alphabet>& places);
  [[nodiscard]] std::u32string newPseudonym(const std::u32string& original, Family& family,
                                            const std::vector<Alphabet>& places) const;
  void note(PseudonymKind kind, std::string original, std::string pseudonym);

  std::map<std::u32string, std::u32string> pseudonyms_;
  std::set<std::u32string> given_;
  std::set<std::u32string> avoided_;
  std::map<std::u32string, Family> families_;
  std::vector<Replaced> replaced_;
  std::set<std::string> noted_;
};

}  // namespace mirel::recording
