#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "doctor/Checks.h"
#include "host/Host.h"

namespace mirel {

class ProgramRunner;

/// What the system is expected to know.
struct SystemExpectation {
  std::string app{};     ///< path of this program's app; empty: it is in none
  std::string module{};  ///< path of the module's file; empty: there is none
  std::set<std::u16string, std::less<>>
      instanceIDs{};                     ///< of the inserted cards, as the system tells them apart
  std::vector<std::string> keyHashes{};  ///< of the published keys: SHA-1 in small hexadecimal digits
  /// The same of each published certificate: several can have one key.
  std::vector<std::string> certificateHashes{};
};

/// Adds what that card publishes.
void expect(SystemExpectation& expectation, const InsertedCard& card);

/// The checks of the extension and of what the system sees, by the system's own tools.
void checkSystem(ProgramRunner& runner, const SystemExpectation& expected, Checks& checks);

}  // namespace mirel
