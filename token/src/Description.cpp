#include "Description.h"

#include <algorithm>
#include <cstdint>
#include <span>

#include "platform/Hex.h"

namespace mirel {
namespace {

constexpr std::size_t kShownWhole = 24;  // bytes
constexpr std::size_t kShownAtFront = 16;
constexpr std::size_t kShownAtEnd = 8;
constexpr std::size_t kGroup = 4;

std::string hexOf(std::span<const std::uint8_t> bytes) { return hexOfBytes(bytes, HexDigits::kLower); }

/// With a blank after each group of bytes but the last.
std::string groupedHexOf(std::span<const std::uint8_t> bytes) {
  std::string hex = hexOf(bytes.first(std::min(kGroup, bytes.size())));
  for (std::size_t i = kGroup; i < bytes.size(); i += kGroup) {
    hex.append(" ").append(hexOf(bytes.subspan(i, std::min(kGroup, bytes.size() - i))));
  }
  return hex;
}

}  // namespace

std::string dataDescription(const Bytes& data) {
  if (data.isNull()) return "(null)";
  const auto bytes = data.view();
  std::string text = "{length = " + std::to_string(bytes.size()) + ", bytes = 0x";
  if (bytes.size() <= kShownWhole) return text.append(hexOf(bytes)).append("}");
  text.append(groupedHexOf(bytes.first(kShownAtFront))).append(" ... ");
  return text.append(groupedHexOf(bytes.last(kShownAtEnd))).append(" }");
}

}  // namespace mirel
