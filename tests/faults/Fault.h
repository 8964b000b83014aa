#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "module/Script.h"

namespace mirel::test {

/// One way in which the module deviates in one run of a command.
struct Fault {
  enum class Kind {
    kNone,
    kCode,     ///< the call at `position` answers `code` and does nothing else
    kNumber,   ///< the call at `position` succeeds, and reports `value` for its number `number`
    kNoEntry,  ///< the function list has no `function`
    kText,     ///< the card's text `place` is `text`, in all calls
  };
  Kind kind = Kind::kNone;
  std::string function{};
  std::size_t position = 0;  ///< among all calls of the command
  CK_RV code = CKR_OK;
  Times times = Times::kOnce;
  std::size_t number = 0;
  CK_ULONG value = 0;
  std::size_t place = 0;
  std::string text{};
  std::string name{};  ///< what makes it different from all others of the command
};

}  // namespace mirel::test
