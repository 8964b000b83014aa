#pragma once

#include <array>
#include <cstddef>

namespace mirel::recording {

/// What a pseudonym stands for.
enum class PseudonymKind {
  kReader,
  kCard,
  kLabel,
  kSerialNumber,
  kName,
  kUser,
  kHome,
  kID,
  kFingerprint,
  kQuoted,
  kOther
};

struct PseudonymWords {
  const char* prefix;  ///< pseudonyms begin with it
  const char* plural;  ///< for people
};

inline constexpr std::size_t kNumPseudonymKinds = 11;

/// In the order of the kinds.
inline constexpr std::array<PseudonymWords, kNumPseudonymKinds> kPseudonymWords{
    {{"reader", "names of readers"},
     {"card", "identifiers of cards"},
     {"label", "labels"},
     {"serial", "serial numbers"},
     {"name", "names in certificates"},
     {"user", "names of users"},
     {"home", "home folders"},
     {"id", "long IDs of keys"},
     {"fingerprint", "fingerprints"},
     {"text", "other texts in quotation marks"},
     {"other", "other texts and bytes"}}};

[[nodiscard]] constexpr const PseudonymWords& wordsOf(PseudonymKind kind) {
  return kPseudonymWords.at(static_cast<std::size_t>(kind));
}

}  // namespace mirel::recording
