#include "platform/Certificate.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <ctime>
#include <span>
#include <string_view>
#include <utility>

#include "OpenSslErrors.h"
#include "platform/Der.h"
#include "platform/KeyUsage.h"

namespace mirel {
namespace {

// OpenSSL is used as the process finds it. Asking it not to load its configuration would save a fifth
// of a millisecond, but would also keep a PKCS #11 module that uses the same library from ever having
// it.

template <auto Free>
struct Freer {
  template <typename T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};
using X509Holder = std::unique_ptr<X509, Freer<&X509_free>>;
using BioHolder = std::unique_ptr<BIO, Freer<&BIO_free>>;

/// Deeper nesting than any certificate has; it bounds the recursion.
constexpr int kDeepestNesting = 32;

/// True when `data` (INT_MAX bytes at most) consists of whole values whose lengths, and those of all
/// values inside them down to `nesting` levels, are encoded as DER demands (X.690, section 10.1):
/// definite, and in the fewest bytes. OpenSSL alone would take any of BER's forms.
bool hasDerLengths(std::span<const std::uint8_t> data, int nesting) noexcept {
  constexpr int kUnreadableOrIndefinite = 0x80 | 0x01;
  while (!data.empty()) {
    const unsigned char* content = data.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int form = ASN1_get_object(&content, &length, &tag, &tagClass, static_cast<long>(data.size()));
    if ((form & kUnreadableOrIndefinite) != 0) return false;

    const int constructed = form & V_ASN1_CONSTRUCTED;
    const auto whole = static_cast<std::size_t>(content - data.data() + length);
    const int expected = ASN1_object_size(constructed != 0 ? 1 : 0, static_cast<int>(length), tag);
    if (expected < 0 || static_cast<std::size_t>(expected) != whole) return false;
    const std::span<const std::uint8_t> inside{content, static_cast<std::size_t>(length)};
    if (constructed != 0 && (nesting == 0 || !hasDerLengths(inside, nesting - 1))) return false;
    data = data.subspan(whole);
  }
  return true;
}

/// Parses with one of OpenSSL's d2i functions. Null unless it uses up all of `der`.
template <typename Holder, auto Parse>
Holder parsedWhole(std::span<const std::uint8_t> der) noexcept {
  const unsigned char* next = der.data();
  Holder parsed{Parse(nullptr, &next, static_cast<long>(der.size()))};
  return next == der.data() + der.size() ? std::move(parsed) : Holder{};
}

/// Empty when memory is short; OpenSSL takes no certificate whose names it cannot write out.
Text subjectOf(const X509* x509) {
  // Letters beyond ASCII stay as they are.
  constexpr unsigned long kFlags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  const BioHolder line{BIO_new(BIO_s_mem())};
  if (!line || X509_NAME_print_ex(line.get(), X509_get_subject_name(x509), 0, kFlags) < 0) return Text{u""};
  char* text = nullptr;
  const long length = BIO_get_mem_data(line.get(), &text);
  return Text::fromUtf8({text, static_cast<std::size_t>(std::max(length, 0L))});
}

Text notAfterOf(const X509* x509) {
  std::tm utc{};
  if (ASN1_TIME_to_tm(X509_get0_notAfter(x509), &utc) != 1) return {};
  std::array<char, 80> line{};  // room for six numbers of any value
  (void)std::snprintf(line.data(), line.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return Text::fromUtf8(line.data());
}

struct PublicKey {
  CertificateKeyType type = CertificateKeyType::kOther;
  int bits = 0;
};

/// The kind of key by its algorithm identifier (RFC 3279, sections 2.3.1 and 2.3.5). A key that is
/// bound to one padding (id-RSASSA-PSS), and one whose curve is written out instead of named, is one
/// the keychain has no name for.
CertificateKeyType keyTypeOf(const X509_ALGOR* algorithm) noexcept {
  constexpr std::array kPrimeCurves{NID_X9_62_prime192v1, NID_secp224r1, NID_X9_62_prime256v1, NID_secp384r1,
                                    NID_secp521r1};
  const ASN1_OBJECT* name = nullptr;
  int parameterType = V_ASN1_UNDEF;
  const void* parameter = nullptr;
  X509_ALGOR_get0(&name, &parameterType, &parameter, algorithm);
  const int nid = OBJ_obj2nid(name);
  if (nid == NID_rsaEncryption) return CertificateKeyType::kRSA;
  if (nid != NID_X9_62_id_ecPublicKey || parameterType != V_ASN1_OBJECT) return CertificateKeyType::kOther;
  const int curve = OBJ_obj2nid(static_cast<const ASN1_OBJECT*>(parameter));
  const bool isPrimeCurve = std::find(kPrimeCurves.begin(), kPrimeCurves.end(), curve) != kPrimeCurves.end();
  return isPrimeCurve ? CertificateKeyType::kECPrimeRandom : CertificateKeyType::kOther;
}

/// A key that cannot be read has no type either, whatever its algorithm identifier claims.
PublicKey publicKeyOf(const X509* x509) noexcept {
  const EVP_PKEY* key = X509_get0_pubkey(x509);
  X509_ALGOR* algorithm = nullptr;
  if (!key ||
      X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm, X509_get_X509_PUBKEY(x509)) != 1) {
    return {};
  }
  return {keyTypeOf(algorithm), std::max(EVP_PKEY_get_bits(key), 0)};
}

/// Holds what was read from the certificate, not OpenSSL's object: that takes many times the memory of
/// the encoding.
class ParsedCertificate final : public SecCertificate {
 public:
  ParsedCertificate(Bytes der, const X509* x509)
      : der_{std::move(der)},
        keyUsage_{keyUsageOfCertificate(der_.view())},
        subject_{subjectOf(x509)},
        notAfter_{notAfterOf(x509)},
        publicKey_{publicKeyOf(x509)} {}

  Bytes data() const noexcept override { return der_; }
  std::optional<std::int32_t> keyUsage() const noexcept override { return keyUsage_; }
  Text subject() const noexcept override { return subject_; }
  Text notAfter() const noexcept override { return notAfter_; }
  CertificateKeyType keyType() const noexcept override { return publicKey_.type; }
  int keySizeInBits() const noexcept override { return publicKey_.bits; }

 private:
  Bytes der_;
  std::optional<std::int32_t> keyUsage_;
  Text subject_;
  Text notAfter_;
  PublicKey publicKey_;
};

class OpenSslCertificateParser final : public CertificateParser {
 public:
  std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    const ErrorMark mark;
    const std::span<const std::uint8_t> bytes = der.view();
    if (!onlyDerValue(bytes, kDerSequence)) return nullptr;
    if (bytes.size() > INT_MAX || !hasDerLengths(bytes, kDeepestNesting)) return nullptr;
    const auto x509 = parsedWhole<X509Holder, &d2i_X509>(bytes);
    return x509 ? std::make_shared<ParsedCertificate>(der, x509.get()) : nullptr;
  }
};

}  // namespace

std::shared_ptr<CertificateParser> systemCertificateParser() {
  return std::make_shared<OpenSslCertificateParser>();
}

}  // namespace mirel
