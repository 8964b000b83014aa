#include "Certificates.h"

#include <openssl/objects.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

#include "platform/CertificateBuilder.h"

namespace mirel::cardmaker {
namespace {

constexpr const char* kIssuerKey = "rsa2048";

template <auto Encode, typename T>
std::string derOf(const T* object) {
  unsigned char* der = nullptr;
  const int length = Encode(object, &der);
  if (length <= 0) throw std::runtime_error{"OpenSSL does not encode"};
  std::string bytes{reinterpret_cast<const char*>(der), static_cast<std::size_t>(length)};
  OPENSSL_free(der);
  return bytes;
}

ByteVector signedCertificate(const Line& line, KeyStore& keys, std::size_t padding) {
  const std::string notAfter = line.bytes("notafter").value_or("20491231235959Z");
  // The builder would take it unchecked. A time of UTCTime, which is shorter, has no century.
  if (notAfter.size() != 15 || ASN1_TIME_set_string_X509(nullptr, notAfter.c_str()) != 1)
    throw std::invalid_argument{"no such date: " + notAfter};
  const bool hasShortYear = notAfter < "2050";  // RFC 5280, section 4.1.2.5
  std::string usage = "critical";
  for (const std::string& name : line.list("usage")) usage += "," + name;
  CertificateWish wish{
      .key = keys.pair(line.requiredBytes("type")),
      .signer = keys.pair(kIssuerKey),
      .serialNumber = "1267",
      .issuer = {{"CN", MBSTRING_UTF8, "Test issuer"}},
      .subject = {{"CN", MBSTRING_UTF8, line.bytes("subject").value_or("Card holder")}},
      .notAfterType = hasShortYear ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME,
      .notAfter = hasShortYear ? notAfter.substr(2) : notAfter,
      .padding = padding,
  };
  if (!line.list("usage").empty()) wish.extensions.emplace_back(NID_key_usage, usage.c_str());
  return makeCertificate(wish);
}

/// An RSA signature is as long as its key, so only the padding decides the size.
std::size_t paddingFor(const Line& line, KeyStore& keys, std::size_t wanted) {
  constexpr int kTries = 6;  // the lengths of lengths settle sooner
  std::size_t padding = 1;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    const std::size_t size = signedCertificate(line, keys, padding).size();
    if (size == wanted) return padding;
    if (size > padding + wanted) break;
    padding = padding + wanted - size;
  }
  throw std::runtime_error{"no padding gives a certificate of " + std::to_string(wanted) + " bytes"};
}

}  // namespace

void describeCertificate(const Line& line, KeyStore& keys, Template& out) {
  out.addNumber(CKA_CERTIFICATE_TYPE, CKC_X_509);
  if (const auto value = line.bytes("value")) {
    out.add(CKA_SUBJECT, "");
    out.add(CKA_VALUE, *value);
    return;
  }
  const auto size = line.number("size");
  const ByteVector der = signedCertificate(line, keys, size ? paddingFor(line, keys, *size) : 0);
  const unsigned char* next = der.data();
  const std::unique_ptr<X509, OpenSslFree> certificate{
      d2i_X509(nullptr, &next, static_cast<long>(der.size()))};
  out.add(CKA_SUBJECT, derOf<&i2d_X509_NAME>(X509_get_subject_name(certificate.get())));
  out.add(CKA_ISSUER, derOf<&i2d_X509_NAME>(X509_get_issuer_name(certificate.get())));
  out.add(CKA_SERIAL_NUMBER, derOf<&i2d_ASN1_INTEGER>(X509_get0_serialNumber(certificate.get())));
  out.add(CKA_VALUE, std::string{der.begin(), der.end()});
}

}  // namespace mirel::cardmaker
