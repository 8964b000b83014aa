#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace mirel {

using ByteVector = std::vector<std::uint8_t>;
using ByteSpan = std::span<const std::uint8_t>;

/// A DER value with that first byte; `content`: 65535 bytes at most.
[[nodiscard]] ByteVector encoded(std::uint8_t tag, ByteSpan content);
/// A SEQUENCE of them.
[[nodiscard]] ByteVector sequence(std::initializer_list<ByteSpan> parts);

namespace parts {

inline constexpr std::array<std::uint8_t, 3> kSerialNumber{0x02, 0x01, 0x07};
inline constexpr std::array<std::uint8_t, 15> kNotAfter{0x17, 0x0D, '3', '0', '1', '2', '3', '1',
                                                        '2',  '3',  '5', '9', '5', '9', 'Z'};
inline constexpr std::array<std::uint8_t, 2> kNoName{0x30, 0x00};
/// rsaEncryption with a modulus of one byte and the exponent 3
inline constexpr std::array<std::uint8_t, 28> kPublicKey{
    0x30, 0x1A, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01,
    0x01, 0x05, 0x00, 0x03, 0x09, 0x00, 0x30, 0x06, 0x02, 0x01, 0x7F, 0x02, 0x01, 0x03};
inline constexpr std::array<std::uint8_t, 4> kKeyUsage{0x03, 0x02, 0x07, 0x80};

}  // namespace parts

/// The parts of a certificate (RFC 5280, section 4.1) that an input can take the place of, each with
/// its own tag and length.
struct CertificateParts {
  ByteSpan serialNumber{parts::kSerialNumber};
  ByteSpan issuer{parts::kNoName};
  ByteSpan notAfter{parts::kNotAfter};
  ByteSpan subject{parts::kNoName};
  ByteSpan publicKey{parts::kPublicKey};
  ByteSpan keyUsage{parts::kKeyUsage};
  ByteSpan moreExtensions{};  ///< none or several
};

/// A certificate made of the parts. Its signature is nonsense, which nobody looks at.
[[nodiscard]] ByteVector certificateOf(const CertificateParts& parts);

}  // namespace mirel
