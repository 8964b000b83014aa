#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "platform/Bytes.h"
#include "platform/Digest.h"
#include "platform/SecKeyAlgorithm.h"

namespace mirel {

/// The public key of a certificate, to look at what its private key has made. Not for secrets.
class PublicKey {
 public:
  PublicKey() = default;
  PublicKey(const PublicKey&) = delete;
  PublicKey& operator=(const PublicKey&) = delete;
  virtual ~PublicKey() = default;

  /// Whether `signature` is one over `data` by that algorithm, with the data as a token gets them: of an
  /// algorithm with a hash in its name the digest, which a message algorithm stands for too. False for an
  /// algorithm that does not sign, or not with such a key.
  [[nodiscard]] virtual bool verifies(SecKeyAlgorithm algorithm, std::span<const std::uint8_t> data,
                                      std::span<const std::uint8_t> signature) const noexcept = 0;

  /// RSAVP1 (RFC 8017, section 5.2.2) of a signature as long as the modulus, as a block of the same length.
  /// Empty when the key is none of RSA, and for any other signature.
  [[nodiscard]] virtual ByteVector recoveredBlock(std::span<const std::uint8_t> signature) const noexcept = 0;
};

/// The public key in the certificate with that DER encoding, by the running system's library; null when it
/// cannot be read. A function of the system, not handed down: the result depends on the bytes alone.
[[nodiscard]] std::unique_ptr<PublicKey> publicKeyOfCertificate(std::span<const std::uint8_t> der) noexcept;

}  // namespace mirel
