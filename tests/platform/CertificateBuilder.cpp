#include "CertificateBuilder.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <map>
#include <stdexcept>
#include <string>

#include "support/KeptKeys.h"

namespace mirel {
namespace {

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error{what};
}

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

NameHolder makeName(const std::vector<NameEntry>& entries) {
  NameHolder name{X509_NAME_new()};
  for (const NameEntry& entry : entries) {
    require(X509_NAME_add_entry_by_txt(name.get(), entry.type.c_str(), entry.encoding, bytesOf(entry.value),
                                       static_cast<int>(entry.value.size()), -1,
                                       entry.withPrevious ? -1 : 0) == 1,
            "a name entry was refused");
  }
  return name;
}

void setTime(ASN1_TIME* time, int type, const std::string& text) {
  time->type = type;  // The text is taken unchecked: it may be no time at all.
  require(ASN1_STRING_set(time, text.data(), static_cast<int>(text.size())) == 1, "a time was refused");
}

void setSerialNumber(X509* certificate, const std::string& digits) {
  BIGNUM* number = nullptr;
  const bool isSet = BN_hex2bn(&number, digits.c_str()) > 0 &&
                     BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate)) != nullptr;
  BN_free(number);
  require(isSet, "a serial number was refused");
}

void addExtension(X509* certificate, const char* type, int critical, const ByteVector& content) {
  ASN1_OBJECT* object = OBJ_txt2obj(type, 0);
  ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(value, content.data(), static_cast<int>(content.size()));
  X509_EXTENSION* extension = X509_EXTENSION_create_by_OBJ(nullptr, object, critical, value);
  const bool added = X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  ASN1_OCTET_STRING_free(value);
  ASN1_OBJECT_free(object);
  require(added, "an extension was refused");
}

}  // namespace

ByteVector joinedBytes(std::initializer_list<ByteVector> parts) {
  ByteVector all;
  for (const ByteVector& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

ByteVector value(std::uint8_t tag, std::initializer_list<ByteVector> parts) {
  const ByteVector content = joinedBytes(parts);
  ByteVector der{tag};
  if (content.size() >= 0x100) {
    der.insert(der.end(), {0x82, static_cast<std::uint8_t>(content.size() >> 8U)});
  } else if (content.size() >= 0x80) {
    der.push_back(0x81);
  }
  der.push_back(static_cast<std::uint8_t>(content.size()));
  return joinedBytes({der, content});
}

ByteVector keyUsageOf(unsigned bits) {
  ByteVector content{0x03, 0x01, 0x00};
  for (unsigned bit = 0; bits >> bit != 0; ++bit) {
    if (bit % 8 == 0) content.push_back(0);
    if ((bits >> bit & 1U) != 0)
      content.back() = static_cast<std::uint8_t>(content.back() | 0x80U >> bit % 8);
    content[2] = static_cast<std::uint8_t>(7 - bit % 8);
  }
  content[1] = static_cast<std::uint8_t>(content.size() - 2);
  return content;
}

ByteVector makeCertificate(const CertificateWish& wish) {
  static const KeyHolder ownSigner = makeEcKey("P-256");
  EVP_PKEY* const signer = wish.signer ? wish.signer : ownSigner.get();
  const std::unique_ptr<X509, OpenSslFree> certificate{X509_new()};
  const NameHolder issuer = makeName(wish.issuer);
  const NameHolder subject = makeName(wish.subject);
  require(X509_set_version(certificate.get(), X509_VERSION_3) == 1, "version");
  setSerialNumber(certificate.get(), wish.serialNumber);
  require(X509_set_issuer_name(certificate.get(), issuer.get()) == 1, "issuer");
  require(X509_set_subject_name(certificate.get(), subject.get()) == 1, "subject");
  setTime(X509_getm_notBefore(certificate.get()), V_ASN1_UTCTIME, wish.notBefore);
  setTime(X509_getm_notAfter(certificate.get()), wish.notAfterType, wish.notAfter);
  require(X509_set_pubkey(certificate.get(), wish.key ? wish.key : signer) == 1, "key");
  for (const ByteVector& content : wish.keyUsages) addExtension(certificate.get(), "keyUsage", 1, content);
  for (const auto& [type, text] : wish.extensions) {
    X509_EXTENSION* extension = X509V3_EXT_nconf_nid(nullptr, nullptr, type, text);
    const bool added = extension && X509_add_ext(certificate.get(), extension, -1) == 1;
    X509_EXTENSION_free(extension);
    if (!added) throw std::runtime_error{std::string{"no such "} + OBJ_nid2sn(type) + ": " + text};
  }
  // From the arc that is kept for examples (ITU-T X.660): nobody knows an extension of this name.
  if (wish.padding > 0) addExtension(certificate.get(), "2.999.1", 0, ByteVector(wish.padding, 0x55));
  // Ed25519 has its digest built in (RFC 8410).
  const EVP_MD* const digest = EVP_PKEY_is_a(signer, "ED25519") == 1 ? nullptr : EVP_sha256();
  require(X509_sign(certificate.get(), signer, digest) > 0, "signature");

  ByteVector der(static_cast<std::size_t>(i2d_X509(certificate.get(), nullptr)));
  unsigned char* next = der.data();
  require(i2d_X509(certificate.get(), &next) == static_cast<int>(der.size()), "encoding");
  return der;
}

std::vector<std::pair<const char*, ByteVector>> noCertificates() {
  return {{"nothing", {}},
          {"one NUL", {0x00}},
          {"NULs", ByteVector(300, 0x00)},
          {"all-ones", ByteVector(300, 0xFF)},
          {"a text", {'n', 'o', ' ', 'c', 'e', 'r', 't'}},
          {"a tag alone", {0x30}},
          {"an empty SEQUENCE", {0x30, 0x00}}};
}

KeyHolder makeRsaKey(unsigned int bits) {
  static std::map<unsigned int, int> numMade;
  KeyHolder key{test::keptRsaKey(bits, "builder-" + std::to_string(numMade[bits]++))};
  require(key != nullptr, "no RSA key");
  return key;
}

KeyHolder makeRsaPssKey(int bits) {
  const std::unique_ptr<EVP_PKEY_CTX, OpenSslFree> context{
      EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr)};
  require(context && EVP_PKEY_keygen_init(context.get()) == 1, "no RSA-PSS");
  require(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) == 1, "no such size");
  EVP_PKEY* key = nullptr;
  require(EVP_PKEY_generate(context.get(), &key) == 1, "no RSA-PSS key");
  return KeyHolder{key};
}

KeyHolder makeEcKey(const char* curve) {
  KeyHolder key{EVP_EC_gen(curve)};
  require(key != nullptr, curve);
  return key;
}

KeyHolder makeKey(const char* algorithm) {
  KeyHolder key{EVP_PKEY_Q_keygen(nullptr, nullptr, algorithm)};
  require(key != nullptr, algorithm);
  return key;
}

}  // namespace mirel
