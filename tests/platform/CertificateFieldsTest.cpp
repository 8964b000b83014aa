#include "platform/CertificateFields.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "CertificateBuilder.h"

namespace mirel {
namespace {

/// A certificate of that key, issuer and extensions.
ByteVector certificateOf(EVP_PKEY* key, const std::vector<NameEntry>& issuer,
                         const std::vector<std::pair<int, const char*>>& extensions) {
  return makeCertificate({.key = key,
                          .serialNumber = "80FF",
                          .issuer = issuer,
                          .notBefore = "991231235958Z",
                          .notAfterType = V_ASN1_GENERALIZEDTIME,
                          .notAfter = "20610203040506Z",
                          .extensions = extensions});
}

CertificateFields fieldsOf(const ByteVector& certificate) {
  const auto fields = fieldsOfCertificate(certificate);
  EXPECT_TRUE(fields);
  return fields.value_or(CertificateFields{});
}

EVP_PKEY* someKey() {
  static const KeyHolder key = makeEcKey("P-256");
  return key.get();
}

std::vector<std::string> utf8(const std::vector<Text>& texts) {
  std::vector<std::string> all;
  for (const Text& text : texts) all.push_back(text.toUtf8());
  return all;
}

/// The reference: the issuer as OpenSSL writes it by RFC 2253.
std::string openSslIssuer(const ByteVector& der) {
  const unsigned char* next = der.data();
  const std::unique_ptr<X509, OpenSslFree> certificate{
      d2i_X509(nullptr, &next, static_cast<long>(der.size()))};
  const std::unique_ptr<BIO, decltype(&BIO_free)> line{BIO_new(BIO_s_mem()), &BIO_free};
  constexpr unsigned long kFlags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  (void)X509_NAME_print_ex(line.get(), X509_get_issuer_name(certificate.get()), 0, kFlags);
  char* text = nullptr;
  const long length = BIO_get_mem_data(line.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

TEST(CertificateFields, HaveTheIssuerThatOpenSslReads) {
  const std::vector<NameEntry> issuers[] = {
      {},
      {{"C", MBSTRING_UTF8, "DE"}, {"O", MBSTRING_UTF8, "Test, Inc."}, {"CN", MBSTRING_UTF8, "Root"}},
      {{"CN", MBSTRING_UTF8, "A"}, {"serialNumber", MBSTRING_UTF8, "7", true}, {"DC", V_ASN1_IA5STRING, "x"}},
      {{"CN", MBSTRING_UTF8, "# a\"b+c<d>e;f\\ "}, {"OU", MBSTRING_UTF8, "M\xC3\xBCller\n"}},
      {{"CN", V_ASN1_BMPSTRING, std::string{"\0A\0B", 4}}, {"emailAddress", V_ASN1_IA5STRING, "a@b"}},
      {{"2.999.1.4000", MBSTRING_UTF8, "unknown"}},
  };
  for (const auto& issuer : issuers) {
    const auto certificate = certificateOf(someKey(), issuer, {});
    EXPECT_EQ(fieldsOf(certificate).issuer.toUtf8(), openSslIssuer(certificate));
  }
}

TEST(CertificateFields, HaveSerialNumberAndValidity) {
  const CertificateFields fields = fieldsOf(certificateOf(someKey(), {}, {}));
  EXPECT_EQ(fields.serialNumber, (ByteVector{0x00, 0x80, 0xFF}));
  EXPECT_EQ(fields.notBefore.toUtf8(), "1999-12-31T23:59:58Z");
  EXPECT_EQ(fields.notAfter.toUtf8(), "2061-02-03T04:05:06Z");
}

TEST(CertificateFields, HaveThePurposesAndOtherNames) {
  const CertificateFields fields =
      fieldsOf(certificateOf(someKey(), {},
                             {{NID_ext_key_usage, "clientAuth,emailProtection,msSmartcardLogin,1.2.3.4"},
                              {NID_subject_alt_name,
                               "email:a@b.example,DNS:b.example,URI:http://c,IP:10.0.0.255,RID:1.2.3,"
                               "otherName:1.3.6.1.4.1.311.20.2.3;UTF8:u@d.example,otherName:1.2.3;UTF8:x"}}));
  EXPECT_EQ(utf8(fields.extendedKeyUsage),
            (std::vector<std::string>{"clientAuth", "emailProtection", "smartcardLogon", "1.2.3.4"}));
  EXPECT_EQ(utf8(fields.subjectAltNames),
            (std::vector<std::string>{"email:a@b.example", "DNS:b.example", "URI:http://c", "IP:10.0.0.255",
                                      "ID:1.2.3", "UPN:u@d.example", "other"}));
}

TEST(CertificateFields, TellAnAuthority) {
  EXPECT_FALSE(fieldsOf(certificateOf(someKey(), {}, {})).isAuthority);
  EXPECT_FALSE(fieldsOf(certificateOf(someKey(), {}, {{NID_basic_constraints, "CA:FALSE"}})).isAuthority);
  EXPECT_TRUE(fieldsOf(certificateOf(someKey(), {}, {{NID_basic_constraints, "CA:TRUE"}})).isAuthority);
}

TEST(CertificateFields, HaveThePublicKey) {
  const CertificateFields ofEc = fieldsOf(certificateOf(someKey(), {}, {}));
  unsigned char* point = nullptr;
  const std::size_t size = EVP_PKEY_get1_encoded_public_key(someKey(), &point);
  EXPECT_EQ(ofEc.publicKeyBits, ByteVector(point, point + size));
  OPENSSL_free(point);
  EXPECT_TRUE(ofEc.modulus.empty());

  const KeyHolder key = makeRsaKey(1024);
  const CertificateFields ofRsa = fieldsOf(certificateOf(key.get(), {}, {}));
  ASSERT_EQ(ofRsa.modulus.size(), 128U);
  ByteVector publicKey(static_cast<std::size_t>(i2d_PublicKey(key.get(), nullptr)));
  unsigned char* next = publicKey.data();
  ASSERT_GT(i2d_PublicKey(key.get(), &next), 0);
  EXPECT_EQ(ofRsa.publicKeyBits, publicKey);
  EXPECT_NE(std::search(publicKey.begin(), publicKey.end(), ofRsa.modulus.begin(), ofRsa.modulus.end()),
            publicKey.end());
}

TEST(CertificateFields, AreNothingForWhatIsNoCertificate) {
  ByteVector der = certificateOf(someKey(), {}, {{NID_subject_alt_name, "DNS:a"}});
  EXPECT_TRUE(fieldsOfCertificate(der));
  EXPECT_FALSE(fieldsOfCertificate({}));
  EXPECT_FALSE(fieldsOfCertificate(std::span{der}.first(der.size() - 1)));
  der.push_back(0);
  EXPECT_FALSE(fieldsOfCertificate(der));
}

/// What is wrong inside must neither be read beyond its end nor keep the rest from being read.
TEST(CertificateFields, SurviveEachByteBeingChanged) {
  const ByteVector der =
      certificateOf(someKey(), {{"CN", MBSTRING_UTF8, "A"}},
                    {{NID_ext_key_usage, "clientAuth"}, {NID_subject_alt_name, "otherName:1.2.3;UTF8:x"}});
  std::size_t read = 0;
  for (std::size_t i = 0; i < der.size(); ++i) {
    for (const int change : {0x01, 0x80, 0xFF}) {
      ByteVector changed = der;
      changed[i] = static_cast<std::uint8_t>(changed[i] ^ change);
      if (fieldsOfCertificate(changed)) ++read;
    }
  }
  EXPECT_GT(read, der.size());
}

}  // namespace
}  // namespace mirel
