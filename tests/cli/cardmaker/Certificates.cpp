#include "Certificates.h"

#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

namespace mirel::cardmaker {
namespace {

template <auto Free>
struct Freer {
  template <typename T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};
using X509Holder = std::unique_ptr<X509, Freer<&X509_free>>;
using ExtensionHolder = std::unique_ptr<X509_EXTENSION, Freer<&X509_EXTENSION_free>>;
using OctetStringHolder = std::unique_ptr<ASN1_OCTET_STRING, Freer<&ASN1_OCTET_STRING_free>>;
using ObjectHolder = std::unique_ptr<ASN1_OBJECT, Freer<&ASN1_OBJECT_free>>;

constexpr long kSerialNumber = 4711;
constexpr const char* kNotBefore = "20200101000000Z";
constexpr const char* kIssuer = "Test issuer";
constexpr const char* kIssuerKey = "rsa2048";
constexpr const char* kDefaultSubject = "Card holder";
constexpr const char* kDefaultNotAfter = "20491231235959Z";

/// Below the enterprise number that is set aside for examples (RFC 5612).
constexpr const char* kPaddingOid = "1.3.6.1.4.1.32473.1";

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error{std::string{"OpenSSL does not "} + what};
}

template <auto Encode, typename T>
std::string derOf(const T* object) {
  unsigned char* der = nullptr;
  const int length = Encode(object, &der);
  require(length > 0, "encode");
  std::string bytes{reinterpret_cast<const char*>(der), static_cast<std::size_t>(length)};
  OPENSSL_free(der);
  return bytes;
}

void setCommonName(X509_NAME* name, const std::string& text) {
  require(X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()), -1, 0) == 1,
          "take the name");
}

void addKeyUsage(X509* certificate, const std::vector<std::string>& names) {
  if (names.empty()) return;
  std::string value = "critical";
  for (const std::string& name : names) value += "," + name;
  const ExtensionHolder extension{X509V3_EXT_conf_nid(nullptr, nullptr, NID_key_usage, value.c_str())};
  if (!extension) throw std::invalid_argument{"no such key usage: " + value};
  require(X509_add_ext(certificate, extension.get(), -1) == 1, "add the key usage");
}

void addPadding(X509* certificate, std::size_t length) {
  if (length == 0) return;
  const std::string zeros(length, '\0');
  const OctetStringHolder value{ASN1_OCTET_STRING_new()};
  const ObjectHolder oid{OBJ_txt2obj(kPaddingOid, 1)};
  require(value && oid &&
              ASN1_OCTET_STRING_set(value.get(), reinterpret_cast<const unsigned char*>(zeros.data()),
                                    static_cast<int>(length)) == 1,
          "make the padding");
  const ExtensionHolder extension{X509_EXTENSION_create_by_OBJ(nullptr, oid.get(), 0, value.get())};
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "add the padding");
}

X509Holder signedCertificate(const Line& line, KeyStore& keys, std::size_t padding) {
  const std::string notAfter = line.bytes("notafter").value_or(kDefaultNotAfter);
  X509Holder certificate{X509_new()};
  X509* x509 = certificate.get();
  require(x509 && X509_set_version(x509, X509_VERSION_3) == 1, "make a certificate");
  require(ASN1_INTEGER_set(X509_get_serialNumber(x509), kSerialNumber) == 1, "take the serial number");
  require(ASN1_TIME_set_string_X509(X509_getm_notBefore(x509), kNotBefore) == 1, "take the date");
  if (ASN1_TIME_set_string_X509(X509_getm_notAfter(x509), notAfter.c_str()) != 1)
    throw std::invalid_argument{"no such date: " + notAfter};
  setCommonName(X509_get_subject_name(x509), line.bytes("subject").value_or(kDefaultSubject));
  setCommonName(X509_get_issuer_name(x509), kIssuer);
  require(X509_set_pubkey(x509, keys.pair(line.requiredBytes("type"))) == 1, "take the public key");
  addKeyUsage(x509, line.list("usage"));
  addPadding(x509, padding);
  require(X509_sign(x509, keys.pair(kIssuerKey), EVP_sha256()) > 0, "sign");
  return certificate;
}

/// An RSA signature is as long as its key, so only the padding decides the size.
std::size_t paddingFor(const Line& line, KeyStore& keys, std::size_t wanted) {
  constexpr int kTries = 6;  // the lengths of lengths settle sooner
  std::size_t padding = 1;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    const std::size_t size = derOf<&i2d_X509>(signedCertificate(line, keys, padding).get()).size();
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
  const X509Holder certificate = signedCertificate(line, keys, size ? paddingFor(line, keys, *size) : 0);
  out.add(CKA_SUBJECT, derOf<&i2d_X509_NAME>(X509_get_subject_name(certificate.get())));
  out.add(CKA_ISSUER, derOf<&i2d_X509_NAME>(X509_get_issuer_name(certificate.get())));
  out.add(CKA_SERIAL_NUMBER, derOf<&i2d_ASN1_INTEGER>(X509_get0_serialNumber(certificate.get())));
  out.add(CKA_VALUE, derOf<&i2d_X509>(certificate.get()));
}

}  // namespace mirel::cardmaker
