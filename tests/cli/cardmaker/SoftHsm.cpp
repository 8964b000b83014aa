#include "SoftHsm.h"

#include <array>
#include <cstdlib>

namespace mirel::test {

std::filesystem::path softHsmModule() {
  constexpr std::array kUsualPlaces{
      "/usr/lib/softhsm/libsofthsm2.so",
      "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so",
      "/usr/lib/aarch64-linux-gnu/softhsm/libsofthsm2.so",
      "/usr/lib64/softhsm/libsofthsm2.so",
      "/usr/lib64/pkcs11/libsofthsm2.so",
      "/usr/local/lib/softhsm/libsofthsm2.so",
      "/opt/homebrew/lib/softhsm/libsofthsm2.so",
  };
  std::error_code ignored;
  if (const char* chosen = std::getenv("MIREL_SOFTHSM2_MODULE")) {
    return std::filesystem::exists(chosen, ignored) ? std::filesystem::path{chosen} : std::filesystem::path{};
  }
  for (const char* place : kUsualPlaces) {
    if (std::filesystem::exists(place, ignored)) return place;
  }
  return {};
}

}  // namespace mirel::test
