#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "EditedModule.h"
#include "Input.h"
#include "platform/PlatformServices.h"

namespace mirel::fuzz {

/// The services of the platform around one run: an edited module in place of the loader, memory that may run
/// out, a card service that says what the input says, and fakes that keep nothing for the rest. They check
/// what they are given:
/// - no line of the log has the PIN in it, as text or in hexadecimal digits;
/// - every call of the module that starts returns;
/// - every block of memory is given back.
class Surroundings {
 public:
  /// Takes from the input what is wrong with memory and card service. `pins`: no line of the log may have one
  /// of them; one that is in the input itself is not looked for.
  Surroundings(Input& input, std::vector<std::string> pins);
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;
  /// Everything that got the services has ended.
  ~Surroundings();

  /// All but a loader.
  [[nodiscard]] PlatformServices services() const;
  [[nodiscard]] PlatformServices services(EditedModule& module) const;

  /// Ends the process when the text has a PIN.
  void checkSecrecy(std::string_view text) const;

  /// Whether a block of memory was refused.
  [[nodiscard]] bool ranOutOfMemory() const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace mirel::fuzz
