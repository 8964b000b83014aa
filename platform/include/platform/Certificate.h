#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/Text.h"

namespace mirel {

/// What the public key of a certificate is good for, as far as the keychain can say it.
enum class CertificateKeyType {
  kRSA,
  kECPrimeRandom,  ///< an elliptic curve over a prime field: P-192, P-224, P-256, P-384 or P-521
  kOther           ///< the keychain has no name for it
};

/// A parsed X.509 certificate (RFC 5280).
class SecCertificate {
 public:
  SecCertificate() = default;
  SecCertificate(const SecCertificate&) = delete;
  SecCertificate& operator=(const SecCertificate&) = delete;
  virtual ~SecCertificate() = default;

  /// The DER encoding it was made from.
  [[nodiscard]] virtual Bytes data() const noexcept = 0;

  /// The KeyUsage extension (RFC 5280, section 4.2.1.3) as a number whose bit n is bit n of the bit
  /// string: 0 digitalSignature, 2 keyEncipherment, 4 keyAgreement. Nothing when the certificate has
  /// no such extension or its value cannot be read.
  [[nodiscard]] virtual std::optional<std::int32_t> keyUsage() const noexcept = 0;

  /// The subject's name as one line: RFC 2253's on Linux, the platform's summary of it on macOS. Never null.
  [[nodiscard]] virtual Text subject() const noexcept = 0;

  /// The end of its validity as UTC, "YYYY-MM-DDThh:mm:ssZ"; null when it cannot be read.
  [[nodiscard]] virtual Text notAfter() const noexcept = 0;

  [[nodiscard]] virtual CertificateKeyType keyType() const noexcept = 0;

  /// The size of its public key in bits; 0 when it cannot be read.
  [[nodiscard]] virtual int keySizeInBits() const noexcept = 0;
};

/// Makes certificates of their encoding.
class CertificateParser {
 public:
  CertificateParser() = default;
  CertificateParser(const CertificateParser&) = delete;
  CertificateParser& operator=(const CertificateParser&) = delete;
  virtual ~CertificateParser() = default;

  /// Parses a DER-encoded X.509 certificate. Null when the bytes are null or are anything else than
  /// exactly one certificate.
  [[nodiscard]] virtual std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept = 0;
};

/// The certificate parser of the running system.
[[nodiscard]] std::shared_ptr<CertificateParser> systemCertificateParser();

}  // namespace mirel
