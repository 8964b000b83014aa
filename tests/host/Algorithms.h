#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/SecKeyAlgorithm.h"

namespace mirel::test {

inline constexpr std::string_view kHashNames[] = {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};

/// The algorithm with that name, which begins behind "kSecKeyAlgorithm".
[[nodiscard]] inline SecKeyAlgorithm algorithmNamed(const std::string& name) {
  for (const auto& [algorithm, fullName] : kSecKeyAlgorithms) {
    if (fullName == "kSecKeyAlgorithm" + name) return algorithm;
  }
  throw std::invalid_argument{"no algorithm " + name};
}

/// The name with the hash's in the place of "*".
[[nodiscard]] inline std::string withHash(std::string name, std::string_view hash) {
  const std::size_t place = name.find('*');
  return place == std::string::npos ? name : name.replace(place, 1, hash);
}

}  // namespace mirel::test
