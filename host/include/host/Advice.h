#pragma once

#include <optional>
#include <string_view>

namespace mirel {

/// What the user can try where that takes a command or an option: each front end has its own, and words it.
enum class UserStep {
  kSeeLog,                  ///< run again with all log lines
  kSeeLogAndAskMaker,       ///< the same, and ask the maker of the module
  kSeeReaders,              ///< see which readers there are
  kSeeKeys,                 ///< see which keys there are
  kSeeAlgorithms,           ///< see which algorithms the key accepts
  kChooseAnotherKey,        ///< choose one of the keys that there are
  kRetryOrNameReader,       ///< run again, or name the reader
  kInitialiseOrNameReader,  ///< run again, insert another card, name the reader, or initialise a new one
  kRetryOrGiveObjectID,     ///< run again, or name the key by its object ID
  kCheckModulePath,         ///< check the path that the user gave of the module
  kCheckModuleKind,         ///< check that it leads to a PKCS #11 module for this system
  kInstallOrNameModule,     ///< install the card software, or name another module
  kNameHomeOrModule,        ///< name the home folder, or the module
  kGivePinApart,            ///< give the PIN in one of the ways that there are for it
  kNameModuleAndPinApart,   ///< leave that out of the URI; name the module, and give the PIN, otherwise
  kRestrictOrTrustModule,   ///< keep others from changing the module, or load it all the same
};

/// What the user can try next: a step, or words that hold for every front end.
class Advice {
 public:
  constexpr Advice() = default;  ///< none
  // NOLINTBEGIN(google-explicit-constructor): each can stand for the advice of a failure
  constexpr Advice(UserStep step) : step_{step} {}
  /// `words`: a literal, UTF-8, without a full stop or line end.
  constexpr Advice(const char* words) : words_{words} {}
  // NOLINTEND(google-explicit-constructor)

  /// Nothing where there are words.
  [[nodiscard]] constexpr std::optional<UserStep> step() const noexcept { return step_; }
  /// Empty where there is a step.
  [[nodiscard]] constexpr std::string_view words() const noexcept { return words_; }

  [[nodiscard]] friend constexpr bool operator==(const Advice&, const Advice&) = default;

 private:
  std::optional<UserStep> step_;
  std::string_view words_;
};

}  // namespace mirel
