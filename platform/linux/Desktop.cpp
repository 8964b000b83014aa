#include "platform/Desktop.h"

namespace mirel {

std::shared_ptr<Desktop> systemDesktop() { return nullptr; }

}  // namespace mirel
