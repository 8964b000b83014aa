#pragma once

/// Numbers and bytes in hexadecimal digits: the one place that writes them.

#include <cstdint>
#include <span>
#include <string>

namespace mirel {

enum class HexDigits { kUpper, kLower };

/// A number without leading zeros: what "%lX" and "%lx" print of it.
[[nodiscard]] std::string hexOfNumber(std::uint64_t number, HexDigits digits);

/// Two digits for each byte.
[[nodiscard]] std::string hexOfBytes(std::span<const std::uint8_t> bytes, HexDigits digits);

}  // namespace mirel
