#include "Objects.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "Certificates.h"

namespace mirel::cardmaker {
namespace {

// What the standard has beyond bridge/cryptoki.h.
constexpr CK_ATTRIBUTE_TYPE CKA_PRIME_1 = 0x124;
constexpr CK_ATTRIBUTE_TYPE CKA_PRIME_2 = 0x125;
constexpr CK_ATTRIBUTE_TYPE CKA_EXPONENT_1 = 0x126;
constexpr CK_ATTRIBUTE_TYPE CKA_EXPONENT_2 = 0x127;
constexpr CK_ATTRIBUTE_TYPE CKA_COEFFICIENT = 0x128;

struct FreeNumber {
  void operator()(BIGNUM* number) const noexcept { BN_clear_free(number); }
};
using Number = std::unique_ptr<BIGNUM, FreeNumber>;

/// A part of a key, as many bytes as it takes or at least `size`.
std::string numberOf(EVP_PKEY* key, const char* name, int size = 0) {
  BIGNUM* found = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &found) != 1)
    throw std::runtime_error{std::string{"the key has no "} + name};
  const Number number{found};
  std::string bytes(static_cast<std::size_t>(std::max(BN_num_bytes(found), size)), '\0');
  (void)BN_bn2binpad(found, reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  return bytes;
}

/// DER of an OCTET STRING of up to 255 bytes (X.690, section 8.7).
std::string octetString(const std::string& content) {
  std::string der{'\x04'};
  if (content.size() > 0x7F) der.push_back('\x81');
  der.push_back(static_cast<char>(content.size()));
  return der + content;
}

std::string pointOf(EVP_PKEY* key) {
  std::array<unsigned char, 256> point{};
  std::size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size(), &length) != 1)
    throw std::runtime_error{"the key has no point"};
  return octetString({reinterpret_cast<const char*>(point.data()), length});
}

/// The object identifier of the curve, as DER.
std::string curveOf(EVP_PKEY* key) {
  std::array<char, 64> name{};
  (void)EVP_PKEY_get_group_name(key, name.data(), name.size(), nullptr);
  unsigned char* der = nullptr;
  const int length = i2d_ASN1_OBJECT(OBJ_nid2obj(OBJ_txt2nid(name.data())), &der);
  if (length <= 0) throw std::runtime_error{"the key has no curve"};
  std::string bytes{reinterpret_cast<const char*>(der), static_cast<std::size_t>(length)};
  OPENSSL_free(der);
  return bytes;
}

void describe(const Line& line, CK_OBJECT_CLASS objectClass, Template& out) {
  out.addNumber(CKA_CLASS, objectClass);
  out.addBool(CKA_TOKEN, true);
  out.addBool(CKA_PRIVATE, objectClass == CKO_PRIVATE_KEY);
  if (const auto id = line.bytes("id")) out.add(CKA_ID, *id);
  if (const auto label = line.bytes("label")) out.add(CKA_LABEL, *label);
}

void describePublicKey(EVP_PKEY* key, Template& out) {
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
    out.addNumber(CKA_KEY_TYPE, CKK_RSA);
    out.add(CKA_MODULUS, numberOf(key, OSSL_PKEY_PARAM_RSA_N));
    out.add(CKA_PUBLIC_EXPONENT, numberOf(key, OSSL_PKEY_PARAM_RSA_E));
    return;
  }
  out.addNumber(CKA_KEY_TYPE, CKK_EC);
  out.add(CKA_EC_PARAMS, curveOf(key));
  out.add(CKA_EC_POINT, pointOf(key));
}

void describePrivateKey(const Line& line, EVP_PKEY* key, Template& out) {
  const std::vector<std::string> allowed = line.list("allow");
  const auto allows = [&](const char* name) {
    return std::find(allowed.begin(), allowed.end(), name) != allowed.end();
  };
  out.addBool(CKA_SENSITIVE, true);
  out.addBool(CKA_EXTRACTABLE, false);
  out.addBool(CKA_SIGN, allows("sign"));
  out.addBool(CKA_DECRYPT, allows("decrypt"));
  out.addBool(CKA_DERIVE, allows("derive"));
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
    out.addNumber(CKA_KEY_TYPE, CKK_RSA);
    out.add(CKA_MODULUS, numberOf(key, OSSL_PKEY_PARAM_RSA_N));
    out.add(CKA_PUBLIC_EXPONENT, numberOf(key, OSSL_PKEY_PARAM_RSA_E));
    out.add(CKA_PRIVATE_EXPONENT, numberOf(key, OSSL_PKEY_PARAM_RSA_D));
    out.add(CKA_PRIME_1, numberOf(key, OSSL_PKEY_PARAM_RSA_FACTOR1));
    out.add(CKA_PRIME_2, numberOf(key, OSSL_PKEY_PARAM_RSA_FACTOR2));
    out.add(CKA_EXPONENT_1, numberOf(key, OSSL_PKEY_PARAM_RSA_EXPONENT1));
    out.add(CKA_EXPONENT_2, numberOf(key, OSSL_PKEY_PARAM_RSA_EXPONENT2));
    out.add(CKA_COEFFICIENT, numberOf(key, OSSL_PKEY_PARAM_RSA_COEFFICIENT1));
    return;
  }
  out.addNumber(CKA_KEY_TYPE, CKK_EC);
  out.add(CKA_EC_PARAMS, curveOf(key));
  out.add(CKA_VALUE, numberOf(key, OSSL_PKEY_PARAM_PRIV_KEY, (EVP_PKEY_get_bits(key) + 7) / 8));
}

}  // namespace

void describeObject(const Line& line, KeyStore& keys, Template& outAttributes) {
  if (line.what() == "certificate") {
    describe(line, CKO_CERTIFICATE, outAttributes);
    describeCertificate(line, keys, outAttributes);
    return;
  }
  EVP_PKEY* key = keys.pair(line.requiredBytes("type"));
  if (line.what() == "public") {
    describe(line, CKO_PUBLIC_KEY, outAttributes);
    describePublicKey(key, outAttributes);
  } else {
    describe(line, CKO_PRIVATE_KEY, outAttributes);
    describePrivateKey(line, key, outAttributes);
  }
}

}  // namespace mirel::cardmaker
