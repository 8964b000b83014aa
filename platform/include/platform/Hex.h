#pragma once

/// Numbers and bytes in hexadecimal digits: the one place that writes and reads them.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace mirel {

enum class HexDigits { kUpper, kLower };

/// A number without leading zeros: what "%lX" and "%lx" print of it.
[[nodiscard]] std::string hexOfNumber(std::uint64_t number, HexDigits digits);

/// Two digits for each byte.
[[nodiscard]] std::string hexOfBytes(std::span<const std::uint8_t> bytes, HexDigits digits);

/// What a digit of either case stands for; nothing for another character.
[[nodiscard]] std::optional<unsigned> valueOfHexDigit(char digit) noexcept;

}  // namespace mirel
