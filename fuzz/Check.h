#pragma once

#include <cstdio>
#include <cstdlib>

namespace mirel {

/// Ends the process as a crash, which is what a fuzzer and the replay look for.
inline void check(bool condition, const char* what) {
  if (condition) return;
  (void)std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

}  // namespace mirel
