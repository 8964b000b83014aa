#include "Description.h"

#include <cstdint>
#include <span>

namespace mirel {
namespace {

constexpr std::size_t kShownWhole = 24;  // bytes
constexpr std::size_t kShownAtFront = 16;
constexpr std::size_t kShownAtEnd = 8;
constexpr std::size_t kGroup = 4;

constexpr std::string_view kDigits = "0123456789abcdef";

std::string hexOf(std::span<const std::uint8_t> bytes, bool grouped) {
  std::string hex;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (grouped && i > 0 && i % kGroup == 0) hex += ' ';
    hex += kDigits[bytes[i] >> 4U];
    hex += kDigits[bytes[i] & 0xFU];
  }
  return hex;
}

}  // namespace

std::string dataDescription(const Bytes& data) {
  if (data.isNull()) return "(null)";
  const auto bytes = data.view();
  std::string text = "{length = " + std::to_string(bytes.size()) + ", bytes = 0x";
  if (bytes.size() <= kShownWhole) return text.append(hexOf(bytes, false)).append("}");
  text.append(hexOf(bytes.first(kShownAtFront), true)).append(" ... ");
  return text.append(hexOf(bytes.last(kShownAtEnd), true)).append(" }");
}

}  // namespace mirel
