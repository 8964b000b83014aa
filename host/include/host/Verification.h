#pragma once

#include "host/KeyClient.h"
#include "host/Result.h"

namespace mirel {

/// Whether the signature is one of the certificate's key over its data, by that algorithm (a message
/// algorithm stands for its digest). The failure says why it is none: where a call of the card failed, with
/// what its code means.
[[nodiscard]] Result<void> verifySignature(const PublishedCertificate& certificate, const PublishedKey& key,
                                           SecKeyAlgorithm algorithm, const Signature& signature);

}  // namespace mirel
