#include "Wording.h"

namespace mirel::cli {
namespace {

std::string_view wordsOf(UserStep step) noexcept {
  switch (step) {
    case UserStep::kSeeLog: return "run again with -v to see the log";
    case UserStep::kSeeLogAndAskMaker:
      return "run again with -v to see the log, and ask the maker of the module";
    case UserStep::kSeeReaders: return "see the readers with: mireltoken readers";
    case UserStep::kSeeKeys: return "see the keys with: mireltoken items";
    case UserStep::kSeeAlgorithms: return "see what works with: mireltoken algorithms";
    case UserStep::kChooseAnotherKey: return "choose another key, see them with: mireltoken items";
    case UserStep::kRetryOrNameReader: return "run again, or name the reader with --reader";
    case UserStep::kInitialiseOrNameReader:
      return "run again, insert the card that is meant, or name its reader with --reader; "
             "a new card has to be initialised first, which empties it";
    case UserStep::kRetryOrGiveObjectID:
      return "run again, or give the ID of a key that `mireltoken items` shows";
    case UserStep::kCheckModulePath: return "check the path given with --module";
    case UserStep::kCheckModuleKind:
      return "check that the path given with --module is a PKCS #11 module for this system";
    case UserStep::kInstallOrNameModule:
      return "install the card software for this user, or name another module with --module";
    case UserStep::kNameHomeOrModule: return "name the home folder with --home or the module with --module";
    case UserStep::kGivePinApart: return "give the PIN at the terminal, or with --pin-file or --pin-fd";
    case UserStep::kNameModuleAndPinApart:
      return "leave out what begins with \"?\"; name a module with --module, a file with the PIN with "
             "--pin-file";
    case UserStep::kRestrictOrTrustModule:
      return "take that right away, or load it all the same with --trust-module";
  }
  return {};
}

}  // namespace

std::string_view wordsOf(const Advice& advice) noexcept {
  const auto step = advice.step();
  return step ? wordsOf(*step) : advice.words();
}

}  // namespace mirel::cli
