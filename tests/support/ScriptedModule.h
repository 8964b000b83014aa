#pragma once

#include "module/Script.h"

namespace mirel::test {

/// The script of the scripted module at kScriptedModule, whose library stays mapped for the life of the
/// process. Whoever opens that file, or a link to it, gets the module that plays this script; a copy
/// of the file would be another module. Throws when the library cannot be opened.
[[nodiscard]] Script& scriptedModule();
/// Its functions, as a stranger gets them from the library.
[[nodiscard]] CK_FUNCTION_LIST* scriptedFunctions();

}  // namespace mirel::test
