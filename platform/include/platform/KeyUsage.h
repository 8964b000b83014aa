#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace mirel {

/// The KeyUsage extension (RFC 5280, section 4.2.1.3) of a certificate, read from its DER encoding
/// (X.690) without the help of any library: a number whose bit n is bit n of the bit string, for the
/// nine bits that have a name (0 digitalSignature to 8 decipherOnly).
/// `der`: one whole certificate; it may be empty or anything else, and is only looked at in the call.
/// Nothing when the certificate has no such extension or has it twice (section 4.2), when something follows
/// the certificate, and when a value on the
/// way to the extension or in the list of extensions is not DER: another type, a length that is indefinite,
/// longer than needed (X.690, section 10.1) or beyond the data, a string in pieces (section 10.2), or a bit
/// string with an impossible number of unused bits (section 8.6.2). Two things that DER forbids are let
/// through because they are clear: zeros at the end of the bit string, and unused bits that are set, which do
/// not count. What the certificate's other parts hold is not looked at.
[[nodiscard]] std::optional<std::int32_t> keyUsageOfCertificate(std::span<const std::uint8_t> der) noexcept;

}  // namespace mirel
