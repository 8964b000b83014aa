#pragma once

#include <filesystem>

namespace mirel::test {

/// How to get SoftHSM2 where it is missing.
inline constexpr const char* kSoftHsmIsMissing =
    "SoftHSM2 is missing. Install it with: apt-get install softhsm2 (macOS: brew install softhsm)";

/// The PKCS #11 module of SoftHSM2: the environment's MIREL_SOFTHSM2_MODULE, else where the systems'
/// packages put it. Empty when there is none.
[[nodiscard]] std::filesystem::path softHsmModule();

}  // namespace mirel::test
