// The input is parsed as a certificate and, because few mutations of a whole certificate get past its
// outer layers, also put into a good certificate in place of one of its parts. Every certificate that
// comes out must keep the promises of platform/Certificate.h.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "Check.h"
#include "platform/Certificate.h"
#include "platform/CertificateFields.h"
#include "platform/KeyUsage.h"

namespace mirel {
namespace {

using ByteVector = std::vector<std::uint8_t>;
using ByteSpan = std::span<const std::uint8_t>;

constexpr std::size_t kLargestInput = 0x8000;  // keeps all lengths below 65536

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

constexpr std::array<std::uint8_t, 15> kNotAfter{0x17, 0x0D, '3', '0', '1', '2', '3', '1',
                                                 '2',  '3',  '5', '9', '5', '9', 'Z'};
constexpr std::array<std::uint8_t, 2> kSubject{0x30, 0x00};
/// rsaEncryption with a modulus of one byte and the exponent 3
constexpr std::array<std::uint8_t, 28> kPublicKey{0x30, 0x1A, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                  0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00, 0x03, 0x09, 0x00,
                                                  0x30, 0x06, 0x02, 0x01, 0x7F, 0x02, 0x01, 0x03};
constexpr std::array<std::uint8_t, 4> kKeyUsage{0x03, 0x02, 0x07, 0x80};

/// The parts of a certificate (RFC 5280, section 4.1) that an input can take the place of, each with
/// its own tag and length.
struct Parts {
  ByteSpan notAfter{kNotAfter};
  ByteSpan subject{kSubject};
  ByteSpan publicKey{kPublicKey};
  ByteSpan keyUsage{kKeyUsage};
};

/// A certificate made of the parts. Its signature is nonsense, which nobody looks at.
ByteVector certificateOf(const Parts& parts) {
  constexpr std::array<std::uint8_t, 5> kVersion3{0xA0, 0x03, 0x02, 0x01, 0x02};
  constexpr std::array<std::uint8_t, 3> kSerialNumber{0x02, 0x01, 0x07};
  constexpr std::array<std::uint8_t, 12> kEcdsaWithSha256{0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86,
                                                          0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
  constexpr std::array<std::uint8_t, 2> kIssuer{0x30, 0x00};
  constexpr std::array<std::uint8_t, 15> kNotBefore{0x17, 0x0D, '2', '0', '0', '1', '0', '1',
                                                    '0',  '0',  '0', '0', '0', '0', 'Z'};
  constexpr std::array<std::uint8_t, 5> kKeyUsageIdentifier{0x06, 0x03, 0x55, 0x1D, 0x0F};
  constexpr std::array<std::uint8_t, 4> kSignature{0x03, 0x02, 0x00, 0x00};

  const ByteVector validity = sequence({kNotBefore, parts.notAfter});
  const ByteVector keyUsage = sequence({kKeyUsageIdentifier, encoded(0x04, parts.keyUsage)});
  const ByteVector extensions = encoded(0xA3, sequence({keyUsage}));
  const ByteVector toBeSigned = sequence({kVersion3, kSerialNumber, kEcdsaWithSha256, kIssuer, validity,
                                          parts.subject, parts.publicKey, extensions});
  return sequence({toBeSigned, kEcdsaWithSha256, kSignature});
}

std::shared_ptr<SecCertificate> parse(ByteSpan der) {
  static const std::shared_ptr<CertificateParser> parser = systemCertificateParser();
  return parser->createWithData(Bytes{ByteVector(der.begin(), der.end())});
}

void checkKey(const SecCertificate& certificate) {
  const int bits = certificate.keySizeInBits();
  check(bits >= 0, "a size is not negative");
  if (certificate.keyType() != CertificateKeyType::kECPrimeRandom) return;
  check(bits == 192 || bits == 224 || bits == 256 || bits == 384 || bits == 521, "a curve has its size");
}

/// Parses, and checks what a certificate says of itself. Null when there is none.
std::shared_ptr<SecCertificate> parseAndCheck(ByteSpan der) {
  auto certificate = parse(der);
  if (!certificate) return nullptr;
  check(certificate->data() == Bytes{ByteVector(der.begin(), der.end())}, "the encoding is kept");
  const std::int32_t usage = certificate->keyUsage().value_or(0);
  check(usage >= 0 && usage <= 0x1FF, "a key usage has nine bits");
  check(!certificate->subject().isNull(), "there is a subject");
  const Text notAfter = certificate->notAfter();
  check(notAfter.isNull() || notAfter.length() == 20, "a time has twenty characters");
  checkKey(*certificate);
  const auto fields = fieldsOfCertificate(der);
  check(!fields || fields->notAfter.isNull() || fields->notAfter.length() == 20, "so has ours");

  ByteVector longer(der.begin(), der.end());
  longer.push_back(0);
  check(!parse(longer), "a byte behind the certificate is refused");
  check(!keyUsageOfCertificate(longer), "nor is its key usage read");
  check(!parse(der.first(der.size() - 1)), "a certificate that is cut short is refused");
  return certificate;
}

/// The same as the platform's reading, written as plainly as can be: the extension is one BIT STRING
/// with a length of one byte (a longer one is beyond what the inputs here are for).
std::optional<std::int32_t> expectedKeyUsage(ByteSpan extension) {
  if (extension.size() < 3 || extension[0] != 0x03 || extension[1] != extension.size() - 2) return {};
  const std::size_t unused = extension[2];
  const ByteSpan bits = extension.subspan(3);
  if (unused > 7 || (bits.empty() && unused != 0)) return {};
  const std::size_t count = bits.size() * 8 - unused;
  std::int32_t usage = 0;
  for (std::size_t i = 0; i < count && i < 9; ++i) {
    if (((bits[i / 8] << (i % 8)) & 0x80) != 0) usage |= 1 << i;
  }
  return usage;
}

void tryAsKeyUsage(const ByteVector& input) {
  Parts parts;
  parts.keyUsage = input;
  const auto certificate = parseAndCheck(certificateOf(parts));
  check(certificate != nullptr, "an unreadable key usage does not spoil the certificate");
  if (input.size() < 0x80) {
    check(certificate->keyUsage() == expectedKeyUsage(input), "the key usage is the bit string's");
  }
}

void tryAsOtherParts(const ByteVector& input) {
  for (ByteSpan Parts::*part : {&Parts::notAfter, &Parts::subject, &Parts::publicKey}) {
    Parts parts;
    parts.*part = input;
    const auto certificate = parseAndCheck(certificateOf(parts));
    if (certificate) check(certificate->keyUsage() == 1, "the other parts are what they were");
  }
}

}  // namespace
}  // namespace mirel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > mirel::kLargestInput) return 0;
  const mirel::ByteVector input(data, data + size);
  (void)mirel::parseAndCheck(input);
  mirel::tryAsKeyUsage(input);
  mirel::tryAsOtherParts(input);
  return 0;
}
