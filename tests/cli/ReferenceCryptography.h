#pragma once

#include <string>
#include <string_view>

namespace mirel::test {

/// What OpenSSL makes of the key pairs that cardmaker uses, by their types ("rsa2048"). Hashes go by
/// OpenSSL's names ("SHA256"). All functions throw std::runtime_error when OpenSSL fails.

[[nodiscard]] std::string digestOf(std::string_view hash, const std::string& data);

/// Whether `signature` is one of RSASSA-PSS (RFC 8017, section 8.1) over the digest: MGF1 with the same hash,
/// a salt of its length.
[[nodiscard]] bool pssVerifies(const std::string& keyType, std::string_view hash, const std::string& digest,
                               const std::string& signature);

/// The block that the public key makes of a signature, nothing taken off (RFC 8017, section 5.2.2).
[[nodiscard]] std::string blockOf(const std::string& keyType, const std::string& signature);

/// Encrypts for the key. `padding`: "pkcs1" or "none".
[[nodiscard]] std::string encrypted(const std::string& keyType, std::string_view padding,
                                    const std::string& plain);

/// A new public key on the curve of that type ("p256"), as an uncompressed point.
[[nodiscard]] std::string newPoint(const std::string& keyType);

/// The DER in a certificate in PEM; the PEM that OpenSSL writes of it; the common name in its subject; and
/// whether it was signed with that key.
[[nodiscard]] std::string derOfCertificate(const std::string& pem);
[[nodiscard]] std::string pemOf(const std::string& der);
[[nodiscard]] std::string commonNameOf(const std::string& pem);
[[nodiscard]] bool isSignedBy(const std::string& keyType, const std::string& pem);

}  // namespace mirel::test
