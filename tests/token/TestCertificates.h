#pragma once

/// Self-signed X.509 certificates for tests, made with OpenSSL.

#include <openssl/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "module/Card.h"

namespace mirel::test {

/// The keys there are, one of each kind for the whole process, made when first used.
enum class TestKey {
  kP256,
  kRsa2048,
  kEd25519,  ///< of a kind that the keychain has no name for
};

struct CertificateRequest {
  TestKey key = TestKey::kP256;
  std::string commonName = "Test";
  /// The bits of the KeyUsage extension, bit n being bit n of RFC 5280's bit string (0:
  /// digitalSignature); without a value there is no such extension.
  std::optional<unsigned> keyUsage = std::nullopt;
  /// As many bytes in an extension that nobody reads; 0: no such extension.
  std::size_t padding = 0;
  /// A key of the caller, in place of `key`.
  EVP_PKEY* owner = nullptr;
};

/// Every certificate ends to be valid at this time.
inline constexpr const char* kTestNotAfter = "2035-01-02T03:04:05Z";

/// The DER encoding. Throws when OpenSSL fails.
[[nodiscard]] Value testCertificate(const CertificateRequest& request);

}  // namespace mirel::test
