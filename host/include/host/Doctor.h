#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/Finding.h"
#include "host/Host.h"
#include "host/ModuleFile.h"
#include "host/PinSource.h"
#include "platform/PlatformServices.h"
#include "platform/ProgramRunner.h"
#include "platform/Text.h"

namespace mirel {

/// A place on the way from the module to the keychain.
enum class Station { kModule, kReaders, kCard, kObjects, kKeys, kSystem };

/// One step on the way from the module's file to a verified signature.
struct Check {
  std::string name;
  Severity severity = Severity::kOk;
  std::string evidence;           ///< what was seen, or why nothing was looked at; fit for a terminal
  std::vector<Finding> findings;  ///< empty where all is well, and where a check was skipped
  std::string reader{};           ///< whose card it is about, fit for a terminal; empty: about all
  Station station = Station::kModule;
};

/// The file of the module that was examined.
struct ExaminedModule {
  std::string path{};    ///< behind all links; empty: there is none
  std::string target{};  ///< the processors that it was built for; empty: that does not show
};

/// What an examination has come to.
struct Diagnosis {
  std::vector<Check> checks;  ///< in the order in which they were made
  ExaminedModule module{};
  std::vector<Reader> slots{};              ///< all that the module lists
  std::vector<std::string> systemTokens{};  ///< IDs ("driver:card") of the tokens that the system lists

  /// Those of all checks, in their order, each once and as the worst that a check takes it for. Where several
  /// cards were examined, one that is about a card names its reader.
  [[nodiscard]] std::vector<Finding> findings() const;
  /// kFailure, kWarning, or kOk: what could not be told is no fault.
  [[nodiscard]] Severity verdict() const;
};

/// Gives the source of a reader's PIN; null: the keys are not tried.
using PinsForReader = std::function<std::unique_ptr<PinSource>(Host& host, const Reader& reader)>;

/// Is told of a card that was inserted, with all that is known of it before any login.
using CardListener = std::function<void(const InsertedCard& card, const CardReport& report)>;

/// What is to be examined.
struct Examination {
  ModuleChoice module{};
  Text reader{};         ///< its name (see `Host::insert`); null: all with a card
  PinsForReader pins{};  ///< with it one card alone is examined: a PIN is never sent to a card by mistake
  std::chrono::milliseconds slowCall{2000};               ///< a call of the module that takes longer is told
  std::function<void(std::string_view check)> onStart{};  ///< is told of a check that begins; may be empty
  /// Is told of each check when it was made: the last one of those so far; may be empty.
  std::function<void(const Diagnosis& soFar)> onCheck{};
  CardListener onCard{};  ///< may be empty
  /// Asks the system about the token extension; null: the system has none, and nothing is said of it.
  std::shared_ptr<ProgramRunner> systemTools{};
  std::string app{};  ///< path of the app that this program is in; empty: it is in none
};

/// Examines module, card service, readers, PIN and card, one check after the other. A check that cannot be
/// made since an earlier one failed is skipped, with the reason. Without PINs nothing is changed and no login
/// is tried. Loads the module into this process, as `Host` does: once for each process.
[[nodiscard]] Diagnosis diagnose(PlatformServices services, const Examination& wanted);

}  // namespace mirel
