#include "host/SoftwareKey.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <map>
#include <stdexcept>
#include <string>

#include "support/KeptKeys.h"

namespace mirel::test {
namespace {

using ContextHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using CertificateHolder = std::unique_ptr<X509, decltype(&X509_free)>;
using BitStringHolder = std::unique_ptr<ASN1_BIT_STRING, decltype(&ASN1_BIT_STRING_free)>;
using NumberHolder = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error{std::string{"OpenSSL fails in "} + what};
}

/// Prepares a use of the key with padding and hash.
ContextHolder contextFor(EVP_PKEY* key, int (*init)(EVP_PKEY_CTX*), int padding) {
  ContextHolder context{EVP_PKEY_CTX_new(key, nullptr), &EVP_PKEY_CTX_free};
  require(context && init(context.get()) == 1, "preparing an operation");
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA)
    require(EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) == 1, "setting the padding");
  return context;
}

void setSignatureHash(EVP_PKEY_CTX* context, const char* hash, int padding, int saltLen) {
  if (!hash) return;
  require(EVP_PKEY_CTX_set_signature_md(context, EVP_get_digestbyname(hash)) == 1, "setting the hash");
  if (padding == RSA_PKCS1_PSS_PADDING)
    require(EVP_PKEY_CTX_set_rsa_pss_saltlen(context, saltLen) == 1, "setting the length of the salt");
}

void addKeyUsage(X509* certificate, unsigned keyUsage) {
  const BitStringHolder bits{ASN1_BIT_STRING_new(), &ASN1_BIT_STRING_free};
  for (int bit = 0; bit < 9; ++bit) {
    if ((keyUsage & (1U << static_cast<unsigned>(bit))) != 0)
      require(ASN1_BIT_STRING_set_bit(bits.get(), bit, 1) == 1, "setting a bit");
  }
  require(X509_add1_ext_i2d(certificate, NID_key_usage, bits.get(), 1, X509V3_ADD_DEFAULT) == 1,
          "adding the key usage");
}

}  // namespace

SoftwareKey::SoftwareKey(EVP_PKEY* key) : key_{key, &EVP_PKEY_free} {
  require(key != nullptr, "making a key");
}

const SoftwareKey& SoftwareKey::rsa(unsigned bits, const char* name) {
  static std::map<std::pair<unsigned, std::string>, SoftwareKey> keys;
  const auto found = keys.find({bits, name});
  return found != keys.end() ? found->second
                             : keys.emplace(std::pair{bits, name}, keptRsaKey(bits, name)).first->second;
}

const SoftwareKey& SoftwareKey::ec(const char* curve) {
  static std::map<std::string, SoftwareKey> keys;
  const auto found = keys.find(curve);
  return found != keys.end() ? found->second : keys.emplace(curve, EVP_EC_gen(curve)).first->second;
}

int SoftwareKey::bits() const { return EVP_PKEY_get_bits(key_.get()); }

std::size_t SoftwareKey::blockSize() const { return static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())); }

Value SoftwareKey::modulus() const {
  BIGNUM* number = nullptr;
  require(EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_RSA_N, &number) == 1, "reading the modulus");
  const NumberHolder holder{number, &BN_free};
  Value bytes(static_cast<std::size_t>(BN_num_bytes(number)));
  (void)BN_bn2bin(number, bytes.data());
  return bytes;
}

Value SoftwareKey::certificate(std::optional<unsigned> keyUsage) const {
  const CertificateHolder holder{X509_new(), &X509_free};
  X509* const made = holder.get();
  X509_NAME* const name = X509_get_subject_name(made);
  constexpr unsigned char kName[] = "Software";
  require(X509_set_version(made, X509_VERSION_3) == 1 && X509_set_pubkey(made, key_.get()) == 1 &&
              ASN1_INTEGER_set(X509_get_serialNumber(made), 7) == 1 &&
              ASN1_TIME_set_string(X509_getm_notBefore(made), "20200101000000Z") == 1 &&
              ASN1_TIME_set_string(X509_getm_notAfter(made), "20400101000000Z") == 1 &&
              X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, kName, -1, -1, 0) == 1 &&
              X509_set_issuer_name(made, name) == 1,
          "filling a certificate");
  if (keyUsage) addKeyUsage(made, *keyUsage);
  require(X509_sign(made, key_.get(), EVP_sha256()) > 0, "signing a certificate");
  Value der(static_cast<std::size_t>(i2d_X509(made, nullptr)));
  unsigned char* next = der.data();
  require(i2d_X509(made, &next) > 0, "encoding a certificate");
  return der;
}

Value SoftwareKey::rawPrivate(const Value& block) const {
  const auto context = contextFor(key_.get(), &EVP_PKEY_decrypt_init, RSA_NO_PADDING);
  Value result(blockSize());
  std::size_t size = result.size();
  if (EVP_PKEY_decrypt(context.get(), result.data(), &size, block.data(), block.size()) != 1) {
    ERR_clear_error();
    return {};
  }
  result.resize(size);
  return result;
}

Value SoftwareKey::signature(const Value& digest, const char* hash, int padding, int saltLen) const {
  const auto context = contextFor(key_.get(), &EVP_PKEY_sign_init, padding);
  setSignatureHash(context.get(), hash, padding, saltLen);
  Value made(static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())));
  std::size_t size = made.size();
  require(EVP_PKEY_sign(context.get(), made.data(), &size, digest.data(), digest.size()) == 1, "signing");
  made.resize(size);
  return made;
}

bool SoftwareKey::verifies(const Value& signature, const Value& digest, const char* hash, int padding,
                           int saltLen) const {
  const auto context = contextFor(key_.get(), &EVP_PKEY_verify_init, padding);
  setSignatureHash(context.get(), hash, padding, saltLen);
  const bool good =
      EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1;
  ERR_clear_error();
  return good;
}

Value SoftwareKey::encrypted(const Value& plain, int padding, const char* hash) const {
  const auto context = contextFor(key_.get(), &EVP_PKEY_encrypt_init, padding);
  if (hash) {
    require(EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_get_digestbyname(hash)) == 1 &&
                EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), EVP_get_digestbyname(hash)) == 1,
            "setting the hash");
  }
  Value cipher(blockSize());
  std::size_t size = cipher.size();
  // A null pointer is not taken for an empty text.
  const Value text = plain.empty() ? Value{0} : plain;
  require(EVP_PKEY_encrypt(context.get(), cipher.data(), &size, text.data(), plain.size()) == 1,
          "encrypting");
  cipher.resize(size);
  return cipher;
}

Value softwareDigest(const char* hash, const Value& data) {
  Value digest(EVP_MAX_MD_SIZE);
  std::size_t size = 0;
  require(EVP_Q_digest(nullptr, hash, nullptr, data.data(), data.size(), digest.data(), &size) == 1,
          "computing a digest");
  digest.resize(size);
  return digest;
}

}  // namespace mirel::test
