#include "Pseudonyms.h"

#include <algorithm>

#include "host/Display.h"
#include "platform/Log.h"
#include "platform/Text.h"

namespace mirel::cli {
namespace {

constexpr std::size_t kStartSize = 3;  // bytes by which forms are found

bool isLetter(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isPartOfWord(char c) noexcept { return isLetter(c) || (c >= '0' && c <= '9') || (c & 0x80) != 0; }

/// Whether a text that is found within a longer word is meant, and not some other word.
bool isUnmistakable(std::string_view text) noexcept {
  constexpr std::size_t kShortest = 4;
  constexpr std::size_t kShortestOfLetters = 8;
  const bool onlyLetters = std::all_of(text.begin(), text.end(), isLetter);
  return text.size() >= (onlyLetters ? kShortestOfLetters : kShortest);
}

/// Whether `size` bytes there are no part of a longer word.
bool isWordAt(std::string_view text, std::size_t at, std::size_t size) noexcept {
  const bool joinsBefore = at > 0 && isPartOfWord(text[at - 1]) && isPartOfWord(text[at]);
  const std::size_t end = at + size;
  const bool joinsAfter = end < text.size() && isPartOfWord(text[end]) && isPartOfWord(text[end - 1]);
  return !joinsBefore && !joinsAfter;
}

}  // namespace

std::string Pseudonyms::pseudonymOf(Kind kind, const std::string& text) {
  if (const auto known = pseudonyms_.find(text); known != pseudonyms_.end()) return known->second;
  const std::size_t number = ++numOfKind_.at(static_cast<std::size_t>(kind));
  std::string pseudonym = std::string{wordsOf(kind).prefix} + "-" + std::to_string(number);
  pseudonyms_.emplace(text, pseudonym);
  given_.insert(pseudonym);
  return pseudonym;
}

void Pseudonyms::add(Kind kind, const std::string& text) {
  if (text.empty()) return;
  const std::string pseudonym = pseudonymOf(kind, text);
  const Text characters = Text::fromUtf8(text);
  for (const std::string& form :
       {text, displayed(characters), displayed(std::string_view{text}), displayedName(characters),
        displayedAsLatin1(characters), printableLine(text)}) {
    pseudonyms_.emplace(form, pseudonym);
    sizesByStart_[form.substr(0, kStartSize)].insert(form.size());
  }
}

/// The longest form that stands there; empty: none.
std::string_view Pseudonyms::formAt(std::string_view text, std::size_t at) const {
  std::string_view longest;
  for (std::size_t size = 1; size <= kStartSize && at + size <= text.size(); ++size) {
    const auto found = sizesByStart_.find(text.substr(at, size));
    if (found == sizesByStart_.end()) continue;
    // From the longest on.
    for (const std::size_t formSize : found->second) {
      if (formSize <= longest.size()) break;
      const std::string_view form = text.substr(at, formSize);
      if (form.size() < formSize || !pseudonyms_.contains(form)) continue;
      if (isUnmistakable(form) || isWordAt(text, at, formSize)) longest = form;
    }
  }
  return longest;
}

std::string Pseudonyms::withoutKnown(std::string_view text) {
  std::string all;
  for (std::size_t at = 0; at < text.size();) {
    if (const std::string_view form = formAt(text, at); !form.empty()) {
      all += pseudonyms_.find(form)->second;
      at += form.size();
      continue;
    }
    std::size_t size = 1;
    for (const std::string_view folder : {"/home/", "/Users/"}) {
      if (!text.substr(at).starts_with(folder)) continue;
      const std::size_t start = at + folder.size();
      const std::size_t end = std::min(text.find_first_of("/ \"':;,", start), text.size());
      all += folder;
      if (end > start) all += pseudonymOf(Kind::kUser, std::string{text.substr(start, end - start)});
      at = end;
      size = 0;
    }
    all += text.substr(at, size);
    at += size;
  }
  return all;
}

/// A quotation mark without another one after it begins a quotation to the end.
std::string Pseudonyms::withoutQuoted(std::string_view text) {
  std::string all;
  while (true) {
    const std::size_t start = text.find('"');
    if (start == std::string_view::npos) return all.append(text);
    const std::size_t end = std::min(text.find('"', start + 1), text.size());
    const std::string_view quoted = text.substr(start + 1, end - start - 1);
    all.append(text.substr(0, start + 1));
    all += quoted.empty() || given_.contains(quoted) ? std::string{quoted}
                                                     : pseudonymOf(Kind::kQuoted, std::string{quoted});
    if (end == text.size()) return all;
    all += '"';
    text.remove_prefix(end + 1);
  }
}

std::string Pseudonyms::replacedIn(std::string_view text) { return withoutQuoted(withoutKnown(text)); }

std::string Pseudonyms::counts() const {
  std::string text;
  for (std::size_t kind = 0; kind < recording::kNumPseudonymKinds; ++kind) {
    if (numOfKind_.at(kind) == 0) continue;
    const recording::PseudonymWords& words = recording::kPseudonymWords.at(kind);
    text.append(words.plural).append(" (").append(words.prefix).append("-N): ");
    text.append(std::to_string(numOfKind_.at(kind))).append("\n");
  }
  return text;
}

}  // namespace mirel::cli
