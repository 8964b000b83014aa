#include "recording/AnonymousCertificate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "../platform/CertificateBuilder.h"
#include "platform/Certificate.h"

namespace mirel::recording {
namespace {

using X509Holder = std::unique_ptr<X509, OpenSslFree>;

X509Holder parsed(const ByteVector& der) {
  const std::uint8_t* at = der.data();
  X509Holder certificate{d2i_X509(nullptr, &at, static_cast<long>(der.size()))};
  return certificate && at == der.data() + der.size() ? std::move(certificate) : nullptr;
}

/// A certificate with names in many places.
ByteVector janesCertificate() {
  using namespace std::string_literals;
  return makeCertificate(
      {.serialNumber = "91A2B3C4D5E6F708",
       .subject = {{"C", MBSTRING_UTF8, "SE"},
                   {"CN", V_ASN1_BMPSTRING, "\0J\0a\0n\0e\0 \0D\0o\0e"s},
                   {"serialNumber", MBSTRING_UTF8, "PN-70112"},
                   {"O", V_ASN1_T61STRING, "M\xFCller"}},
       .keyUsages = {{0x03, 0x02, 0x05, 0xA0}},
       .extensions = {
           {NID_subject_alt_name,
            "email:jane.doe@mueller.example,URI:http://mueller.example/people/jane,IP:10.20.30.40,"
            "otherName:1.3.6.1.4.1.311.20.2.3;UTF8:jane@login.example"},
           {NID_ext_key_usage, "clientAuth"},
           {NID_subject_key_identifier, "0102030405060708090A0B0C0D0E0F1011121314"},
           {NID_crl_distribution_points, "URI:ldap://directory.example/CN=Mueller"},
           {NID_netscape_comment, "made for Jane"},
       }});
}

void replaceFirst(std::string& text, std::string_view what, std::string_view by) {
  if (const std::size_t at = text.find(what); at != std::string::npos) text.replace(at, what.size(), by);
}

std::string printed(const ByteVector& der) {
  const X509Holder certificate = parsed(der);
  if (!certificate) return "no certificate";
  BIO* output = BIO_new(BIO_s_mem());
  constexpr unsigned long kWithout = X509_FLAG_NO_PUBKEY | X509_FLAG_NO_SIGDUMP;
  X509_print_ex(output, certificate.get(), XN_FLAG_RFC2253, kWithout);
  char* text = nullptr;
  const long size = BIO_get_mem_data(output, &text);
  std::string all{text, static_cast<std::size_t>(size)};
  BIO_free(output);
  // Versions of OpenSSL differ in a colon and an empty line.
  replaceFirst(all, "UPN::", "UPN:");
  replaceFirst(all, "\n\n", "\n");
  return all;
}

ByteVector keyOf(const ByteVector& der) {
  const X509Holder certificate = parsed(der);
  std::uint8_t* key = nullptr;
  const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate.get()), &key);
  ByteVector bytes(key, key + size);
  OPENSSL_free(key);
  return bytes;
}

TEST(AnonymousCertificate, HasNoNamesAndStaysReadable) {
  const ByteVector der = janesCertificate();
  ShapedPseudonyms pseudonyms;
  const ByteVector anonymous = anonymousCertificate(der, pseudonyms);
  ASSERT_EQ(anonymous.size(), der.size());
  EXPECT_EQ(printed(anonymous), R"(Certificate:
    Data:
        Version: 3 (0x2)
        Serial Number:
            80:00:00:00:00:00:00:01
        Signature Algorithm: ecdsa-with-SHA256
        Issuer: CN=Nameab
        Validity
            Not Before: Jan  1 00:00:00 2020 GMT
            Not After : Dec 31 23:59:59 2030 GMT
        Subject: O=N\C3\A0meab,serialNumber=AC-00001,CN=Naab Nab,C=AB
        X509v3 extensions:
            X509v3 Key Usage: critical
                Digital Signature, Key Encipherment
            X509v3 Subject Alternative Name: 
                email:naab.nab@nameaab.nameaac, URI:http://nameaab.nameaac/nameac/naab, IP Address:1.0.0.1, othername: UPN:naab@namab.nameaac
            X509v3 Extended Key Usage: 
                TLS Web Client Authentication
            X509v3 Subject Key Identifier: 
                01:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:01
            X509v3 CRL Distribution Points: 
                Full Name:
                  URI:ldap://nameaaaab.nameaac/AD=Nameaab
            Netscape Comment: 
                naac nac Naab
)");
  EXPECT_EQ(keyOf(anonymous), keyOf(der));
}

TEST(AnonymousCertificate, KeepsNoOriginalByte) {
  ShapedPseudonyms pseudonyms;
  const ByteVector anonymous = anonymousCertificate(janesCertificate(), pseudonyms);
  const std::string bytes{anonymous.begin(), anonymous.end()};
  using namespace std::string_literals;
  for (const std::string& original :
       {"ane"s, "JANE"s, "oe"s, "ller"s, "people"s, "70112"s, "\0a\0n\0e"s, "\x91\xA2"s, "\x0A\x14\x1E"s,
        "\x01\x02\x03\x04"s, "login"s, "directory"s, "made"s, "Test"s})
    EXPECT_EQ(bytes.find(original), std::string::npos) << original;
}

TEST(AnonymousCertificate, IsReadAsTheOriginalIs) {
  const auto parser = systemCertificateParser();
  int numCertificates = 0;
  for (const auto& entry : std::filesystem::directory_iterator{MIREL_CERTIFICATE_SEEDS}) {
    SCOPED_TRACE(entry.path());
    std::ifstream file{entry.path(), std::ios::binary};
    const ByteVector der{std::istreambuf_iterator<char>{file}, {}};
    const auto original = parser->createWithData(Bytes{der});
    if (!original) continue;
    ++numCertificates;
    ShapedPseudonyms pseudonyms;
    const auto anonymous = parser->createWithData(Bytes{anonymousCertificate(der, pseudonyms)});
    ASSERT_TRUE(anonymous);
    EXPECT_EQ(anonymous->keyUsage(), original->keyUsage());
    EXPECT_EQ(anonymous->notAfter(), original->notAfter());
    EXPECT_EQ(anonymous->keyType(), original->keyType());
    EXPECT_EQ(anonymous->keySizeInBits(), original->keySizeInBits());
  }
  EXPECT_GT(numCertificates, 3);
}

TEST(AnonymousCertificate, IsTheSameForTheSameNames) {
  ShapedPseudonyms pseudonyms;
  const ByteVector name = value(
      0x30,
      {value(0x31, {value(0x30, {value(0x06, {{0x55, 0x04, 0x03}}), value(0x0C, {{'J', 'a', 'n', 'e'}})})})});
  const ByteVector anonymousName = anonymousValues(name, PseudonymKind::kName, pseudonyms);
  const ByteVector anonymous =
      anonymousCertificate(makeCertificate({.subject = {{"CN", V_ASN1_UTF8STRING, "Jane"}}}), pseudonyms);
  EXPECT_NE(anonymousName, name);
  EXPECT_NE(std::search(anonymous.begin(), anonymous.end(), anonymousName.begin(), anonymousName.end()),
            anonymous.end());
}

TEST(AnonymousCertificate, ReplacesValuesOfUnknownMeaning) {
  const ByteVector jane{'J', 'a', 'n', 'e'};
  const ByteVector laab{'N', 'a', 'a', 'b'};
  const struct {
    const char* what;
    ByteVector der;
    ByteVector expected;
  } rows[] = {
      {"nothing", {}, {}},
      {"small numbers and flags",
       joinedBytes({value(0x02, {{0x12, 0x34}}), value(0x0A, {{0x01}}), value(0x03, {{0x05, 0xA0}}),
                    value(0x01, {{0xFF}}), value(0x05, {}), value(0x81, {{0x01}})}),
       joinedBytes({value(0x02, {{0x12, 0x34}}), value(0x0A, {{0x01}}), value(0x03, {{0x05, 0xA0}}),
                    value(0x01, {{0xFF}}), value(0x05, {}), value(0x81, {{0x01}})})},
      {"a long number", value(0x02, {{0x12, 0x34, 0x56}}), value(0x02, {{0x01, 0x00, 0x01}})},
      {"long bits", value(0x03, {{0x04, 0x12, 0x34, 0x50}}), value(0x03, {{0x04, 0x01, 0x00, 0x00}})},
      {"a text in bytes", value(0x04, {jane}), value(0x04, {laab})},
      {"a text where true or false is to be", value(0x01, {jane}), value(0x01, {laab})},
      {"a text of a type of its own", value(0x85, {jane}), value(0x85, {laab})},
      {"a text in a value whose tag has several bytes",
       value(0x30, {{0xBF, 0x1F, 0x06}, value(0x85, {jane}), {0x5F, 0x81, 0x00, 0x04}, jane}),
       value(0x30, {{0xBF, 0x1F, 0x06}, value(0x85, {laab}), {0x5F, 0x81, 0x00, 0x04}, laab})},
      {"a tag in more bytes than needed", {0x5F, 0x1E, 0x01, 'J'}, {0x01, 0x00, 0x00, 0x01}},
      {"a tag that begins with nothing", {0x5F, 0x80, 0x1F, 0x01, 'J'}, {0x01, 0x00, 0x00, 0x00, 0x01}},
      {"a tag that is cut short", {0x5F, 0x9F, 0x9F}, {0x01, 0x00, 0x01}},
      {"a tag that has only begun", {0x5F}, {0x01}},
      {"a day of birth",
       value(0x18, {{'1', '9', '8', '8', '1', '2', '3', '1', '1', '2', '0', '0', '0', '0', 'Z'}}),
       value(0x18, {{'1', '9', '7', '0', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z'}})},
      {"no value behind a value", joinedBytes({value(0x0C, {jane}), {0x0C, 0x7F}, jane}),
       joinedBytes({value(0x0C, {laab}), {0x01, 0x00, 0x00, 0x00, 0x00, 0x01}})},
      {"a text alone", jane, laab},
  };
  for (const auto& [what, der, expected] : rows) {
    SCOPED_TRACE(what);
    ShapedPseudonyms pseudonyms;
    EXPECT_EQ(anonymousValues(der, PseudonymKind::kName, pseudonyms), expected);
  }
}

TEST(AnonymousCertificate, SurvivesEveryCutAndWrongByte) {
  const ByteVector der = janesCertificate();
  for (std::size_t at = 0; at < der.size(); ++at) {
    SCOPED_TRACE(at);
    ShapedPseudonyms pseudonyms;
    const ByteVector cut(der.begin(), der.begin() + static_cast<std::ptrdiff_t>(at));
    ASSERT_EQ(anonymousCertificate(cut, pseudonyms).size(), at);
    ByteVector changed = der;
    constexpr std::uint8_t kWrong[] = {0x00, 0x30, 0x84, 0x06, 0xFF};
    changed[at] = kWrong[at % std::size(kWrong)];
    const ByteVector anonymous = anonymousCertificate(changed, pseudonyms);
    ASSERT_EQ(anonymous.size(), der.size());
    const std::string bytes{anonymous.begin(), anonymous.end()};
    ASSERT_EQ(bytes.find("jane.doe"), std::string::npos);
  }
}

TEST(AnonymousCertificate, SurvivesDeepNesting) {
  ByteVector der{'J', 'a', 'n', 'e', '.', '.'};
  for (int i = 0; i < 10000; ++i) der = value(0x30, {der});
  ShapedPseudonyms pseudonyms;
  const ByteVector anonymous = anonymousCertificate(der, pseudonyms);
  EXPECT_EQ(anonymous.size(), der.size());
  EXPECT_NE(ByteVector(anonymous.end() - 6, anonymous.end()), ByteVector(der.end() - 6, der.end()));
}

}  // namespace
}  // namespace mirel::recording
