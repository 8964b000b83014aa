#include "platform/KeyUsage.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "CertificateParts.h"

namespace mirel {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

bool isKeyUsage(ByteSpan identifier) noexcept {
  constexpr std::array<std::uint8_t, 3> kKeyUsage{0x55, 0x1D, 0x0F};  // 2.5.29.15
  return std::equal(identifier.begin(), identifier.end(), kKeyUsage.begin(), kKeyUsage.end());
}

/// The value of the KeyUsage extension.
std::optional<ByteSpan> keyUsageAmong(ByteSpan extensions) noexcept {
  std::optional<ByteSpan> keyUsage;
  DerReader reader{extensions};
  while (!reader.atEnd()) {
    const auto extension = readExtension(reader);
    if (!extension) return std::nullopt;
    if (!isKeyUsage(extension->identifier)) continue;
    if (keyUsage) return std::nullopt;
    keyUsage = extension->value;
  }
  return keyUsage;
}

std::optional<std::int32_t> keyUsageOfExtension(ByteSpan der) noexcept {
  constexpr std::size_t kNamedBits = 9;
  const auto bitString = onlyDerValue(der, kDerBitString);
  if (!bitString || bitString->empty()) return std::nullopt;
  const std::size_t unused = bitString->front();
  const ByteSpan bytes = bitString->subspan(1);
  if (unused > 7 || (bytes.empty() && unused != 0)) return std::nullopt;

  const std::size_t numBits = std::min(bytes.size() * 8 - unused, kNamedBits);
  std::uint32_t usage = 0;
  for (std::size_t bit = 0; bit < numBits; ++bit) {
    const bool isSet = (bytes[bit / 8] & (0x80U >> (bit % 8))) != 0;  // bit 0 is the highest of its byte
    if (isSet) usage |= 1U << bit;
  }
  return static_cast<std::int32_t>(usage);
}

}  // namespace

std::optional<std::int32_t> keyUsageOfCertificate(std::span<const std::uint8_t> der) noexcept {
  const auto parts = partsOfCertificate(der);
  const auto keyUsage = parts && parts->extensions ? keyUsageAmong(*parts->extensions) : std::nullopt;
  return keyUsage ? keyUsageOfExtension(*keyUsage) : std::nullopt;
}

}  // namespace mirel
