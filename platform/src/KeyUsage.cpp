#include "platform/KeyUsage.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "platform/Der.h"

namespace mirel {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

/// The first bytes of the values in a certificate (X.690, section 8.1.2; RFC 5280, section 4.1).
constexpr std::uint8_t kBoolean = 0x01;
constexpr std::uint8_t kInteger = 0x02;
constexpr std::uint8_t kBitString = 0x03;
constexpr std::uint8_t kOctetString = 0x04;
constexpr std::uint8_t kObjectIdentifier = 0x06;
constexpr std::uint8_t kVersion = 0xA0;          // [0], explicit
constexpr std::uint8_t kIssuerUniqueId = 0x81;   // [1], implicit
constexpr std::uint8_t kSubjectUniqueId = 0x82;  // [2], implicit
constexpr std::uint8_t kExtensions = 0xA3;       // [3], explicit

/// The content of the TBSCertificate.
std::optional<ByteSpan> toBeSignedOf(ByteSpan der) noexcept {
  const auto certificate = onlyDerValue(der, kDerSequence);
  if (!certificate) return std::nullopt;
  DerReader reader{*certificate};
  const auto toBeSigned = reader.read(kDerSequence);
  const bool isWhole = toBeSigned && reader.skip(kDerSequence) && reader.skip(kBitString) && reader.atEnd();
  return isWhole ? toBeSigned : std::nullopt;
}

/// The extensions, one after the other; nothing also when there are none.
std::optional<ByteSpan> extensionsOf(ByteSpan toBeSigned) noexcept {
  DerReader reader{toBeSigned};
  if (!reader.skipIfPresent(kVersion) || !reader.skip(kInteger)) return std::nullopt;
  // the signature's algorithm, issuer, validity, subject, and the public key
  for (int i = 0; i < 5; ++i) {
    if (!reader.skip(kDerSequence)) return std::nullopt;
  }
  if (!reader.skipIfPresent(kIssuerUniqueId) || !reader.skipIfPresent(kSubjectUniqueId)) return std::nullopt;
  const auto extensions = reader.read(kExtensions);
  return extensions && reader.atEnd() ? onlyDerValue(*extensions, kDerSequence) : std::nullopt;
}

struct Extension {
  ByteSpan identifier;
  ByteSpan value;
};

std::optional<Extension> readExtension(DerReader& extensions) noexcept {
  const auto extension = extensions.read(kDerSequence);
  if (!extension) return std::nullopt;
  DerReader reader{*extension};
  const auto identifier = reader.read(kObjectIdentifier);
  if (!identifier) return std::nullopt;
  if (reader.isNext(kBoolean)) {
    const auto critical = reader.read(kBoolean);
    if (!critical || critical->size() != 1) return std::nullopt;
  }
  const auto value = reader.read(kOctetString);
  if (!value || !reader.atEnd()) return std::nullopt;
  return Extension{*identifier, *value};
}

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
  const auto bitString = onlyDerValue(der, kBitString);
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
  const auto toBeSigned = toBeSignedOf(der);
  const auto extensions = toBeSigned ? extensionsOf(*toBeSigned) : std::nullopt;
  const auto keyUsage = extensions ? keyUsageAmong(*extensions) : std::nullopt;
  return keyUsage ? keyUsageOfExtension(*keyUsage) : std::nullopt;
}

}  // namespace mirel
