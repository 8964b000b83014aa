#include "CertificateParts.h"

#include <algorithm>
#include <cstddef>

namespace mirel {

ByteVector encoded(std::uint8_t tag, ByteSpan content) {
  const auto low = static_cast<std::uint8_t>(content.size());
  const auto high = static_cast<std::uint8_t>(content.size() >> 8U);
  ByteVector der = content.size() >= 0x100  ? ByteVector{tag, 0x82, high, low}
                   : content.size() >= 0x80 ? ByteVector{tag, 0x81, low}
                                            : ByteVector{tag, low};
  der.resize(der.size() + content.size());
  std::copy(content.begin(), content.end(), der.end() - static_cast<std::ptrdiff_t>(content.size()));
  return der;
}

ByteVector sequence(std::initializer_list<ByteSpan> parts) {
  ByteVector content;
  for (const ByteSpan part : parts) content.insert(content.end(), part.begin(), part.end());
  return encoded(0x30, content);
}

ByteVector certificateOf(const CertificateParts& parts) {
  constexpr std::array<std::uint8_t, 5> kVersion3{0xA0, 0x03, 0x02, 0x01, 0x02};
  constexpr std::array<std::uint8_t, 12> kEcdsaWithSha256{0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86,
                                                          0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
  constexpr std::array<std::uint8_t, 15> kNotBefore{0x17, 0x0D, '2', '0', '0', '1', '0', '1',
                                                    '0',  '0',  '0', '0', '0', '0', 'Z'};
  constexpr std::array<std::uint8_t, 5> kKeyUsageIdentifier{0x06, 0x03, 0x55, 0x1D, 0x0F};
  constexpr std::array<std::uint8_t, 4> kSignature{0x03, 0x02, 0x00, 0x00};

  const ByteVector validity = sequence({kNotBefore, parts.notAfter});
  const ByteVector keyUsage = sequence({kKeyUsageIdentifier, encoded(0x04, parts.keyUsage)});
  const ByteVector extensions = encoded(0xA3, sequence({keyUsage, parts.moreExtensions}));
  const ByteVector toBeSigned = sequence({kVersion3, parts.serialNumber, kEcdsaWithSha256, parts.issuer,
                                          validity, parts.subject, parts.publicKey, extensions});
  return sequence({toBeSigned, kEcdsaWithSha256, kSignature});
}

}  // namespace mirel
