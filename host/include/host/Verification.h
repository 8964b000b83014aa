#pragma once

#include <string>

#include "host/KeyClient.h"

namespace mirel {

/// Whether the signature is one of the certificate's key over its data, by that algorithm (a message
/// algorithm stands for its digest). Empty when it is; otherwise why not, in words for the user.
[[nodiscard]] std::string signatureTrouble(const PublishedCertificate& certificate, const PublishedKey& key,
                                           SecKeyAlgorithm algorithm, const Signature& signature);

/// The failure that the user is told where there is such a trouble: where a call of the card failed, with
/// what its code means.
[[nodiscard]] Failure signatureFailure(const PublishedKey& key, const Signature& signature,
                                       const std::string& trouble);

}  // namespace mirel
