#pragma once

/// The encodings of RFC 8017 that the key services lay around data before and after raw RSA. `blockSize`: the
/// length of the modulus in bytes.

#include <optional>
#include <span>

#include "platform/Bytes.h"
#include "platform/Digest.h"
#include "platform/TimeAndChance.h"

namespace mirel {

/// The DER encoding of DigestInfo (RFC 8017, section 9.2, note 1). `digest` has the size of the hash.
[[nodiscard]] ByteVector digestInfo(Hash hash, std::span<const std::uint8_t> digest);

/// EMSA-PKCS1-v1_5 (section 9.2, steps 3 to 5); nothing when `data` does not fit.
[[nodiscard]] std::optional<ByteVector> paddedForSigning(std::span<const std::uint8_t> data,
                                                         std::size_t blockSize);

/// EMSA-PSS with MGF1 of the same hash and a salt of its size (section 9.1.1), as a whole block; nothing when
/// the key is too short. `chance`: draws the salt.
[[nodiscard]] std::optional<ByteVector> encodedForPss(Hash hash, std::span<const std::uint8_t> digest,
                                                      std::size_t modulusBits, TimeAndChance& chance);

/// EME-PKCS1-v1_5 (section 7.2.1, step 2); nothing when `message` does not fit, or the system has no random
/// bytes. For trials: the message is no secret.
[[nodiscard]] std::optional<ByteVector> paddedForEncrypting(std::span<const std::uint8_t> message,
                                                            std::size_t blockSize);

/// The caller wipes the block and the message; nothing else of them is left in memory.
///
/// The message in a block of EME-PKCS1-v1_5 (section 7.2.2, step 3); nothing when it is none.
[[nodiscard]] std::optional<ByteVector> unpaddedAfterDecrypting(std::span<const std::uint8_t> block);

/// The message in a block of EME-OAEP with MGF1 of the same hash and no label (section 7.1.2, step 3);
/// nothing when it is none.
[[nodiscard]] std::optional<ByteVector> decodedFromOaep(Hash hash, std::span<const std::uint8_t> encoded);

}  // namespace mirel
