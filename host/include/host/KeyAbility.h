#pragma once

#include <optional>

#include "host/CardReport.h"
#include "host/Host.h"
#include "platform/SecKeyAlgorithm.h"

namespace mirel {

/// Why that key never does what it is asked for, whatever the card and its PIN: known from what is published
/// of it. Nothing where it may. `operation`: also one that the key is not published for, which is no reason
/// here.
[[nodiscard]] std::optional<Finding> reasonNeverTo(KeyOperation operation, const PublishedKey& key);

/// How many bits an RSA key must have at least for that algorithm: of the signatures of digests and messages
/// by PSS with a salt as long as the digest, and by PKCS #1 v1.5 (RFC 8017, sections 9.1.1 and 9.2). 0 for
/// others.
[[nodiscard]] int leastKeySizeFor(SecKeyAlgorithm algorithm);

/// Whether a request that the token accepts can come to something with that key. False where the type of the
/// key does not fit, it is too short for the algorithm or not published for that, where there is a reason
/// never to do it, for decryption other than of PKCS #1 v1.5, and for what is made of several such steps.
[[nodiscard]] bool mayWork(const PublishedKey& key, SecKeyAlgorithm algorithm);

/// The finding as a failure of a request to that key, before any PIN is asked for.
[[nodiscard]] Failure refusalBecauseOf(const Finding& finding, KeyOperation operation);

/// That failure, of a signature that does not verify or of a plain text that there is not, with what the
/// report of the card knows of its cause; also that it may not know it, because the module failed. Unchanged
/// where its cause is known.
[[nodiscard]] Failure explainedBy(const CardReport& report, const PublishedKey& key, Failure failure);

}  // namespace mirel
