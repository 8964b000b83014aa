#include "platform/CryptographyLibrary.h"

namespace mirel {

std::string cryptographyLibrary() { return "Security framework"; }

}  // namespace mirel
