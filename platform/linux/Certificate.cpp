#include "platform/Certificate.h"

#include <openssl/asn1.h>
#include <openssl/asn1t.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
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
using KeyHolder = std::unique_ptr<EVP_PKEY, Freer<&EVP_PKEY_free>>;
using BioHolder = std::unique_ptr<BIO, Freer<&BIO_free>>;

/// SubjectPublicKeyInfo (RFC 5280, section 4.1.2.7).
struct KeyInfo {
  X509_ALGOR* algorithm;
  ASN1_BIT_STRING* key;
};

/// TBSCertificate (RFC 5280, section 4.1.2).
struct CertificateInfo {
  ASN1_INTEGER* version;
  ASN1_INTEGER* serialNumber;
  X509_ALGOR* signature;
  X509_NAME* issuer;
  X509_VAL* validity;
  X509_NAME* subject;
  KeyInfo* subjectPublicKeyInfo;
  ASN1_BIT_STRING* issuerUniqueID;
  ASN1_BIT_STRING* subjectUniqueID;
  STACK_OF(X509_EXTENSION) * extensions;
};

/// Certificate (RFC 5280, section 4.1.1), of the parts that OpenSSL reads an X509 by, all but one: what it
/// reads as X509_PUBKEY it makes a key of at once, for which it gathers all its decoders. That is a tenth of
/// the instructions of a command that lists a card.
struct SignedCertificate {
  CertificateInfo* info;
  X509_ALGOR* signatureAlgorithm;
  ASN1_BIT_STRING* signature;
};

/// RSAPublicKey (RFC 8017, appendix A.1.1).
struct RsaKey {
  BIGNUM* modulus;
  BIGNUM* publicExponent;
};

// What the macros of OpenSSL define casts as C does.
// NOLINTBEGIN
// clang-format off
ASN1_SEQUENCE(KeyInfo) = {
  ASN1_SIMPLE(KeyInfo, algorithm, X509_ALGOR),
  ASN1_SIMPLE(KeyInfo, key, ASN1_BIT_STRING),
} static_ASN1_SEQUENCE_END(KeyInfo);

ASN1_SEQUENCE(CertificateInfo) = {
  ASN1_EXP_OPT(CertificateInfo, version, ASN1_INTEGER, 0),
  ASN1_SIMPLE(CertificateInfo, serialNumber, ASN1_INTEGER),
  ASN1_SIMPLE(CertificateInfo, signature, X509_ALGOR),
  ASN1_SIMPLE(CertificateInfo, issuer, X509_NAME),
  ASN1_SIMPLE(CertificateInfo, validity, X509_VAL),
  ASN1_SIMPLE(CertificateInfo, subject, X509_NAME),
  ASN1_SIMPLE(CertificateInfo, subjectPublicKeyInfo, KeyInfo),
  ASN1_IMP_OPT(CertificateInfo, issuerUniqueID, ASN1_BIT_STRING, 1),
  ASN1_IMP_OPT(CertificateInfo, subjectUniqueID, ASN1_BIT_STRING, 2),
  ASN1_EXP_SEQUENCE_OF_OPT(CertificateInfo, extensions, X509_EXTENSION, 3),
} static_ASN1_SEQUENCE_END(CertificateInfo);

ASN1_SEQUENCE(SignedCertificate) = {
  ASN1_SIMPLE(SignedCertificate, info, CertificateInfo),
  ASN1_SIMPLE(SignedCertificate, signatureAlgorithm, X509_ALGOR),
  ASN1_SIMPLE(SignedCertificate, signature, ASN1_BIT_STRING),
} static_ASN1_SEQUENCE_END(SignedCertificate);

ASN1_SEQUENCE(RsaKey) = {
  ASN1_SIMPLE(RsaKey, modulus, BIGNUM),
  ASN1_SIMPLE(RsaKey, publicExponent, BIGNUM),
} static_ASN1_SEQUENCE_END(RsaKey);
// clang-format on
// NOLINTEND

/// Owns what was read by one of the items above.
template <typename T, const ASN1_ITEM* (*Item)()>
struct ItemFreer {
  void operator()(T* object) const noexcept { ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(object), Item()); }
};
template <typename T, const ASN1_ITEM* (*Item)()>
using ItemHolder = std::unique_ptr<T, ItemFreer<T, Item>>;

/// Null unless it uses up all of `der`.
template <typename T, const ASN1_ITEM* (*Item)()>
ItemHolder<T, Item> parsedWhole(std::span<const std::uint8_t> der) noexcept {
  const unsigned char* next = der.data();
  ASN1_VALUE* const value = ASN1_item_d2i(nullptr, &next, static_cast<long>(der.size()), Item());
  ItemHolder<T, Item> parsed{reinterpret_cast<T*>(value)};
  return next == der.data() + der.size() ? std::move(parsed) : nullptr;
}

/// Deeper nesting than any certificate has; it bounds the recursion.
constexpr int kDeepestNesting = 32;

/// Tags of X.680, section 8.6, that OpenSSL has no names for.
constexpr int kEmbeddedPdv = 11;
constexpr int kCharacterString = 29;

/// A universal type has one form only in DER (X.690, sections 8.9.1, 8.11.1, 8.17, 8.18 and 10.2).
bool hasFormOfItsType(int tag, bool isConstructed) noexcept {
  switch (tag) {
    case V_ASN1_EXTERNAL:
    case kEmbeddedPdv:
    case V_ASN1_SEQUENCE:
    case V_ASN1_SET:
    case kCharacterString: return isConstructed;
    default: return !isConstructed;
  }
}

/// True when `data` (INT_MAX bytes at most) consists of whole values that are encoded as DER demands, as far
/// as form and length go, with all values inside them down to `nesting` levels: lengths are definite and in
/// the fewest bytes (X.690, section 10.1). OpenSSL alone would take any of BER's forms.
bool hasDerForm(std::span<const std::uint8_t> data, int nesting) noexcept {
  constexpr int kUnreadableOrIndefinite = 0x80 | 0x01;
  while (!data.empty()) {
    const unsigned char* content = data.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int form = ASN1_get_object(&content, &length, &tag, &tagClass, static_cast<long>(data.size()));
    if ((form & kUnreadableOrIndefinite) != 0) return false;

    const bool isConstructed = (form & V_ASN1_CONSTRUCTED) != 0;
    if (tagClass == V_ASN1_UNIVERSAL && !hasFormOfItsType(tag, isConstructed)) return false;
    const auto whole = static_cast<std::size_t>(content - data.data() + length);
    const int expected = ASN1_object_size(isConstructed ? 1 : 0, static_cast<int>(length), tag);
    if (expected < 0 || static_cast<std::size_t>(expected) != whole) return false;
    const std::span<const std::uint8_t> inside{content, static_cast<std::size_t>(length)};
    if (isConstructed && (nesting == 0 || !hasDerForm(inside, nesting - 1))) return false;
    data = data.subspan(whole);
  }
  return true;
}

/// Empty when memory is short; OpenSSL takes no certificate whose names it cannot write out.
Text subjectOf(const X509_NAME* name) {
  // Letters beyond ASCII stay as they are.
  constexpr unsigned long kFlags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  const BioHolder line{BIO_new(BIO_s_mem())};
  if (!line || X509_NAME_print_ex(line.get(), name, 0, kFlags) < 0) return Text{u""};
  char* text = nullptr;
  const long length = BIO_get_mem_data(line.get(), &text);
  return Text::fromUtf8({text, static_cast<std::size_t>(std::max(length, 0L))});
}

Text notAfterOf(const X509_VAL* validity) {
  std::tm utc{};
  if (ASN1_TIME_to_tm(validity->notAfter, &utc) != 1) return {};
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

/// The bits of an RSA key that is nothing but an RSAPublicKey; nothing for all others.
std::optional<int> rsaBitsOf(const KeyInfo& info) noexcept {
  const ASN1_OBJECT* name = nullptr;
  X509_ALGOR_get0(&name, nullptr, nullptr, info.algorithm);
  if (OBJ_obj2nid(name) != NID_rsaEncryption) return std::nullopt;
  const std::span<const std::uint8_t> encoding{ASN1_STRING_get0_data(info.key),
                                               static_cast<std::size_t>(ASN1_STRING_length(info.key))};
  const auto key = parsedWhole<RsaKey, &RsaKey_it>(encoding);
  return key ? std::optional{BN_num_bits(key->modulus)} : std::nullopt;
}

/// The bits of any key, as OpenSSL reads it; nothing when it cannot.
std::optional<int> keyBitsOf(const KeyInfo& info) noexcept {
  unsigned char* der = nullptr;
  const auto* const value = reinterpret_cast<const ASN1_VALUE*>(&info);
  const int length = ASN1_item_i2d(value, &der, ASN1_ITEM_rptr(KeyInfo));
  if (length <= 0) return std::nullopt;
  const unsigned char* next = der;
  const KeyHolder key{d2i_PUBKEY(nullptr, &next, length)};
  OPENSSL_free(der);
  return key ? std::optional{std::max(EVP_PKEY_get_bits(key.get()), 0)} : std::nullopt;
}

/// A key that cannot be read has no type either, whatever its algorithm identifier claims.
PublicKey publicKeyOf(const KeyInfo& info) noexcept {
  auto bits = rsaBitsOf(info);
  if (!bits) bits = keyBitsOf(info);
  return bits ? PublicKey{keyTypeOf(info.algorithm), *bits} : PublicKey{};
}

/// Holds what was read from the certificate, not OpenSSL's objects: they take many times the memory of
/// the encoding.
class ParsedCertificate final : public SecCertificate {
 public:
  ParsedCertificate(Bytes der, const CertificateInfo& info)
      : der_{std::move(der)},
        keyUsage_{keyUsageOfCertificate(der_.view())},
        subject_{subjectOf(info.subject)},
        notAfter_{notAfterOf(info.validity)},
        publicKey_{publicKeyOf(*info.subjectPublicKeyInfo)} {}

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
    if (bytes.size() > INT_MAX || !hasDerForm(bytes, kDeepestNesting)) return nullptr;
    const auto certificate = parsedWhole<SignedCertificate, &SignedCertificate_it>(bytes);
    return certificate ? std::make_shared<ParsedCertificate>(der, *certificate->info) : nullptr;
  }
};

}  // namespace

std::shared_ptr<CertificateParser> systemCertificateParser() {
  return std::make_shared<OpenSslCertificateParser>();
}

}  // namespace mirel
