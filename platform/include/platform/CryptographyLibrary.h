#pragma once

#include <string>

namespace mirel {

/// The name of the library that digests, certificates and public keys are worked on with, and its version
/// where it is not part of the system. A function of the system, not handed down.
[[nodiscard]] std::string cryptographyLibrary();

/// Leaves what that library holds to the end of the process, instead of taking it apart at exit: that costs a
/// short command a thirtieth of its time, and a module that works on the library too could no longer use it
/// when it is unloaded. To be called before the library's first use; where the library is part of the system,
/// nothing is done. A function of the system, not handed down.
void leaveCryptographyLibraryToExit() noexcept;

}  // namespace mirel
