#include "platform/KeyUsage.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "CertificateBuilder.h"
#include "platform/Certificate.h"

namespace mirel {
namespace {

const ByteVector kSigning{0x03, 0x02, 0x07, 0x80};
constexpr std::int32_t kSigningBits = 0x001;

std::shared_ptr<SecCertificate> parse(const ByteVector& der) {
  return systemCertificateParser()->createWithData(Bytes{der});
}

/// What OpenSSL reads of the extension's value, as long as that is DER.
std::optional<std::int32_t> openSslUsageOfExtension(const ASN1_OCTET_STRING* value) {
  const unsigned char* const first = ASN1_STRING_get0_data(value);
  const int size = ASN1_STRING_length(value);
  const unsigned char* next = first;
  long length = 0;
  int tag = 0;
  int tagClass = 0;
  const int form = ASN1_get_object(&next, &length, &tag, &tagClass, size);
  const bool isDer = form == 0 && ASN1_object_size(0, static_cast<int>(length), tag) == size;
  next = first;
  const std::unique_ptr<ASN1_BIT_STRING, decltype(&ASN1_BIT_STRING_free)> bits{
      isDer ? d2i_ASN1_BIT_STRING(nullptr, &next, size) : nullptr, &ASN1_BIT_STRING_free};
  constexpr long kUnusedBits = 7;  // within the flags
  if (!bits || next != first + size || (bits->length == 0 && (bits->flags & kUnusedBits) != 0))
    return std::nullopt;
  std::int32_t usage = 0;
  for (int bit = 0; bit < 9; ++bit) usage |= ASN1_BIT_STRING_get_bit(bits.get(), bit) << bit;
  return usage;
}

/// The reference: the key usage as OpenSSL reads it.
std::optional<std::int32_t> openSslUsageOf(const X509& x509) {
  const int index = X509_get_ext_by_NID(&x509, NID_key_usage, -1);
  if (index < 0 || X509_get_ext_by_NID(&x509, NID_key_usage, index) >= 0) return std::nullopt;
  return openSslUsageOfExtension(X509_EXTENSION_get_data(X509_get_ext(&x509, index)));
}

/// The bits, which must be those that OpenSSL reads if both parsers take the certificate at all.
std::optional<std::int32_t> usageOf(const ByteVector& der) {
  const auto usage = keyUsageOfCertificate(der);
  if (const auto certificate = parse(der)) {
    EXPECT_EQ(certificate->keyUsage(), usage);
    const unsigned char* next = der.data();
    const std::unique_ptr<X509, OpenSslFree> x509{d2i_X509(nullptr, &next, static_cast<long>(der.size()))};
    if (x509) {
      EXPECT_EQ(openSslUsageOf(*x509), usage);
    }
  }
  return usage;
}

/// Of a certificate with that content of its extension, which the system's parser takes whatever it is.
std::optional<std::int32_t> usageOfExtension(const ByteVector& content) {
  const ByteVector der = makeCertificate({.keyUsages = {content}});
  EXPECT_TRUE(parse(der));
  return usageOf(der);
}

const ByteVector kIdentifier{0x06, 0x03, 0x55, 0x1D, 0x0F};
const ByteVector kCritical{0x01, 0x01, 0xFF};
const ByteVector kValue = value(0x04, {kSigning});
const ByteVector kKeyUsage = value(0x30, {kIdentifier, kCritical, kValue});
const ByteVector kBasicConstraints =
    value(0x30, {{0x06, 0x03, 0x55, 0x1D, 0x13}, value(0x04, {{0x30, 0x00}})});
/// Named with one more number than the key usage, and with one less.
const ByteVector kLongerIdentifier = value(0x30, {{0x06, 0x04, 0x55, 0x1D, 0x0F, 0x01}, kValue});
const ByteVector kShorterIdentifier = value(0x30, {{0x06, 0x02, 0x55, 0x1D}, kValue});

ByteVector extensions(std::initializer_list<ByteVector> list) { return value(0xA3, {value(0x30, list)}); }

/// The parts of a certificate (RFC 5280, section 4.1), each whole.
struct Parts {
  ByteVector version{0xA0, 0x03, 0x02, 0x01, 0x02};
  ByteVector serialNumber{0x02, 0x01, 0x07};
  ByteVector algorithm{0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
  ByteVector issuer{0x30, 0x00};
  ByteVector validity =
      value(0x30, {{0x17, 0x0D, '2', '0', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z'},
                   {0x17, 0x0D, '3', '0', '1', '2', '3', '1', '2', '3', '5', '9', '5', '9', 'Z'}});
  ByteVector subject{0x30, 0x00};
  ByteVector publicKey =
      value(0x30, {{0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00},
                   {0x03, 0x09, 0x00, 0x30, 0x06, 0x02, 0x01, 0x7F, 0x02, 0x01, 0x03}});
  ByteVector uniqueIds{};
  ByteVector extensions = mirel::extensions({kKeyUsage});
  ByteVector signature{0x03, 0x02, 0x00, 0x00};
};

ByteVector toBeSigned(const Parts& parts) {
  return value(0x30, {parts.version, parts.serialNumber, parts.algorithm, parts.issuer, parts.validity,
                      parts.subject, parts.publicKey, parts.uniqueIds, parts.extensions});
}

ByteVector certificate(const Parts& parts) {
  return value(0x30, {toBeSigned(parts), parts.algorithm, parts.signature});
}

/// With these extensions, each of them whole.
ByteVector certificateWith(std::initializer_list<ByteVector> list) {
  return certificate({.extensions = extensions(list)});
}

ByteVector contentOfFile(const std::filesystem::path& path) {
  std::ifstream file{path, std::ios::binary};
  const std::string content{std::istreambuf_iterator<char>{file}, {}};
  return {content.begin(), content.end()};
}

TEST(KeyUsage, TakesBitNOfTheBitStringAsBitN) {
  const struct {
    const char* description;
    ByteVector extension;
    std::int32_t usage;
  } rows[] = {
      {"digitalSignature", {0x03, 0x02, 0x07, 0x80}, 0x001},
      {"nonRepudiation", {0x03, 0x02, 0x06, 0x40}, 0x002},
      {"keyEncipherment", {0x03, 0x02, 0x05, 0x20}, 0x004},
      {"dataEncipherment", {0x03, 0x02, 0x04, 0x10}, 0x008},
      {"keyAgreement", {0x03, 0x02, 0x03, 0x08}, 0x010},
      {"keyCertSign", {0x03, 0x02, 0x02, 0x04}, 0x020},
      {"cRLSign", {0x03, 0x02, 0x01, 0x02}, 0x040},
      {"encipherOnly", {0x03, 0x02, 0x00, 0x01}, 0x080},
      {"decipherOnly", {0x03, 0x03, 0x07, 0x00, 0x80}, 0x100},
      {"digitalSignature and nonRepudiation", {0x03, 0x02, 0x06, 0xC0}, 0x003},
      {"digitalSignature and keyEncipherment", {0x03, 0x02, 0x05, 0xA0}, 0x005},
      {"keyAgreement and encipherOnly", {0x03, 0x02, 0x00, 0x09}, 0x090},
      {"keyAgreement and decipherOnly", {0x03, 0x03, 0x07, 0x08, 0x80}, 0x110},
      {"all nine", {0x03, 0x03, 0x07, 0xFF, 0x80}, 0x1FF},
      {"an empty bit string", {0x03, 0x01, 0x00}, 0x000},
      {"NULs", {0x03, 0x03, 0x00, 0x00, 0x00}, 0x000},
      // Longer than needed, but clear
      {"zeros at the end", {0x03, 0x02, 0x00, 0x80}, 0x001},
      {"unused bits that are set", {0x03, 0x02, 0x07, 0xFF}, 0x001},
      {"unused bits that are set in the second byte", {0x03, 0x03, 0x07, 0x00, 0x7F}, 0x000},
      {"bits without a name", {0x03, 0x05, 0x00, 0x20, 0x7F, 0xFF, 0xFF}, 0x004},
  };
  for (const auto& row : rows) EXPECT_EQ(usageOfExtension(row.extension), row.usage) << row.description;
}

TEST(KeyUsage, IsMissingWithoutTheExtensionOrWhenItStandsTwice) {
  EXPECT_EQ(usageOf(makeCertificate()), std::nullopt);
  EXPECT_EQ(usageOf(makeCertificate({.keyUsages = {kSigning, kSigning}})), std::nullopt);
  EXPECT_EQ(usageOf(certificateWith({kKeyUsage, kBasicConstraints, kKeyUsage})), std::nullopt);
  EXPECT_EQ(usageOf(certificateWith({})), std::nullopt);
  EXPECT_EQ(usageOf(certificateWith({kBasicConstraints})), std::nullopt);
  EXPECT_EQ(usageOf(certificateWith({kLongerIdentifier, kShorterIdentifier})), std::nullopt);
}

TEST(KeyUsage, IsMissingWhenTheBitStringCannotBeRead) {
  const std::pair<const char*, ByteVector> rows[] = {
      {"nothing", {}},
      {"one NUL", {0x00}},
      {"NULs", {0x00, 0x00, 0x00, 0x00}},
      {"all-ones", {0xFF, 0xFF, 0xFF, 0xFF}},
      {"a tag alone", {0x03}},
      {"length 0", {0x03, 0x00}},
      {"length 1 without its byte", {0x03, 0x01}},
      {"one byte short", {0x03, 0x02, 0x07}},
      {"two bytes short", {0x03, 0x03, 0x07}},
      {"an unused bit without a byte to be in", {0x03, 0x01, 0x01}},
      {"five unused bits without a byte to be in", {0x03, 0x01, 0x05}},
      {"eight unused bits", {0x03, 0x02, 0x08, 0x80}},
      {"255 unused bits", {0x03, 0x02, 0xFF, 0x80}},
      {"a byte behind it", {0x03, 0x02, 0x07, 0x80, 0x00}},
      {"a second bit string behind it", {0x03, 0x02, 0x07, 0x80, 0x03, 0x02, 0x07, 0x80}},
      {"an OCTET STRING", {0x04, 0x02, 0x07, 0x80}},
      {"an INTEGER", {0x02, 0x02, 0x07, 0x80}},
      {"a SEQUENCE around it", {0x30, 0x04, 0x03, 0x02, 0x07, 0x80}},
      {"of class context", {0x83, 0x02, 0x07, 0x80}},
      {"pieces", {0x23, 0x04, 0x03, 0x02, 0x07, 0x80}},
      {"pieces of indefinite length", {0x23, 0x80, 0x03, 0x02, 0x07, 0x80, 0x00, 0x00}},
      {"its tag in two bytes", {0x1F, 0x03, 0x02, 0x07, 0x80}},
      // Lengths
      {"indefinite", {0x03, 0x80, 0x07, 0x80, 0x00, 0x00}},
      {"indefinite, with nothing behind it", {0x03, 0x80}},
      {"a longer length than needed", {0x03, 0x81, 0x02, 0x07, 0x80}},
      {"a length of two bytes that begins with 0", {0x03, 0x82, 0x00, 0x02, 0x07, 0x80}},
      {"a length that is cut short", {0x03, 0x82, 0x01}},
      {"2^31", {0x03, 0x84, 0x80, 0x00, 0x00, 0x00, 0x07, 0x80}},
      {"2^31 - 1", {0x03, 0x84, 0x7F, 0xFF, 0xFF, 0xFF, 0x07, 0x80}},
      {"2^32 + 2", {0x03, 0x85, 0x01, 0x00, 0x00, 0x00, 0x02, 0x07, 0x80}},
      {"2^64 - 1", {0x03, 0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x07, 0x80}},
      {"2^64 + 2", {0x03, 0x89, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x07, 0x80}},
      {"the length that no value has", {0x03, 0xFF, 0x07, 0x80}},
  };
  for (const auto& [description, extension] : rows)
    EXPECT_EQ(usageOfExtension(extension), std::nullopt) << description;
}

TEST(KeyUsage, TakesALengthOfTheShortestForm) {
  // 127 and 256 bytes lie on either side of where a length becomes one byte longer.
  for (const std::size_t size : {0x7FU, 0x80U, 0xFFU, 0x100U, 0x1000U}) {
    SCOPED_TRACE(size);
    ByteVector content(size, 0x00);
    content.at(1) = 0x20;
    EXPECT_EQ(usageOfExtension(value(0x03, {content})), 0x004);
  }
  // 2^64 + 128 bytes, of which 128 are there
  const ByteVector tooLong{0x03, 0x89, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80};
  EXPECT_EQ(usageOfExtension(joinedBytes({tooLong, ByteVector(0x80, 0x00)})), std::nullopt);
  // 127 bytes, whose length needs no second byte
  ByteVector longer = value(0x03, {ByteVector(0x7F, 0x00)});
  longer.insert(longer.begin() + 1, 0x81);
  EXPECT_EQ(usageOfExtension(longer), std::nullopt);
  // 255 bytes, whose length needs no third
  longer = value(0x03, {ByteVector(0xFF, 0x00)});
  longer.at(1) = 0x82;
  longer.insert(longer.begin() + 2, 0x00);
  EXPECT_EQ(usageOfExtension(longer), std::nullopt);
}

TEST(KeyUsage, IsFoundWhateverStandsAroundIt) {
  const std::pair<const char*, ByteVector> rows[] = {
      {"alone", certificateWith({kKeyUsage})},
      {"behind another", certificateWith({kBasicConstraints, kKeyUsage})},
      {"before another", certificateWith({kKeyUsage, kBasicConstraints})},
      {"among names like its own", certificateWith({kLongerIdentifier, kKeyUsage, kShorterIdentifier})},
      {"not marked", certificateWith({value(0x30, {kIdentifier, kValue})})},
      {"marked as not critical", certificateWith({value(0x30, {kIdentifier, {0x01, 0x01, 0x00}, kValue})})},
      {"no version", certificate({.version = {}})},
      {"an issuer's number", certificate({.uniqueIds = {0x81, 0x02, 0x00, 0x01}})},
      {"a subject's number", certificate({.uniqueIds = {0x82, 0x02, 0x00, 0x01}})},
      {"both", certificate({.uniqueIds = {0x81, 0x02, 0x00, 0x01, 0x82, 0x02, 0x00, 0x01}})},
  };
  for (const auto& [description, der] : rows) {
    SCOPED_TRACE(description);
    EXPECT_TRUE(parse(der));
    EXPECT_EQ(usageOf(der), kSigningBits);
  }
}

TEST(KeyUsage, IsMissingWhenTheWayToItIsNotACertificates) {
  const ByteVector good = certificate({});
  const ByteVector inside = toBeSigned({});
  const ByteVector algorithm = Parts{}.algorithm;
  const ByteVector signature = Parts{}.signature;
  const std::pair<const char*, ByteVector> rows[] = {
      {"a SET", value(0x31, {inside, algorithm, signature})},
      {"what is to be signed alone", inside},
      {"no algorithm", value(0x30, {inside, signature})},
      {"no signature", value(0x30, {inside, algorithm})},
      {"a signature of another type", certificate({.signature = {0x04, 0x02, 0x00, 0x00}})},
      {"a value behind the signature", value(0x30, {inside, algorithm, signature, {0x05, 0x00}})},
      // Inside
      {"a version of another tag", certificate({.version = {0xA1, 0x03, 0x02, 0x01, 0x02}})},
      {"no serial number", certificate({.serialNumber = {}})},
      {"a serial number of another type", certificate({.serialNumber = {0x04, 0x01, 0x07}})},
      {"no issuer", certificate({.issuer = {}})},
      {"an issuer too many", certificate({.issuer = {0x30, 0x00, 0x30, 0x00}})},
      {"a public key of another type", certificate({.publicKey = {0x31, 0x00}})},
      {"unique numbers in the wrong order",
       certificate({.uniqueIds = {0x82, 0x02, 0x00, 0x01, 0x81, 0x02, 0x00, 0x01}})},
      {"extensions before a unique number",
       certificate({.extensions = joinedBytes({extensions({kKeyUsage}), {0x82, 0x02, 0x00, 0x01}})})},
      {"extensions twice",
       certificate({.extensions = joinedBytes({extensions({kKeyUsage}), extensions({kKeyUsage})})})},
      // The list of extensions
      {"no extensions", certificate({.extensions = {}})},
      {"extensions without a list", certificate({.extensions = {0xA3, 0x00}})},
      {"a list of another type", certificate({.extensions = value(0xA3, {value(0x31, {kKeyUsage})})})},
      {"a list without its tag", certificate({.extensions = value(0x30, {kKeyUsage})})},
      {"two lists", certificate({.extensions = value(
                                     0xA3, {value(0x30, {kKeyUsage}), value(0x30, {kBasicConstraints})})})},
      // An extension
      {"of another type", certificateWith({value(0x31, {kIdentifier, kValue})})},
      {"without a name", certificateWith({value(0x30, {kValue})})},
      {"without a value", certificateWith({value(0x30, {kIdentifier, kCritical})})},
      {"with a value of another type", certificateWith({value(0x30, {kIdentifier, kSigning})})},
      {"with two values", certificateWith({value(0x30, {kIdentifier, kValue, kValue})})},
      {"marked twice", certificateWith({value(0x30, {kIdentifier, kCritical, kCritical, kValue})})},
      {"marked by no byte", certificateWith({value(0x30, {kIdentifier, {0x01, 0x00}, kValue})})},
      {"marked by two bytes",
       certificateWith({value(0x30, {kIdentifier, {0x01, 0x02, 0xFF, 0xFF}, kValue})})},
      {"marked behind its value", certificateWith({value(0x30, {kIdentifier, kValue, kCritical})})},
      {"before one that is not one", certificateWith({kKeyUsage, {0x30, 0x00}})},
      {"behind one that is not one", certificateWith({{0x05, 0x00}, kKeyUsage})},
  };
  for (const auto& [description, der] : rows) EXPECT_EQ(usageOf(der), std::nullopt) << description;
  for (const auto& [description, der] : noCertificates())
    EXPECT_EQ(usageOf(der), std::nullopt) << description;
}

TEST(KeyUsage, IsNotReadWhenSomethingFollowsTheCertificate) {
  const ByteVector good = certificateWith({kKeyUsage});
  for (const ByteVector& behind : {ByteVector{0x00}, ByteVector(512, 0x00), ByteVector(3, 0xFF), good}) {
    EXPECT_EQ(usageOf(joinedBytes({good, behind})), std::nullopt);
  }
}

TEST(KeyUsage, IsNotReadFromPieces) {
  // The same value, its only piece an OCTET STRING: allowed by BER, which other parsers take.
  const ByteVector inPieces = value(0x24, {kValue});
  EXPECT_EQ(keyUsageOfCertificate(certificateWith({value(0x30, {kIdentifier, inPieces})})), std::nullopt);
}

TEST(KeyUsage, IsMissingFromACertificateThatIsCutShort) {
  const ByteVector good = makeCertificate({.keyUsages = {kSigning}});
  ASSERT_EQ(usageOf(good), kSigningBits);
  for (std::size_t size = 0; size < good.size(); ++size) {
    // In a block of its own, so that a byte read too far is found.
    EXPECT_EQ(usageOf({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)}), std::nullopt)
        << size;
  }
}

TEST(KeyUsage, AgreesWithOpenSslWhicheverByteChanges) {
  ByteVector der = certificate({.extensions = extensions({kBasicConstraints, kKeyUsage})});
  int numOtherUsages = 0;
  for (std::size_t i = 0; i < der.size(); ++i) {
    for (int change = 1; change <= 0xFF; ++change) {
      const std::uint8_t before = der[i];
      der[i] = static_cast<std::uint8_t>(before ^ change);
      const auto usage = usageOf(der);
      ASSERT_FALSE(HasFailure()) << "byte " << i << " is " << int{der[i]};
      if (usage && usage != kSigningBits && parse(der)) ++numOtherUsages;
      der[i] = before;
    }
  }
  EXPECT_GT(numOtherUsages, 100) << "several changes leave a certificate of another use";
}

TEST(KeyUsage, AgreesWithOpenSslOnFiles) {
  int numWithUsage = 0;
  int numFiles = 0;
  for (const auto& entry : std::filesystem::directory_iterator{MIREL_CERTIFICATE_SEEDS}) {
    SCOPED_TRACE(entry.path().filename());
    ++numFiles;
    if (usageOf(contentOfFile(entry.path()))) ++numWithUsage;
  }
  EXPECT_GE(numFiles, 20);
  EXPECT_GE(numWithUsage, 6);  // the certificates of the OpenSSL program, one of which has none
}

}  // namespace
}  // namespace mirel
