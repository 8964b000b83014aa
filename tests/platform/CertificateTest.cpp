#include "platform/Certificate.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "CertificateBuilder.h"
#include "support/Threads.h"

namespace mirel {
namespace {

using namespace std::string_literals;

std::shared_ptr<SecCertificate> parse(ByteVector der) {
  return systemCertificateParser()->createWithData(Bytes{std::move(der)});
}

/// True when OpenSSL by itself takes the bytes as one certificate.
bool opensslAccepts(const ByteVector& der) {
  const unsigned char* next = der.data();
  const std::unique_ptr<X509, OpenSslFree> certificate{
      d2i_X509(nullptr, &next, static_cast<long>(der.size()))};
  ERR_clear_error();
  return certificate && next == der.data() + der.size();
}

/// The content of an outermost SEQUENCE of 256 to 65535 bytes.
ByteVector contentOf(const ByteVector& der) {
  EXPECT_EQ(der.at(0), 0x30);
  EXPECT_EQ(der.at(1), 0x82);
  return {der.begin() + 4, der.end()};
}

/// `der` with its only occurrence of `from` replaced.
ByteVector replaced(const ByteVector& der, const ByteVector& from, const ByteVector& to) {
  const auto found = std::search(der.begin(), der.end(), from.begin(), from.end());
  EXPECT_NE(found, der.end());
  EXPECT_EQ(std::search(found + 1, der.end(), from.begin(), from.end()), der.end());
  ByteVector result(der.begin(), found);
  result.insert(result.end(), to.begin(), to.end());
  result.insert(result.end(), found + static_cast<std::ptrdiff_t>(from.size()), der.end());
  return result;
}

TEST(CertificateParser, KeepsTheEncodingItWasGivenAndRefusesNull) {
  const Bytes der{makeCertificate()};
  const auto certificate = systemCertificateParser()->createWithData(der);
  ASSERT_TRUE(certificate);
  EXPECT_TRUE(certificate->data().sharesStorageWith(der));
  EXPECT_FALSE(systemCertificateParser()->createWithData(Bytes{}));
}

TEST(CertificateParser, RefusesWhatIsNotExactlyOneCertificate) {
  const ByteVector good = makeCertificate();
  ASSERT_TRUE(parse(good));
  const ByteVector inside = contentOf(good);
  const std::pair<const char*, ByteVector> rows[] = {
      {"a NULL", {0x05, 0x00}},
      {"one byte behind it", joinedBytes({good, {0x00}})},
      {"a second certificate behind it", joinedBytes({good, good})},
      {"end-of-contents behind it", joinedBytes({good, {0x00, 0x00}})},
      {"one byte before it", joinedBytes({{0x00}, good})},
      {"the last byte missing", ByteVector(good.begin(), good.end() - 1)},
      {"half of it", ByteVector(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(good.size() / 2))},
      {"the content without its SEQUENCE", inside},
      {"in a SET", value(0x31, {inside})},
      {"in one more SEQUENCE", value(0x30, {good})},
      // Lengths
      {"length 2^31", joinedBytes({{0x30, 0x84, 0x80, 0x00, 0x00, 0x00}, inside})},
      {"length 2^31 - 1", joinedBytes({{0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF}, inside})},
      {"length 2^32 - 1", joinedBytes({{0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}, inside})},
      {"length 2^63", joinedBytes({{0x30, 0x88, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, inside})},
      {"length of 126 bytes", joinedBytes({{0x30, 0xFE}, inside})},
      {"the reserved length FF", joinedBytes({{0x30, 0xFF}, inside})},
  };
  for (const auto& [description, der] : rows) EXPECT_FALSE(parse(der)) << description;
  for (const auto& [description, der] : noCertificates()) EXPECT_FALSE(parse(der)) << description;
}

TEST(CertificateParser, RefusesEveryTruncation) {
  const ByteVector good = makeCertificate({.keyUsages = {{0x03, 0x02, 0x07, 0x80}}});
  for (std::size_t size = 0; size < good.size(); ++size)
    EXPECT_FALSE(parse({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)})) << size;
}

TEST(CertificateParser, RefusesFormsOfBerThatAreNotDer) {
  const ByteVector good = makeCertificate();
  const ByteVector inside = contentOf(good);
  // ecdsa-with-SHA256, once in what is signed and once before the signature.
  const ByteVector algorithm{0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
  const ByteVector identifier(algorithm.begin() + 2, algorithm.end());
  const auto last = std::find_end(inside.begin(), inside.end(), algorithm.begin(), algorithm.end());
  ASSERT_NE(last, inside.end());
  const ByteVector before(inside.begin(), last);
  const ByteVector after(last + static_cast<std::ptrdiff_t>(algorithm.size()), inside.end());
  const auto length = static_cast<std::uint8_t>(inside.size());
  const auto upperLength = static_cast<std::uint8_t>(inside.size() >> 8U);
  const ByteVector subject{0x30, 0x0F, 0x31, 0x0D, 0x30, 0x0B, 0x06, 0x03, 0x55,
                           0x04, 0x03, 0x0C, 0x04, 'T',  'e',  's',  't'};
  ByteVector primitiveSubject = subject;
  primitiveSubject.front() = 0x10;
  ByteVector constructedText = subject;
  std::copy_n(ByteVector{0x2C, 0x04, 0x0C, 0x02, 'T', 't'}.begin(), 6, constructedText.end() - 6);
  const auto withParameter = [&](const ByteVector& parameter) {
    return value(0x30, {before, value(0x30, {identifier, parameter}), after});
  };
  for (const std::uint8_t tag : ByteVector{0x28, 0x2B, 0x3D})
    EXPECT_TRUE(parse(withParameter({tag, 0x02, 0x05, 0x00})));
  const struct {
    const char* description;
    ByteVector der;
  } rows[] = {
      {"a SEQUENCE in primitive form", replaced(good, subject, primitiveSubject)},
      {"a text in constructed form", replaced(good, subject, constructedText)},
      {"an EXTERNAL in primitive form", withParameter({0x08, 0x00})},
      {"an EMBEDDED PDV in primitive form", withParameter({0x0B, 0x00})},
      {"a CHARACTER STRING in primitive form", withParameter({0x1D, 0x00})},
      {"indefinite length outside", joinedBytes({{0x30, 0x80}, inside, {0x00, 0x00}})},
      {"indefinite length inside", value(0x30, {before, {0x30, 0x80}, identifier, {0x00, 0x00}, after})},
      {"a longer length than needed outside", joinedBytes({{0x30, 0x83, 0x00, upperLength, length}, inside})},
      {"a longer length than needed inside", value(0x30, {before, {0x30, 0x81, 0x0A}, identifier, after})},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    ASSERT_TRUE(opensslAccepts(row.der));  // else the row shows nothing
    EXPECT_FALSE(parse(row.der));
  }
}

TEST(CertificateParser, RefusesNestingThatWouldExhaustTheStack) {
  constexpr int kDepth = 500'000;
  ByteVector backwards;
  for (int depth = 0; depth < kDepth; ++depth) {
    const std::size_t length = backwards.size();
    int lengthBytes = 0;
    for (std::size_t rest = length; rest > 0 && length >= 0x80; rest >>= 8U, ++lengthBytes) {
      backwards.push_back(static_cast<std::uint8_t>(rest));
    }
    backwards.push_back(
        static_cast<std::uint8_t>(lengthBytes == 0 ? length : 0x80U + static_cast<unsigned>(lengthBytes)));
    backwards.push_back(0x30);
  }
  EXPECT_FALSE(parse({backwards.rbegin(), backwards.rend()}));
}

TEST(CertificateParser, LeavesTheErrorQueueOfOpensslAsItWas) {
  ERR_clear_error();
  const ByteVector good = makeCertificate({.keyUsages = {{0x03, 0x84, 0x80}}});
  EXPECT_TRUE(parse(good));
  EXPECT_FALSE(parse({0x30, 0x03, 0x02, 0x01, 0x00}));
  EXPECT_EQ(ERR_peek_error(), 0U);

  ERR_raise(ERR_LIB_USER, 42);
  const unsigned long before = ERR_peek_error();
  EXPECT_TRUE(parse(good));
  EXPECT_FALSE(parse({0x30, 0x03, 0x02, 0x01, 0x00}));
  EXPECT_EQ(ERR_get_error(), before);
  EXPECT_EQ(ERR_get_error(), 0U);
}

TEST(CertificateParser, ServesSeveralThreadsAtOnce) {
  const auto parser = systemCertificateParser();
  const Bytes der{makeCertificate({.keyUsages = {{0x03, 0x02, 0x07, 0x80}}})};
  std::atomic<int> numGood{0};
  const auto parseOften = [&] {
    for (int i = 0; i < 100; ++i) {
      const auto certificate = parser->createWithData(der);
      if (certificate && certificate->keyUsage() == 1 && certificate->keySizeInBits() == 256) ++numGood;
    }
  };
  test::runAtOnce({parseOften, parseOften});
  EXPECT_EQ(numGood, 200);
}

TEST(CertificateParser, RefusesANameThatIsNotInItsEncoding) {
  // A UTF8String of three bytes that becomes something else than UTF-8.
  const ByteVector good = makeCertificate({.subject = {{"CN", V_ASN1_UTF8STRING, "\xE2\x82\xAC"}}});
  ASSERT_TRUE(parse(good));
  EXPECT_FALSE(parse(replaced(good, {0x0C, 0x03, 0xE2, 0x82, 0xAC}, {0x0C, 0x03, 0xE2, 0x82, 0xFF})));
}

TEST(CertificateParser, ReadsCertificatesOfTheOpensslProgram) {
  const std::string organisation = R"(,O=Example\, Inc.,C=HU)";
  const struct {
    std::string name;
    CertificateKeyType type;
    int bits;
    std::optional<std::int32_t> usage;
  } rows[] = {
      {"rsa2048-sign", CertificateKeyType::kRSA, 2048, 0x003},
      {"rsa1024-encipher", CertificateKeyType::kRSA, 1024, 0x00C},
      {"p256-agree", CertificateKeyType::kECPrimeRandom, 256, 0x110},
      {"p521-none", CertificateKeyType::kECPrimeRandom, 521, std::nullopt},
      {"secp256k1-sign", CertificateKeyType::kOther, 256, 0x001},
      {"ed25519-sign", CertificateKeyType::kOther, 256, 0x001},
      {"p256-explicit-curve", CertificateKeyType::kOther, 256, 0x001},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::ifstream file{MIREL_CERTIFICATE_SEEDS "/" + row.name + ".der", std::ios::binary};
    const std::string content{std::istreambuf_iterator<char>{file}, {}};
    const auto certificate = parse(ByteVector(content.begin(), content.end()));
    ASSERT_TRUE(certificate);
    EXPECT_EQ(certificate->subject().toUtf8(), "CN=\xC3\x81gnes " + row.name + organisation);
    EXPECT_EQ(certificate->keyType(), row.type);
    EXPECT_EQ(certificate->keySizeInBits(), row.bits);
    EXPECT_EQ(certificate->keyUsage(), row.usage);
  }
}

TEST(CertificateSubject, ReadsAsOneLine) {
  const std::string unknownType = "1.3.6.1.4.1.99999.1";
  const struct {
    const char* description;
    std::vector<NameEntry> subject;
    std::string line;
  } rows[] = {
      {"no entries", {}, ""},
      {"the last entry first",
       {{"C", MBSTRING_UTF8, "HU"}, {"O", MBSTRING_UTF8, "Org"}, {"CN", MBSTRING_UTF8, "Ann"}},
       "CN=Ann,O=Org,C=HU"},
      // The order inside is free (section 2.2).
      {"two entries in one",
       {{"CN", MBSTRING_UTF8, "Ann"}, {"O", MBSTRING_UTF8, "Org", true}},
       "O=Org+CN=Ann"},
      {"letters beyond ASCII",
       {{"CN", MBSTRING_UTF8, "\xC3\x81gnes \xE2\x82\xAC \xF0\x9F\x94\x91"}},
       "CN=\xC3\x81gnes \xE2\x82\xAC \xF0\x9F\x94\x91"},
      {"Latin-1 letters", {{"CN", V_ASN1_T61STRING, "\xC1gnes"}}, "CN=\xC3\x81gnes"},
      {"two-byte letters", {{"CN", V_ASN1_BMPSTRING, "\x00\xC1\x20\xAC"s}}, "CN=\xC3\x81\xE2\x82\xAC"},
      // RFC 2253, section 2.4
      {"characters with a meaning",
       {{"CN", MBSTRING_UTF8, "a,b+c\"d\\e<f>g;h"}},
       R"(CN=a\,b\+c\"d\\e\<f\>g\;h)"},
      {"spaces at both ends", {{"CN", MBSTRING_UTF8, " a "}}, R"(CN=\ a\ )"},
      {"a number sign in front", {{"CN", MBSTRING_UTF8, "#1"}}, R"(CN=\#1)"},
      {"an unknown type", {{unknownType, V_ASN1_UTF8STRING, "A"}}, unknownType + "=#0C0141"},
      // Control characters
      {"a line end", {{"CN", MBSTRING_UTF8, "a\nb"}}, R"(CN=a\0Ab)"},
      {"NUL", {{"CN", MBSTRING_UTF8, "a\0b"s}}, R"(CN=a\00b)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    const auto certificate = parse(makeCertificate({.subject = row.subject}));
    ASSERT_TRUE(certificate);
    EXPECT_EQ(certificate->subject().toUtf8(), row.line);
    EXPECT_FALSE(certificate->subject().isNull());
  }
}

TEST(CertificateNotAfter, IsGivenInUtc) {
  const struct {
    int type;
    std::string encoded;
    std::u16string_view expected;
  } rows[] = {
      {V_ASN1_UTCTIME, "301231235959Z", u"2030-12-31T23:59:59Z"},
      // Two digits reach from 1950 to 2049 (RFC 5280, section 4.1.2.5.1).
      {V_ASN1_UTCTIME, "491231235959Z", u"2049-12-31T23:59:59Z"},
      {V_ASN1_UTCTIME, "500101000000Z", u"1950-01-01T00:00:00Z"},
      {V_ASN1_GENERALIZEDTIME, "20500101000000Z", u"2050-01-01T00:00:00Z"},
      {V_ASN1_GENERALIZEDTIME, "20240229120000Z", u"2024-02-29T12:00:00Z"},
      // No well-defined end (section 4.1.2.5)
      {V_ASN1_GENERALIZEDTIME, "99991231235959Z", u"9999-12-31T23:59:59Z"},
      {V_ASN1_GENERALIZEDTIME, "00010203040506Z", u"0001-02-03T04:05:06Z"},
      // Not allowed there, but clear
      {V_ASN1_UTCTIME, "301231235959+0130", u"2030-12-31T22:29:59Z"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.encoded);
    const auto certificate = parse(makeCertificate({.notAfterType = row.type, .notAfter = row.encoded}));
    ASSERT_TRUE(certificate);
    EXPECT_EQ(certificate->notAfter(), Text{row.expected});
  }
}

// Newer parsers do not even take a certificate with some of these.
TEST(CertificateNotAfter, IsNullWhenItCannotBeRead) {
  const struct {
    const char* description;
    int type;
    std::string encoded;
  } rows[] = {
      {"empty", V_ASN1_UTCTIME, ""},
      {"no time", V_ASN1_UTCTIME, "tomorrow"},
      {"month 13", V_ASN1_UTCTIME, "301331235959Z"},
      {"30 February", V_ASN1_UTCTIME, "300230000000Z"},
      {"hour 24", V_ASN1_UTCTIME, "301231240000Z"},
      {"four digits of a year where two belong", V_ASN1_UTCTIME, "20301231235959Z"},
      {"two digits of a year where four belong", V_ASN1_GENERALIZEDTIME, "301231235959Z"},
      {"NULs", V_ASN1_GENERALIZEDTIME, std::string(15, '\0')},
      {"beyond the year 9999", V_ASN1_GENERALIZEDTIME, "99991231235959-0100"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    const auto certificate = parse(makeCertificate({.notAfterType = row.type, .notAfter = row.encoded}));
    if (!certificate) continue;
    EXPECT_TRUE(certificate->notAfter().isNull()) << certificate->notAfter().toUtf8();
  }
}

TEST(CertificateKey, IsNamedByAlgorithmAndCurve) {
  KeyHolder explicitCurve = makeEcKey("P-256");
  ASSERT_EQ(EVP_PKEY_set_utf8_string_param(explicitCurve.get(), OSSL_PKEY_PARAM_EC_ENCODING, "explicit"), 1);
  const struct {
    const char* description;
    KeyHolder key;
    CertificateKeyType type;
    int bits;
  } rows[] = {
      {"RSA 1024", makeRsaKey(1024), CertificateKeyType::kRSA, 1024},
      {"RSA 1031, no whole number of bytes", makeRsaKey(1031), CertificateKeyType::kRSA, 1031},
      {"RSA 2048", makeRsaKey(2048), CertificateKeyType::kRSA, 2048},
      {"P-192", makeEcKey("P-192"), CertificateKeyType::kECPrimeRandom, 192},
      {"P-224", makeEcKey("P-224"), CertificateKeyType::kECPrimeRandom, 224},
      {"P-256", makeEcKey("P-256"), CertificateKeyType::kECPrimeRandom, 256},
      {"P-384", makeEcKey("P-384"), CertificateKeyType::kECPrimeRandom, 384},
      {"P-521", makeEcKey("P-521"), CertificateKeyType::kECPrimeRandom, 521},
      // Curves and algorithms that the keychain has no name for
      {"secp256k1", makeEcKey("secp256k1"), CertificateKeyType::kOther, 256},
      {"brainpoolP384r1", makeEcKey("brainpoolP384r1"), CertificateKeyType::kOther, 384},
      {"a curve over a binary field", makeEcKey("B-283"), CertificateKeyType::kOther, 282},
      {"RSA bound to one padding", makeRsaPssKey(1024), CertificateKeyType::kOther, 1024},
      {"Ed25519", makeKey("ED25519"), CertificateKeyType::kOther, 256},
      {"X25519", makeKey("X25519"), CertificateKeyType::kOther, 253},
      {"SM2", makeEcKey("SM2"), CertificateKeyType::kOther, 256},
      {"a curve that is written out", std::move(explicitCurve), CertificateKeyType::kOther, 256},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    const auto certificate = parse(makeCertificate({.key = row.key.get()}));
    ASSERT_TRUE(certificate);
    EXPECT_EQ(certificate->keyType(), row.type);
    EXPECT_EQ(certificate->keySizeInBits(), row.bits);
  }
}

TEST(CertificateKey, HasNoTypeWhenItCannotBeRead) {
  // rsaEncryption as in every RSA certificate, but the key is no RSAPublicKey any more: its outer tag
  // is broken. The bit string begins 03 81 8D 00 30 81 89 02 81 81 for 1024 bits.
  const ByteVector rsa = makeCertificate({.key = makeRsaKey(1024).get()});
  const ByteVector noKey =
      replaced(rsa, {0x00, 0x30, 0x81, 0x89, 0x02, 0x81, 0x81}, {0x00, 0x31, 0x81, 0x89, 0x02, 0x81, 0x81});
  // A point that is not on its curve.
  const KeyHolder ecKey = makeEcKey("P-384");
  ByteVector noPoint = makeCertificate({.key = ecKey.get()});
  const ByteVector pointStart{0x03, 0x62, 0x00, 0x04};
  const auto point = std::search(noPoint.begin(), noPoint.end(), pointStart.begin(), pointStart.end());
  ASSERT_NE(point, noPoint.end());
  *(point + 50) ^= 0x01U;
  for (const ByteVector& der : {noKey, noPoint}) {
    const auto certificate = parse(der);
    ASSERT_TRUE(certificate);
    EXPECT_EQ(certificate->keyType(), CertificateKeyType::kOther);
    EXPECT_EQ(certificate->keySizeInBits(), 0);
  }
}

}  // namespace
}  // namespace mirel
