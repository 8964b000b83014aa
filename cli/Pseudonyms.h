#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "recording/PseudonymKind.h"

namespace mirel::cli {

/// Replaces what names a person, a card or a computer by pseudonyms such as "label-2": the same text always
/// by the same one. All texts are UTF-8.
class Pseudonyms {
 public:
  using Kind = recording::PseudonymKind;

  /// From now on that text is replaced wherever it stands, in every form in which the program shows it. A
  /// short one (of letters alone: less than eight) only as a word of its own, lest it is found in others.
  /// Does nothing with an empty one.
  void add(Kind kind, const std::string& text);

  /// The text with pseudonyms for all that was added, for each user's name behind "/home/" or "/Users/", and
  /// for all else that stands in quotation marks.
  [[nodiscard]] std::string replacedIn(std::string_view text);

  /// How many texts of each kind got a pseudonym, one line each; not which.
  [[nodiscard]] std::string counts() const;

 private:
  [[nodiscard]] std::string pseudonymOf(Kind kind, const std::string& text);
  [[nodiscard]] std::string_view formAt(std::string_view text, std::size_t at) const;
  [[nodiscard]] std::string withoutKnown(std::string_view text);
  [[nodiscard]] std::string withoutQuoted(std::string_view text);

  std::map<std::string, std::string, std::less<>> pseudonyms_;  // by all forms of the texts
  std::map<std::string, std::set<std::size_t, std::greater<>>, std::less<>> sizesByStart_;
  std::set<std::string, std::less<>> given_;
  std::array<std::size_t, recording::kNumPseudonymKinds> numOfKind_{};
};

}  // namespace mirel::cli
