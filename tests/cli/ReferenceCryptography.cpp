#include "ReferenceCryptography.h"

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace mirel::test {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error{std::string{"OpenSSL does not "} + what};
}

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

Key pairOf(const std::string& type) {
  const std::string path = std::string{MIREL_KEY_FOLDER "/"}.append(type).append(".pem");
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file{std::fopen(path.c_str(), "rb"), &std::fclose};
  if (!file) throw std::runtime_error{"no key in " + path};
  Key key{PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free};
  require(key != nullptr, "read the key");
  return key;
}

Context contextFor(const Key& key) {
  Context context{EVP_PKEY_CTX_new(key.get(), nullptr), &EVP_PKEY_CTX_free};
  require(context != nullptr, "make a context");
  return context;
}

const EVP_MD* hashNamed(std::string_view name) {
  const EVP_MD* hash = EVP_get_digestbyname(std::string{name}.c_str());
  require(hash != nullptr, "know the hash");
  return hash;
}

}  // namespace

std::string digestOf(std::string_view hash, const std::string& data) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  require(EVP_Digest(data.data(), data.size(), bytes(digest), &size, hashNamed(hash), nullptr) == 1, "hash");
  digest.resize(size);
  return digest;
}

bool pssVerifies(const std::string& keyType, std::string_view hash, const std::string& digest,
                 const std::string& signature) {
  const Key key = pairOf(keyType);
  const Context context = contextFor(key);
  require(EVP_PKEY_verify_init(context.get()) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) == 1 &&
              EVP_PKEY_CTX_set_signature_md(context.get(), hashNamed(hash)) == 1 &&
              EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), hashNamed(hash)) == 1 &&
              EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), RSA_PSS_SALTLEN_DIGEST) == 1,
          "prepare for PSS");
  return EVP_PKEY_verify(context.get(), bytes(signature), signature.size(), bytes(digest), digest.size()) ==
         1;
}

std::string blockOf(const std::string& keyType, const std::string& signature) {
  const Key key = pairOf(keyType);
  const Context context = contextFor(key);
  require(EVP_PKEY_verify_recover_init(context.get()) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1,
          "prepare for a block");
  std::string block(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())), '\0');
  std::size_t size = block.size();
  require(
      EVP_PKEY_verify_recover(context.get(), bytes(block), &size, bytes(signature), signature.size()) == 1,
      "make a block of the signature");
  block.resize(size);
  return block;
}

std::string encrypted(const std::string& keyType, std::string_view padding, const std::string& plain) {
  const Key key = pairOf(keyType);
  const Context context = contextFor(key);
  const int number = padding == "pkcs1" ? RSA_PKCS1_PADDING : RSA_NO_PADDING;
  require(
      EVP_PKEY_encrypt_init(context.get()) == 1 && EVP_PKEY_CTX_set_rsa_padding(context.get(), number) == 1,
      "prepare for encryption");
  std::size_t size = static_cast<std::size_t>(EVP_PKEY_get_size(key.get()));
  std::string cipher(size, '\0');
  require(EVP_PKEY_encrypt(context.get(), bytes(cipher), &size, bytes(plain), plain.size()) == 1, "encrypt");
  cipher.resize(size);
  return cipher;
}

std::string newPoint(const std::string& keyType) {
  std::array<char, 64> group{};
  require(EVP_PKEY_get_group_name(pairOf(keyType).get(), group.data(), group.size(), nullptr) == 1,
          "tell the curve");
  const Key key{EVP_EC_gen(group.data()), &EVP_PKEY_free};
  std::string point(256, '\0');
  std::size_t size = 0;
  require(EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, bytes(point), point.size(),
                                          &size) == 1,
          "make a point");
  point.resize(size);
  return point;
}

std::string newCertificate(const std::string& keyType, const std::string& commonName) {
  const Key key = pairOf(keyType);
  const std::unique_ptr<X509, decltype(&X509_free)> certificate{X509_new(), &X509_free};
  X509* x509 = certificate.get();
  require(
      x509 && X509_set_version(x509, X509_VERSION_3) == 1 &&
          ASN1_INTEGER_set(X509_get_serialNumber(x509), 1) == 1 &&
          ASN1_TIME_set_string_X509(X509_getm_notBefore(x509), "20200101000000Z") == 1 &&
          ASN1_TIME_set_string_X509(X509_getm_notAfter(x509), "20491231235959Z") == 1 &&
          X509_NAME_add_entry_by_NID(X509_get_subject_name(x509), NID_commonName, MBSTRING_UTF8,
                                     bytes(commonName), static_cast<int>(commonName.size()), -1, 0) == 1 &&
          X509_set_issuer_name(x509, X509_get_subject_name(x509)) == 1 &&
          X509_set_pubkey(x509, key.get()) == 1,
      "fill the certificate");
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> usage{
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_key_usage, "critical,digitalSignature"),
      &X509_EXTENSION_free};
  require(usage && X509_add_ext(x509, usage.get(), -1) == 1 && X509_sign(x509, key.get(), EVP_sha256()) > 0,
          "sign the certificate");
  unsigned char* der = nullptr;
  const int size = i2d_X509(x509, &der);
  require(size > 0, "encode the certificate");
  std::string text{reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)};
  OPENSSL_free(der);
  return text;
}

std::string pemOfCertificate(const std::string& der) {
  const unsigned char* next = bytes(der);
  const std::unique_ptr<X509, decltype(&X509_free)> certificate{
      d2i_X509(nullptr, &next, static_cast<long>(der.size())), &X509_free};
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory{BIO_new(BIO_s_mem()), &BIO_free};
  require(certificate && memory && PEM_write_bio_X509(memory.get(), certificate.get()) == 1,
          "write the certificate");
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string commonNameOf(const std::string& pem) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory{
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free};
  const std::unique_ptr<X509, decltype(&X509_free)> certificate{
      PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr), &X509_free};
  std::array<char, 256> name{};
  if (!certificate || X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName,
                                                name.data(), name.size()) < 0)
    return {};
  return name.data();
}

}  // namespace mirel::test
