#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

/// A result code of PKCS #11 for people: "CKR_DEVICE_ERROR (0x30)"; the number alone when the standard
/// has no name for it.
[[nodiscard]] std::string cryptokiResultText(std::uint64_t result);

/// The names of the bits set in a token's flags, without "CKF_"; a bit without a name as a number.
[[nodiscard]] std::vector<std::string> tokenFlagNames(std::uint64_t flags);

/// The same for a slot's flags.
[[nodiscard]] std::vector<std::string> slotFlagNames(std::uint64_t flags);

/// The names of the bits set in a KeyUsage (RFC 5280, section 4.2.1.3).
[[nodiscard]] std::vector<std::string> keyUsageNames(std::int32_t usage);

}  // namespace mirel
