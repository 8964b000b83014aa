#include "CertificateParts.h"

namespace mirel {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

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
  const bool isWhole =
      toBeSigned && reader.skip(kDerSequence) && reader.skip(kDerBitString) && reader.atEnd();
  return isWhole ? toBeSigned : std::nullopt;
}

}  // namespace

std::optional<CertificateParts> partsOfCertificate(ByteSpan der) noexcept {
  const auto toBeSigned = toBeSignedOf(der);
  if (!toBeSigned) return std::nullopt;
  DerReader reader{*toBeSigned};
  if (!reader.skipIfPresent(kVersion)) return std::nullopt;
  const auto serialNumber = reader.read(kDerInteger);
  if (!serialNumber || !reader.skip(kDerSequence)) return std::nullopt;  // the signature's algorithm
  CertificateParts parts{*serialNumber, {}, {}, {}, {}, {}};
  for (ByteSpan* part : {&parts.issuer, &parts.validity, &parts.subject, &parts.publicKeyInfo}) {
    const auto content = reader.read(kDerSequence);
    if (!content) return std::nullopt;
    *part = *content;
  }
  if (!reader.skipIfPresent(kIssuerUniqueId) || !reader.skipIfPresent(kSubjectUniqueId)) return std::nullopt;
  if (reader.atEnd()) return parts;
  const auto extensions = reader.read(kExtensions);
  if (!extensions || !reader.atEnd()) return std::nullopt;
  parts.extensions = onlyDerValue(*extensions, kDerSequence);
  return parts.extensions ? std::optional{parts} : std::nullopt;
}

std::optional<CertificateExtension> readExtension(DerReader& extensions) noexcept {
  const auto extension = extensions.read(kDerSequence);
  if (!extension) return std::nullopt;
  DerReader reader{*extension};
  const auto identifier = reader.read(kDerObjectIdentifier);
  if (!identifier) return std::nullopt;
  if (reader.isNext(kDerBoolean)) {
    const auto critical = reader.read(kDerBoolean);
    if (!critical || critical->size() != 1) return std::nullopt;
  }
  const auto value = reader.read(kDerOctetString);
  if (!value || !reader.atEnd()) return std::nullopt;
  return CertificateExtension{*identifier, *value};
}

}  // namespace mirel
