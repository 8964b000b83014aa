#pragma once

#include <cstddef>
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
  std::size_t numCards = 0;              ///< that were inserted
  std::vector<std::string> keyHashes{};  ///< of the published keys: SHA-1 in small hexadecimal digits
  /// The same of each published certificate: several can have one key.
  std::vector<std::string> certificateHashes{};
};

/// Adds what that card publishes.
void expect(SystemExpectation& expectation, const InsertedCard& card);

/// The checks of the extension and of what the system sees, by the system's own tools.
void checkSystem(ProgramRunner& runner, const SystemExpectation& expected, Checks& checks);

}  // namespace mirel
