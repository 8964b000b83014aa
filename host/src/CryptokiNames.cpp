#include "host/CryptokiNames.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>

#include "bridge/CryptokiNames.h"

namespace mirel {
namespace {

using NameOfBit = std::string_view (*)(CK_FLAGS) noexcept;

constexpr std::array<std::string_view, 9> kKeyUsageNames{
    "digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment", "keyAgreement",
    "keyCertSign",      "cRLSign",        "encipherOnly",    "decipherOnly",
};

/// By the number of the bit.
std::string_view keyUsageName(CK_FLAGS bit) noexcept {
  const auto position = static_cast<std::size_t>(std::countr_zero(bit));
  return position < kKeyUsageNames.size() ? kKeyUsageNames[position] : std::string_view{};
}

std::string hexNumber(std::uint64_t value) {
  std::array<char, 16> digits{};
  const auto end = std::to_chars(digits.begin(), digits.end(), value, 16).ptr;
  std::string text{digits.begin(), end};
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
  return "0x" + text;
}

std::vector<std::string> bitNames(NameOfBit nameOf, std::uint64_t bits) {
  std::vector<std::string> found;
  for (unsigned position = 0; position < 64; ++position) {
    const std::uint64_t bit = std::uint64_t{1} << position;
    if ((bits & bit) == 0) continue;
    const std::string_view name = nameOf(bit);
    found.push_back(name.empty() ? hexNumber(bit) : std::string{name});
  }
  return found;
}

}  // namespace

std::string cryptokiResultText(std::uint64_t result) {
  const std::string_view name = cryptokiResultName(result);
  if (name.empty()) return hexNumber(result);
  return std::string{name} + " (" + hexNumber(result) + ")";
}

std::vector<std::string> tokenFlagNames(std::uint64_t flags) { return bitNames(&tokenFlagName, flags); }

std::vector<std::string> slotFlagNames(std::uint64_t flags) { return bitNames(&slotFlagName, flags); }

std::vector<std::string> keyUsageNames(std::int32_t usage) {
  return bitNames(&keyUsageName, static_cast<std::uint32_t>(usage));
}

}  // namespace mirel
