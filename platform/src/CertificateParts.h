#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/Der.h"

namespace mirel {

/// The first bytes of the values in a certificate (X.690, section 8.1.2; RFC 5280, section 4.1).
inline constexpr std::uint8_t kDerBoolean = 0x01;
inline constexpr std::uint8_t kDerInteger = 0x02;
inline constexpr std::uint8_t kDerBitString = 0x03;
inline constexpr std::uint8_t kDerOctetString = 0x04;
inline constexpr std::uint8_t kDerObjectIdentifier = 0x06;

/// The contents of the parts of a certificate, in its encoding.
struct CertificateParts {
  std::span<const std::uint8_t> serialNumber;
  std::span<const std::uint8_t> issuer;
  std::span<const std::uint8_t> validity;
  std::span<const std::uint8_t> subject;
  std::span<const std::uint8_t> publicKeyInfo;
  std::optional<std::span<const std::uint8_t>> extensions;  ///< one after the other; nothing: there are none
};

/// Nothing unless `der` is exactly one certificate as far as its outer values go.
[[nodiscard]] std::optional<CertificateParts> partsOfCertificate(std::span<const std::uint8_t> der) noexcept;

struct CertificateExtension {
  std::span<const std::uint8_t> identifier;
  std::span<const std::uint8_t> value;
};

/// The next extension, which is then passed; nothing when it is none.
[[nodiscard]] std::optional<CertificateExtension> readExtension(DerReader& extensions) noexcept;

}  // namespace mirel
