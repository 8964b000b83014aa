#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirel {

struct OpenSslFree {
  void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const noexcept { EVP_PKEY_CTX_free(context); }
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
  void operator()(X509_NAME* name) const noexcept { X509_NAME_free(name); }
};
using KeyHolder = std::unique_ptr<EVP_PKEY, OpenSslFree>;
using NameHolder = std::unique_ptr<X509_NAME, OpenSslFree>;

using ByteVector = std::vector<std::uint8_t>;

[[nodiscard]] ByteVector joinedBytes(std::initializer_list<ByteVector> parts);

/// A value with a tag of one byte and the shortest length of up to two bytes.
[[nodiscard]] ByteVector value(std::uint8_t tag, std::initializer_list<ByteVector> parts);

/// One attribute of a subject's name.
struct NameEntry {
  std::string type;  ///< a short name or a dotted object identifier
  int encoding;      ///< MBSTRING_UTF8, or a V_ASN1 type to take the value's bytes as they are
  std::string value;
  bool withPrevious = false;  ///< in one relative distinguished name with the entry before
};

/// What a test wants of a certificate; everything else is the same in all of them.
struct CertificateWish {
  EVP_PKEY* key = nullptr;          ///< the subject's key; null: the P-256 key that signs
  EVP_PKEY* signer = nullptr;       ///< null: a P-256 key of the test program
  std::string serialNumber = "07";  ///< in hexadecimal digits
  std::vector<NameEntry> issuer{{"CN", MBSTRING_UTF8, "Issuer"}};
  std::vector<NameEntry> subject{{"CN", MBSTRING_UTF8, "Test"}};
  std::string notBefore = "200101000000Z";
  int notAfterType = V_ASN1_UTCTIME;
  std::string notAfter = "301231235959Z";
  std::vector<ByteVector> keyUsages{};  ///< the contents of each KeyUsage extension, taken as they are
  /// By their numbers, with values in the form of OpenSSL's configuration.
  std::vector<std::pair<int, const char*>> extensions{};
  std::size_t padding = 0;  ///< as many bytes in an extension that nobody reads; 0: no such extension
};

/// The content of a KeyUsage extension with these bits, bit n being bit n of its bit string.
[[nodiscard]] ByteVector keyUsageOf(unsigned bits);

/// The DER encoding of such a certificate.
[[nodiscard]] ByteVector makeCertificate(const CertificateWish& wish = {});

/// What is no certificate at all, each with a description.
[[nodiscard]] std::vector<std::pair<const char*, ByteVector>> noCertificates();

[[nodiscard]] KeyHolder makeRsaKey(unsigned int bits);
[[nodiscard]] KeyHolder makeRsaPssKey(int bits);
[[nodiscard]] KeyHolder makeEcKey(const char* curve);
[[nodiscard]] KeyHolder makeKey(const char* algorithm);

}  // namespace mirel
