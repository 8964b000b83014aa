#include "host/SoftwareKey.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <map>
#include <stdexcept>
#include <string>

#include "support/KeptKeys.h"
#include "token/TestCertificates.h"

namespace mirel::test {
namespace {

using ContextHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
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
  return testCertificate({.commonName = "Software", .keyUsage = keyUsage, .owner = key_.get()});
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
