#include "platform/Environment.h"

#include <cstdlib>

namespace mirel {

std::optional<std::string> callersVariable(const char* name) {
  const char* value = secure_getenv(name);
  if (!value || *value == '\0') return std::nullopt;
  return value;
}

}  // namespace mirel
