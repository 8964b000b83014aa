#pragma once

/// The data of a request to a key: reading them, bringing them into the form that the card is asked in, and
/// looking whether what it answers can be an answer.

#include <optional>
#include <string>

#include "Adaptation.h"
#include "host/InputSource.h"
#include "host/Result.h"
#include "platform/Bytes.h"
#include "platform/TimeAndChance.h"

namespace mirel {

/// That the data do not fit the algorithm.
[[nodiscard]] Failure badInput(const std::string& why);

/// All data, 65536 bytes at most: more than any digest, block or cryptogram of one key.
[[nodiscard]] Result<ByteVector> readAll(InputSource& input);

/// The digest of data of any length.
[[nodiscard]] Result<ByteVector> readDigest(Hash hash, InputSource& input);

/// Whether data of that size can be the input of the algorithm.
[[nodiscard]] Result<void> checkSize(SecKeyAlgorithm algorithm, const PublishedKey& key, std::size_t size);

/// The data in the next form; nothing when they do not fit into the key. `chance`: draws a salt.
[[nodiscard]] std::optional<ByteVector> adapted(const AdaptationStep& step, const PublishedKey& key,
                                                const ByteVector& data, TimeAndChance& chance);

/// Whether `plain` can be what the card made of `cipher` (not empty) when asked in that form. A module that
/// answers CKR_OK and writes nothing leaves the length of the whole block, and zeros.
/// Where a module claims a shorter length and writes nothing, the zeros are taken for the plain text: it may
/// have been zeros, and a module that lies about the length could write any other bytes as well.
[[nodiscard]] Result<void> checkPlainText(SecKeyAlgorithm form, const PublishedKey& key,
                                          const ByteVector& cipher, const Bytes& plain);

}  // namespace mirel
