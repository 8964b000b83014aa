#pragma once

#include <cstdint>
#include <span>

#include "platform/Bytes.h"
#include "recording/ShapedPseudonyms.h"

namespace mirel::recording {

/// The certificate (RFC 5280) with pseudonyms for all that may name somebody: serial number, subject, issuer
/// and, in the extensions, each text, time, long number and byte string, those of unknown extensions too. Of
/// the same size and with the same structure. What stays: version, algorithms, validity, the public key, key
/// usages and other extensions that hold no names, and the signature, which is not valid any more.
///
/// Never fails: where `der` is no certificate, all values in it are replaced as those of an unknown
/// extension are, and what is no DER at all as a number is.
[[nodiscard]] ByteVector anonymousCertificate(std::span<const std::uint8_t> der,
                                              ShapedPseudonyms& pseudonyms);

/// The same for DER values that are no certificate, such as the name of a subject.
[[nodiscard]] ByteVector anonymousValues(std::span<const std::uint8_t> der, PseudonymKind kind,
                                         ShapedPseudonyms& pseudonyms);

}  // namespace mirel::recording
