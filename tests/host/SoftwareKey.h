#pragma once

/// Key pairs in software, made with OpenSSL. They do what the scripted card cannot, and check what it and the
/// host have made of the data.

#include <openssl/evp.h>

#include <memory>
#include <optional>

#include "module/Card.h"

namespace mirel::test {

/// Every operation throws when OpenSSL fails in a way that no input explains.
class SoftwareKey {
 public:
  /// One RSA key of each size and name for the whole process, made when first used.
  [[nodiscard]] static const SoftwareKey& rsa(unsigned bits, const char* name = "software");
  /// One key on each curve ("P-256"), in the same way.
  [[nodiscard]] static const SoftwareKey& ec(const char* curve);

  explicit SoftwareKey(EVP_PKEY* key);

  [[nodiscard]] int bits() const;
  [[nodiscard]] std::size_t blockSize() const;  ///< bytes; RSA only
  [[nodiscard]] Value modulus() const;          ///< RSA only

  /// A certificate signed by the key itself, in DER. `keyUsage`: as for CertificateRequest.
  [[nodiscard]] Value certificate(std::optional<unsigned> keyUsage = std::nullopt) const;

  /// Raw RSA with the private key (RFC 8017, sections 5.1.2 and 5.2.1) on a block; empty when the block is no
  /// number below the modulus.
  [[nodiscard]] Value rawPrivate(const Value& block) const;

  /// A signature of the digest by ECDSA, or by RSA with that padding; `hash`: OpenSSL's name, null: none.
  [[nodiscard]] Value signature(const Value& digest, const char* hash, int padding = 0,
                                int saltLen = 0) const;

  /// Whether RSA with that padding says so. `saltLen`: for PSS, with MGF1 of the same hash.
  [[nodiscard]] bool verifies(const Value& signature, const Value& digest, const char* hash, int padding,
                              int saltLen = 0) const;

  /// Encrypted for the key by RSA with that padding; `hash`: of OAEP and of its MGF1.
  [[nodiscard]] Value encrypted(const Value& plain, int padding, const char* hash = nullptr) const;

 private:
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};

/// The digest, by OpenSSL's name of the hash.
[[nodiscard]] Value softwareDigest(const char* hash, const Value& data);

}  // namespace mirel::test
