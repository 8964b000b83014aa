// The input is parsed as a certificate and, because few mutations of a whole certificate get past its
// outer layers, also put into a good certificate in place of one of its parts. Every certificate that
// comes out must keep the promises of platform/Certificate.h.

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "CertificateParts.h"
#include "Check.h"
#include "Input.h"
#include "platform/Certificate.h"
#include "platform/CertificateFields.h"
#include "platform/KeyUsage.h"

namespace mirel {
namespace {

constexpr std::size_t kLargestInput = 0x8000;  // keeps all lengths below 65536

std::shared_ptr<SecCertificate> parse(ByteSpan der) {
  static const std::shared_ptr<CertificateParser> parser = systemCertificateParser();
  return parser->createWithData(Bytes{ByteVector(der.begin(), der.end())});
}

using X509Holder = std::unique_ptr<X509, decltype(&X509_free)>;

/// As OpenSSL reads it whole, its public key with it.
X509Holder parseAtOnce(ByteSpan der) {
  const unsigned char* next = der.data();
  X509Holder certificate{d2i_X509(nullptr, &next, static_cast<long>(der.size())), &X509_free};
  return next == der.data() + der.size() ? std::move(certificate) : X509Holder{nullptr, &X509_free};
}

void checkKey(const SecCertificate& certificate, ByteSpan der) {
  const int bits = certificate.keySizeInBits();
  check(bits >= 0, "a size is not negative");
  const X509Holder whole = parseAtOnce(der);
  // It cannot name an algorithm whose identifier has several hundred bytes.
  if (!whole) return;
  const EVP_PKEY* const key = X509_get0_pubkey(whole.get());
  check(bits == (key ? EVP_PKEY_get_bits(key) : 0), "a key has the size that it has when it is read at once");
  check(key || certificate.keyType() == CertificateKeyType::kOther, "a key that cannot be read has no type");
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
  checkKey(*certificate, der);
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
  CertificateParts parts;
  parts.keyUsage = input;
  const auto certificate = parseAndCheck(certificateOf(parts));
  check(certificate != nullptr, "an unreadable key usage does not spoil the certificate");
  if (input.size() < 0x80) {
    check(certificate->keyUsage() == expectedKeyUsage(input), "the key usage is the bit string's");
  }
}

void tryAsOtherParts(const ByteVector& input) {
  for (ByteSpan CertificateParts::*part :
       {&CertificateParts::notAfter, &CertificateParts::subject, &CertificateParts::publicKey}) {
    CertificateParts parts;
    parts.*part = input;
    const auto certificate = parseAndCheck(certificateOf(parts));
    if (certificate) check(certificate->keyUsage() == 1, "the other parts are what they were");
  }
}

}  // namespace

void fuzz::runTarget(fuzz::Input& input) {
  if (input.rest().size() > kLargestInput) return;
  const ByteVector all(input.rest().begin(), input.rest().end());
  (void)parseAndCheck(all);
  tryAsKeyUsage(all);
  tryAsOtherParts(all);
}

}  // namespace mirel
