#include "token/TestCertificates.h"

#include <openssl/asn1.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "support/KeptKeys.h"

namespace mirel::test {
namespace {

constexpr unsigned kRsaBits = 2048;
constexpr int kKeyUsageBits = 9;

template <typename T>
using Holder = std::unique_ptr<T, void (*)(T*)>;
using KeyHolder = Holder<EVP_PKEY>;

void mustSucceed(bool succeeded, const char* what) {
  if (!succeeded) throw std::runtime_error{std::string{"OpenSSL fails: "} + what};
}

KeyHolder made(EVP_PKEY* key) {
  mustSucceed(key != nullptr, "making a key");
  return {key, &EVP_PKEY_free};
}

EVP_PKEY* keyOf(TestKey kind) {
  switch (kind) {
    case TestKey::kRsa2048: {
      static const KeyHolder key = made(keptRsaKey(kRsaBits, "certificates"));
      return key.get();
    }
    case TestKey::kEd25519: {
      static const KeyHolder key = made(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
      return key.get();
    }
    case TestKey::kP256: break;
  }
  static const KeyHolder key = made(EVP_EC_gen("P-256"));
  return key.get();
}

void addKeyUsage(X509* certificate, unsigned usage) {
  const Holder<ASN1_BIT_STRING> bits{ASN1_BIT_STRING_new(), &ASN1_BIT_STRING_free};
  mustSucceed(bits != nullptr, "making a bit string");
  for (int bit = 0; bit < kKeyUsageBits; ++bit) {
    if ((usage >> static_cast<unsigned>(bit) & 1U) == 0) continue;
    mustSucceed(ASN1_BIT_STRING_set_bit(bits.get(), bit, 1) == 1, "setting a bit");
  }
  constexpr int kCritical = 1;
  mustSucceed(X509_add1_ext_i2d(certificate, NID_key_usage, bits.get(), kCritical, 0) == 1,
              "adding the key usage");
}

void addPadding(X509* certificate, std::size_t size) {
  const Value content(size, 0x55);
  const Holder<ASN1_OCTET_STRING> octets{ASN1_OCTET_STRING_new(), &ASN1_OCTET_STRING_free};
  // From the arc that is kept for examples (ITU-T X.660): nobody knows an extension of this name.
  const Holder<ASN1_OBJECT> name{OBJ_txt2obj("2.999.1", 1), &ASN1_OBJECT_free};
  mustSucceed(octets && name, "making an extension");
  mustSucceed(ASN1_OCTET_STRING_set(octets.get(), content.data(), static_cast<int>(size)) == 1,
              "filling an extension");
  const Holder<X509_EXTENSION> extension{X509_EXTENSION_create_by_OBJ(nullptr, name.get(), 0, octets.get()),
                                         &X509_EXTENSION_free};
  mustSucceed(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "adding an extension");
}

void setName(X509* certificate, const std::string& commonName) {
  X509_NAME* const name = X509_get_subject_name(certificate);
  const auto* const text = reinterpret_cast<const unsigned char*>(commonName.data());
  mustSucceed(X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_UTF8, text,
                                         static_cast<int>(commonName.size()), -1, 0) == 1,
              "setting the name");
  mustSucceed(X509_set_issuer_name(certificate, name) == 1, "setting the issuer");
}

}  // namespace

Value testCertificate(const CertificateRequest& request) {
  EVP_PKEY* const key = keyOf(request.key);
  const Holder<X509> certificate{X509_new(), &X509_free};
  mustSucceed(certificate != nullptr, "making a certificate");
  constexpr long kVersion3 = 2;
  mustSucceed(X509_set_version(certificate.get(), kVersion3) == 1, "setting the version");
  mustSucceed(ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) == 1, "setting the number");
  mustSucceed(ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate.get()), "20200101000000Z") == 1 &&
                  ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate.get()), "20350102030405Z") == 1,
              "setting the validity");
  setName(certificate.get(), request.commonName);
  mustSucceed(X509_set_pubkey(certificate.get(), key) == 1, "setting the key");
  if (request.keyUsage) addKeyUsage(certificate.get(), *request.keyUsage);
  if (request.padding > 0) addPadding(certificate.get(), request.padding);
  // Ed25519 has its digest built in (RFC 8410).
  const EVP_MD* const digest = request.key == TestKey::kEd25519 ? nullptr : EVP_sha256();
  mustSucceed(X509_sign(certificate.get(), key, digest) > 0, "signing");

  const int size = i2d_X509(certificate.get(), nullptr);
  mustSucceed(size > 0, "measuring the encoding");
  Value der(static_cast<std::size_t>(size));
  unsigned char* next = der.data();
  mustSucceed(i2d_X509(certificate.get(), &next) == size, "encoding");
  return der;
}

}  // namespace mirel::test
