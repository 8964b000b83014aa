#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "doctor/Checks.h"
#include "host/Host.h"

namespace mirel {

class ProgramRunner;

/// What the system is expected to know.
struct SystemExpectation {
  std::string app{};                     ///< path of this program's app; empty: it is in none
  std::string module{};                  ///< path of the module's file; empty: there is none
  std::vector<std::string> keyHashes{};  ///< of the published keys: SHA-1 in small hexadecimal digits
  /// Those of each inserted card, by its instance ID: as the system tells them apart.
  std::map<std::u16string, std::set<std::string>> cards{};
  /// The same of each published certificate: several can have one key.
  std::vector<std::string> certificateHashes{};
};

/// Adds what that card publishes.
void expect(SystemExpectation& expectation, const InsertedCard& card);

/// The checks of the extension and of what the system sees, by the system's own tools.
void checkSystem(ProgramRunner& runner, const SystemExpectation& expected, Checks& checks);

}  // namespace mirel
