#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/Bytes.h"
#include "platform/Text.h"

namespace mirel {

/// What people want to know of a certificate (RFC 5280, section 4.1) besides what decides about its key.
struct CertificateFields {
  ByteVector serialNumber;   ///< the bytes of the INTEGER, the first byte being its sign
  Text issuer;               ///< as one line (RFC 4514); empty when it has no parts
  Text notBefore;            ///< UTC, "YYYY-MM-DDThh:mm:ssZ"; null when it cannot be read
  Text notAfter;             ///< the same
  bool isAuthority = false;  ///< may sign other certificates (BasicConstraints)
  /// Names such as "clientAuth", or dotted object identifiers where there is no name. Empty: no such
  /// extension.
  std::vector<Text> extendedKeyUsage;
  /// The kind before each: "email:", "DNS:", "URI:", "UPN:", "IP:", "DirName:", "ID:"; "other" for the rest.
  std::vector<Text> subjectAltNames;
  ByteVector publicKeyBits;  ///< the bit string subjectPublicKey: of an EC key its point
  ByteVector modulus;        ///< of an RSA key (rsaEncryption), without zeros before it; else empty
};

/// Read from its DER encoding without the help of any library. Nothing when it is no certificate; a part that
/// cannot be read is empty, or .
[[nodiscard]] std::optional<CertificateFields> fieldsOfCertificate(std::span<const std::uint8_t> der);

}  // namespace mirel
