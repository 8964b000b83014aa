#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/SecretText.h"

namespace mirel {

template <typename Character>
std::span<const std::uint8_t> bytesOf(std::basic_string_view<Character> text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size() * sizeof(Character)};
}

/// Of a text of 64 bytes at the most.
inline std::string utf8Of(const SecretText& text) {
  std::array<std::uint8_t, 64> room{};
  const std::size_t written = text.copyUtf8(room);
  return {room.begin(), room.begin() + static_cast<std::ptrdiff_t>(written)};
}

}  // namespace mirel
