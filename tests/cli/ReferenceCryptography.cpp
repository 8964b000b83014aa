#include "ReferenceCryptography.h"

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "host/SoftwareKey.h"

namespace mirel::test {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

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

SoftwareKey keyOf(const std::string& type) { return SoftwareKey{pairOf(type).release()}; }

Value valueOf(const std::string& text) { return {text.begin(), text.end()}; }
std::string textOf(const Value& value) { return {value.begin(), value.end()}; }

Certificate certificateIn(const std::string& pem) {
  const Memory memory{BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free};
  Certificate certificate{PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr), &X509_free};
  require(certificate != nullptr, "read the certificate");
  return certificate;
}

}  // namespace

std::string digestOf(std::string_view hash, const std::string& data) {
  return textOf(softwareDigest(std::string{hash}.c_str(), valueOf(data)));
}

bool pssVerifies(const std::string& keyType, std::string_view hash, const std::string& digest,
                 const std::string& signature) {
  return keyOf(keyType).verifies(valueOf(signature), valueOf(digest), std::string{hash}.c_str(),
                                 RSA_PKCS1_PSS_PADDING, RSA_PSS_SALTLEN_DIGEST);
}

std::string blockOf(const std::string& keyType, const std::string& signature) {
  return textOf(keyOf(keyType).encrypted(valueOf(signature), RSA_NO_PADDING));
}

std::string encrypted(const std::string& keyType, std::string_view padding, const std::string& plain) {
  const int number = padding == "pkcs1" ? RSA_PKCS1_PADDING : RSA_NO_PADDING;
  return textOf(keyOf(keyType).encrypted(valueOf(plain), number));
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

std::string derOfCertificate(const std::string& pem) {
  unsigned char* der = nullptr;
  const int size = i2d_X509(certificateIn(pem).get(), &der);
  require(size > 0, "encode the certificate");
  std::string text{reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)};
  OPENSSL_free(der);
  return text;
}

std::string pemOf(const std::string& der) {
  const unsigned char* next = bytes(der);
  const Certificate certificate{d2i_X509(nullptr, &next, static_cast<long>(der.size())), &X509_free};
  const Memory memory{BIO_new(BIO_s_mem()), &BIO_free};
  require(certificate && memory && PEM_write_bio_X509(memory.get(), certificate.get()) == 1,
          "write the certificate");
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string commonNameOf(const std::string& pem) {
  std::array<char, 256> name{};
  (void)X509_NAME_get_text_by_NID(X509_get_subject_name(certificateIn(pem).get()), NID_commonName,
                                  name.data(), name.size());
  return name.data();
}

bool isSignedBy(const std::string& keyType, const std::string& pem) {
  return X509_verify(certificateIn(pem).get(), pairOf(keyType).get()) == 1;
}

}  // namespace mirel::test
