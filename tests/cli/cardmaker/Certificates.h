#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace mirel::cardmaker {

struct CertificateDescription {
  std::string subject;                ///< the common name, UTF-8
  std::string notAfter;               ///< "YYYYMMDDhhmmssZ"
  std::vector<std::string> keyUsage;  ///< RFC 5280's names; empty: the extension is left out
  std::optional<std::size_t> size;    ///< bytes of the whole certificate, padded with an extension
};

/// What a certificate object of PKCS #11 needs, each as DER.
struct Certificate {
  std::string value;
  std::string subject;
  std::string issuer;
  std::string serialNumber;
};

/// Makes a certificate for the public half of `key`, signed with `issuerKey` (RSA). Throws
/// std::invalid_argument for a key usage or date that is none, std::runtime_error when OpenSSL does not
/// make it or no padding gives the size.
[[nodiscard]] Certificate makeCertificate(const CertificateDescription& description, EVP_PKEY* key,
                                          EVP_PKEY* issuerKey);

}  // namespace mirel::cardmaker
