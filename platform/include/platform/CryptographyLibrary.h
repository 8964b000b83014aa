#pragma once

#include <string>

namespace mirel {

/// The name of the library that digests, certificates and public keys are worked on with, and its version
/// where it is not part of the system. A function of the system, not handed down.
[[nodiscard]] std::string cryptographyLibrary();

}  // namespace mirel
