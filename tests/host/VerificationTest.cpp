#include "host/Verification.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <algorithm>

#include "host/SoftwareKey.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using enum SecKeyAlgorithm;

constexpr const char* kDoesNotVerify = "the signature does not verify with the public key of the certificate";
constexpr const char* kTrouble = "C_Sign answered CKR_DEVICE_ERROR (0x30)";
constexpr unsigned kBits = 2048;

const Value kMessage = bytesOf("a message");

/// An algorithm with digest, hash and padding as OpenSSL has to use them.
struct Row {
  SecKeyAlgorithm algorithm;
  const char* hash;
  int padding = 0;
  int saltLen = 0;
};

const Row kRsaRows[] = {
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA1, "SHA1", RSA_PKCS1_PSS_PADDING, 20},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA224, "SHA224", RSA_PKCS1_PSS_PADDING, 28},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, "SHA256", RSA_PKCS1_PSS_PADDING, 32},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA384, "SHA384", RSA_PKCS1_PSS_PADDING, 48},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA512, "SHA512", RSA_PKCS1_PSS_PADDING, 64},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA1, "SHA1", RSA_PKCS1_PSS_PADDING, 20},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA224, "SHA224", RSA_PKCS1_PSS_PADDING, 28},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, "SHA256", RSA_PKCS1_PSS_PADDING, 32},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA384, "SHA384", RSA_PKCS1_PSS_PADDING, 48},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA512, "SHA512", RSA_PKCS1_PSS_PADDING, 64},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1, "SHA1", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224, "SHA224", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256, "SHA256", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384, "SHA384", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512, "SHA512", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1, "SHA1", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224, "SHA224", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, "SHA256", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384, "SHA384", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512, "SHA512", RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, nullptr, RSA_PKCS1_PADDING},
    {kSecKeyAlgorithmRSASignatureRaw, nullptr, RSA_NO_PADDING},
};

const Row kEcRows[] = {
    {kSecKeyAlgorithmECDSASignatureDigestX962, nullptr},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA1, "SHA1"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA224, "SHA224"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, "SHA256"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, "SHA384"},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, "SHA512"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA1, "SHA1"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA224, "SHA224"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA256, "SHA256"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA384, "SHA384"},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA512, "SHA512"},
};

[[nodiscard]] PublishedCertificate certificateOf(const SoftwareKey& key) {
  PublishedCertificate certificate;
  certificate.data = Bytes{key.certificate()};
  return certificate;
}

[[nodiscard]] PublishedKey publishedKey(const SoftwareKey& key, CertificateKeyType type) {
  PublishedKey published;
  published.objectID = Text{u"01"};
  published.certificateID = Text{u"cert_MyKey_01"};
  published.keyType = type;
  published.keySizeInBits = key.bits();
  return published;
}

/// What the row's algorithm works on.
[[nodiscard]] Value dataFor(const Row& row, const SoftwareKey& key) {
  if (row.hash) return softwareDigest(row.hash, kMessage);
  if (row.padding != RSA_NO_PADDING) return patternValue(32, 1);
  Value block = patternValue(key.blockSize(), 1);
  block.front() = 0x00;
  return block;
}

[[nodiscard]] Signature signatureBy(const SoftwareKey& key, const Row& row) {
  const Value data = dataFor(row, key);
  return {Bytes{key.signature(data, row.hash, row.padding, row.saltLen)}, row.algorithm, Bytes{data}, ""};
}

[[nodiscard]] Bytes altered(const Bytes& bytes) {
  Value value(bytes.view().begin(), bytes.view().end());
  value.back() = static_cast<CK_BYTE>(value.back() ^ 1U);
  return Bytes{value};
}

/// With an RSA key and a good signature by PSS.
class SignatureTrouble : public ::testing::Test {
 protected:
  [[nodiscard]] std::string trouble(SecKeyAlgorithm algorithm) const {
    return signatureTrouble(certificate, published, algorithm, signature);
  }
  [[nodiscard]] std::string trouble() const { return trouble(kPss.algorithm); }

  static inline const Row kPss{kSecKeyAlgorithmRSASignatureMessagePSSSHA256, "SHA256", RSA_PKCS1_PSS_PADDING,
                               32};

  const SoftwareKey& key = SoftwareKey::rsa(kBits);
  PublishedCertificate certificate = certificateOf(key);
  PublishedKey published = publishedKey(key, CertificateKeyType::kRSA);
  Signature signature = signatureBy(key, kPss);
};

// ---- Good and altered ones ----

TEST_F(SignatureTrouble, IsNoneWithAGoodSignatureOfAnRsaKey) {
  for (const Row& row : kRsaRows) {
    SCOPED_TRACE(nameOf(row.algorithm));
    signature = signatureBy(key, row);
    EXPECT_EQ(trouble(row.algorithm), "");
  }
}

TEST_F(SignatureTrouble, IsThereWithAnAlteredSignatureOfAnRsaKey) {
  for (const Row& row : kRsaRows) {
    SCOPED_TRACE(nameOf(row.algorithm));
    const Signature good = signatureBy(key, row);
    signature = good;
    signature.value = altered(good.value);
    EXPECT_EQ(trouble(row.algorithm), kDoesNotVerify);
    signature = good;
    signature.data = altered(good.data);
    EXPECT_EQ(trouble(row.algorithm), kDoesNotVerify);
  }
}

TEST(EcSignatureTrouble, IsNoneWithAGoodSignatureAlone) {
  for (const char* curve : {"P-256", "P-384"}) {
    const SoftwareKey& key = SoftwareKey::ec(curve);
    const PublishedCertificate certificate = certificateOf(key);
    const PublishedKey published = publishedKey(key, CertificateKeyType::kECPrimeRandom);
    for (const Row& row : kEcRows) {
      SCOPED_TRACE(std::string{curve} + " " + std::string{nameOf(row.algorithm)});
      Signature signature = signatureBy(key, row);
      EXPECT_EQ(signatureTrouble(certificate, published, row.algorithm, signature), "");
      const Bytes data = signature.data;
      signature.data = altered(data);
      // A curve takes no more of a digest than its order is long.
      const bool lastByteCounts = data.size() * 8 <= static_cast<std::size_t>(key.bits());
      EXPECT_EQ(signatureTrouble(certificate, published, row.algorithm, signature),
                lastByteCounts ? kDoesNotVerify : "");
      signature.data = data;
      signature.value = altered(signature.value);
      EXPECT_EQ(signatureTrouble(certificate, published, row.algorithm, signature), kDoesNotVerify);
    }
  }
}

TEST_F(SignatureTrouble, IsThereWithAnotherKeysSignature) {
  signature = signatureBy(SoftwareKey::otherRsa(kBits), kPss);
  EXPECT_EQ(trouble(), kDoesNotVerify);
}

TEST_F(SignatureTrouble, IsThereWithASignatureByAnotherAlgorithm) {
  EXPECT_EQ(trouble(kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256), kDoesNotVerify);
  EXPECT_EQ(trouble(kSecKeyAlgorithmRSASignatureMessagePSSSHA384), kDoesNotVerify);
}

TEST_F(SignatureTrouble, IsThereWithASaltOfAnotherSize) {
  Row row = kPss;
  row.saltLen = 20;
  signature = signatureBy(key, row);
  EXPECT_EQ(trouble(), kDoesNotVerify);
}

TEST_F(SignatureTrouble, IsThereWithASignatureOfAnotherSize) {
  Value value(signature.value.view().begin(), signature.value.view().end());
  value.pop_back();
  signature.value = Bytes{value};
  EXPECT_EQ(trouble(), "the signature has 255 bytes, one by this key has 256");
  value.resize(512);
  signature.value = Bytes{value};
  EXPECT_EQ(trouble(), "the signature has 512 bytes, one by this key has 256");
}

TEST_F(SignatureTrouble, IsThereWithAKeyOfAnotherKind) {
  certificate = certificateOf(SoftwareKey::ec("P-256"));
  EXPECT_EQ(trouble(), kDoesNotVerify);
}

TEST_F(SignatureTrouble, NamesWhatWentWrongInTheCard) {
  signature.value = altered(signature.value);
  signature.cardTrouble = kTrouble;
  EXPECT_EQ(trouble(), std::string{kDoesNotVerify} + " (" + kTrouble + ")");
}

// ---- Certificates that are none ----

TEST_F(SignatureTrouble, IsThereWithoutAReadableCertificate) {
  for (const Bytes& data : {Bytes{}, Bytes{Value{}}, Bytes{patternValue(100, 1)}}) {
    certificate.data = data;
    EXPECT_EQ(trouble(), "the public key of the certificate cannot be read");
  }
}

// ---- No signature ----

TEST_F(SignatureTrouble, TellsAnEmptySignature) {
  signature.value = Bytes{Value{}};
  EXPECT_EQ(trouble(), "the signature is empty");
  signature.value = Bytes{};
  EXPECT_EQ(trouble(), "the signature is empty");
  signature.cardTrouble = kTrouble;
  EXPECT_EQ(trouble(), std::string{"the signature is empty ("} + kTrouble + ")");
}

TEST_F(SignatureTrouble, TellsThatLongKeysDoNotSign) {
  signature.value = Bytes{};
  published.keySizeInBits = 2048;
  EXPECT_THAT(trouble(), Not(HasSubstr("2048")));
  published.keySizeInBits = 2049;
  EXPECT_THAT(trouble(), HasSubstr("RSA keys above 2048 bits do not sign"));
  signature.cardTrouble = kTrouble;
  EXPECT_THAT(trouble(), HasSubstr(kTrouble));
}

TEST_F(SignatureTrouble, TellsThatEcKeysDoNotSign) {
  signature.value = Bytes{};
  published = publishedKey(SoftwareKey::ec("P-256"), CertificateKeyType::kECPrimeRandom);
  EXPECT_THAT(trouble(kSecKeyAlgorithmECDSASignatureDigestX962SHA256), HasSubstr("only RSA keys sign"));
  signature.cardTrouble = kTrouble;
  EXPECT_THAT(trouble(kSecKeyAlgorithmECDSASignatureDigestX962SHA256), HasSubstr(kTrouble));
}

TEST_F(SignatureTrouble, TellsThatAKeyNamedPssHandsNothingOut) {
  signature.value = Bytes{};
  published.certificateID = Text{u"cert_My pss key_01"};
  EXPECT_THAT(trouble(), HasSubstr("a key with PSS in its name"));
  signature.cardTrouble = kTrouble;
  EXPECT_THAT(trouble(), HasSubstr(kTrouble));
}

// ---- Zeros ----

TEST_F(SignatureTrouble, TellsThatZerosAreNoSignature) {
  signature.value = Bytes{Value(key.blockSize())};
  EXPECT_EQ(trouble(), "the signature is all zeros: the card layer handed none out");
}

TEST_F(SignatureTrouble, TellsThatZerosAreWhatAKeyNamedPssGives) {
  signature.value = Bytes{Value(key.blockSize())};
  published.certificateID = Text{u"cert_My pss key_01"};
  EXPECT_THAT(trouble(), HasSubstr("a key with PSS in its name"));
}

TEST_F(SignatureTrouble, TellsThatZerosMeanTroubleInTheCard) {
  signature.value = Bytes{Value(key.blockSize())};
  signature.cardTrouble = kTrouble;
  EXPECT_EQ(trouble(), std::string{"the signature is all zeros: the card made none ("} + kTrouble + ")");
}

// ---- Signatures without padding ----

/// DigestInfo of the digest with SHA-256 (RFC 8017, section 9.2, note 1).
[[nodiscard]] Value digestInfoOf(const Value& digest) {
  Value info{0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
             0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  info.insert(info.end(), digest.begin(), digest.end());
  return info;
}

[[nodiscard]] Value afterZeros(const Value& data, std::size_t size) {
  Value block(size - data.size());
  block.insert(block.end(), data.begin(), data.end());
  return block;
}

TEST_F(SignatureTrouble, ExplainsAModuleThatDoesNotPad) {
  const Value digest = softwareDigest("SHA256", kMessage);
  signature.data = Bytes{digest};
  signature.value = Bytes{key.rawPrivate(afterZeros(digestInfoOf(digest), key.blockSize()))};
  for (const SecKeyAlgorithm algorithm : {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256,
                                          kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256}) {
    EXPECT_EQ(
        trouble(algorithm),
        "the signature does not verify: the module does not pad, so PKCS #1 v1.5 through this card does "
        "not verify; PSS does");
  }
  signature.data = Bytes{digestInfoOf(digest)};
  EXPECT_THAT(trouble(kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw), HasSubstr("the module does not pad"));
}

TEST_F(SignatureTrouble, DoesNotBlameThePaddingForOtherFaults) {
  const Value digest = softwareDigest("SHA256", kMessage);
  const Value info = digestInfoOf(digest);
  signature.data = Bytes{digest};
  Value withMore = afterZeros(info, key.blockSize());
  withMore[1] = 0x01;
  const std::pair<const char*, Value> kRows[] = {
      {"more than zeros before the data", withMore},
      {"other data", afterZeros(digestInfoOf(softwareDigest("SHA256", {})), key.blockSize())},
      {"the digest alone", afterZeros(digest, key.blockSize())},
  };
  for (const auto& [name, block] : kRows) {
    signature.value = Bytes{key.rawPrivate(block)};
    EXPECT_EQ(trouble(kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256), kDoesNotVerify) << name;
  }
}

TEST_F(SignatureTrouble, DoesNotBlameThePaddingForAnotherAlgorithm) {
  const Value digest = softwareDigest("SHA256", kMessage);
  signature.data = Bytes{digest};
  signature.value = Bytes{key.rawPrivate(afterZeros(digestInfoOf(digest), key.blockSize()))};
  EXPECT_EQ(trouble(kSecKeyAlgorithmRSASignatureMessagePSSSHA256), kDoesNotVerify);
}

}  // namespace
}  // namespace mirel::test
