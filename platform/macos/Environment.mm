#include "platform/Environment.h"

#include <unistd.h>

#include <cstdlib>

namespace mirel {

std::optional<std::string> callersVariable(const char* name) {
  if (getuid() != geteuid() || getgid() != getegid()) return std::nullopt;
  const char* value = std::getenv(name);
  if (!value || *value == '\0') return std::nullopt;
  return value;
}

}  // namespace mirel
