#include "platform/CryptographyLibrary.h"

namespace mirel {

std::string cryptographyLibrary() { return "Security framework"; }

void leaveCryptographyLibraryToExit() noexcept {}

}  // namespace mirel
