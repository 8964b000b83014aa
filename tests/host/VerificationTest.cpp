#include "host/Verification.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <algorithm>

#include "host/Outcomes.h"
#include "host/SoftwareKey.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;

using enum SecKeyAlgorithm;

constexpr const char* kDoesNotVerify = "the signature does not verify with the public key of the certificate";
constexpr const char* kFault = "C_Sign answered CKR_DEVICE_ERROR (0x30)";
constexpr unsigned kBits = 2048;

const Value kMessage = bytesOf("a message");

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

[[nodiscard]] Bytes altered(const Bytes& bytes) {
  Value value(bytes.view().begin(), bytes.view().end());
  value.back() = static_cast<CK_BYTE>(value.back() ^ 1U);
  return Bytes{value};
}

/// With an RSA key and a good signature by PSS.
class VerifySignature : public ::testing::Test {
 protected:
  [[nodiscard]] Result<void> verified(SecKeyAlgorithm algorithm) const {
    return verifySignature(certificate, published, algorithm, signature);
  }
  /// Why it does not verify; that it does fails the test.
  [[nodiscard]] std::string refusal(SecKeyAlgorithm algorithm = kPss) const {
    return failureOf(verified(algorithm)).why;
  }

  static constexpr SecKeyAlgorithm kPss = kSecKeyAlgorithmRSASignatureMessagePSSSHA256;
  static constexpr SecKeyAlgorithm kEcdsa = kSecKeyAlgorithmECDSASignatureDigestX962SHA256;

  const Value digest = softwareDigest("SHA256", kMessage);
  const SoftwareKey& key = SoftwareKey::rsa(kBits);
  PublishedCertificate certificate = certificateOf(key);
  PublishedKey published = publishedKey(key, CertificateKeyType::kRSA);
  Signature signature{Bytes{key.signature(digest, "SHA256", RSA_PKCS1_PSS_PADDING, 32)}, kPss, Bytes{digest},
                      std::nullopt};
};

// ---- Good and altered ones; the tests of public keys have those of every algorithm ----

TEST_F(VerifySignature, AcceptsAGoodSignatureAlone) {
  const SoftwareKey& ecKey = SoftwareKey::ec("P-256");
  const Signature ofEcKey{Bytes{ecKey.signature(digest, "SHA256")}, kEcdsa, Bytes{digest}, std::nullopt};
  for (const Signature& good : {signature, ofEcKey}) {
    SCOPED_TRACE(nameOf(good.performed));
    signature = good;
    EXPECT_TRUE(verified(good.performed));
    signature.value = altered(good.value);
    EXPECT_EQ(refusal(good.performed), kDoesNotVerify);
    signature = good;
    signature.data = altered(good.data);
    EXPECT_EQ(refusal(good.performed), kDoesNotVerify);
    // The next one is by the other key.
    certificate = certificateOf(ecKey);
    published = publishedKey(ecKey, CertificateKeyType::kECPrimeRandom);
  }
}

TEST_F(VerifySignature, RefusesAnotherKey) {
  certificate = certificateOf(SoftwareKey::rsa(kBits, "other"));
  EXPECT_EQ(refusal(), kDoesNotVerify);
  certificate = certificateOf(SoftwareKey::ec("P-256"));
  EXPECT_EQ(refusal(), kDoesNotVerify);
}

TEST_F(VerifySignature, RefusesASignatureOfAnotherSize) {
  Value value(signature.value.view().begin(), signature.value.view().end());
  value.pop_back();
  signature.value = Bytes{value};
  EXPECT_EQ(refusal(), "the signature has 255 bytes, one by this key has 256");
  value.resize(512);
  signature.value = Bytes{value};
  EXPECT_EQ(refusal(), "the signature has 512 bytes, one by this key has 256");
}

TEST_F(VerifySignature, RefusesACertificateThatCannotBeRead) {
  for (const Bytes& data : {Bytes{}, Bytes{Value{}}, Bytes{patternValue(100, 1)}}) {
    certificate.data = data;
    EXPECT_EQ(refusal(), "the public key of the certificate cannot be read");
  }
}

/// What is said of a signature with and without a fault in the card.
TEST_F(VerifySignature, TellsTheReasonWithWhatWentWrongInTheCard) {
  const Bytes zeros{Value(key.blockSize())};
  const struct {
    const char* name;
    Bytes value;
    std::string alone;   ///< what is said without a fault in the card
    std::string inCard;  ///< and with it, in front of the fault in brackets
  } rows[] = {
      {"altered", altered(signature.value), kDoesNotVerify, kDoesNotVerify},
      {"empty", Bytes{Value{}}, "the signature is empty", "the signature is empty"},
      {"null", Bytes{}, "the signature is empty", "the signature is empty"},
      {"zeros", zeros, "the signature is all zeros: the card layer handed none out",
       "the signature is all zeros: the card made none"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    signature.value = row.value;
    signature.fault.reset();
    EXPECT_EQ(refusal(), row.alone);
    signature.fault = CardFault{kFault};
    EXPECT_EQ(refusal(), row.inCard + " (" + kFault + ")");
    EXPECT_FALSE(failureOf(verified(kPss)).isCauseKnown);
  }
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

TEST_F(VerifySignature, ExplainsAModuleThatDoesNotPad) {
  signature.value = Bytes{key.rawPrivate(afterZeros(digestInfoOf(digest), key.blockSize()))};
  for (const SecKeyAlgorithm algorithm : {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256,
                                          kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256}) {
    EXPECT_EQ(
        refusal(algorithm),
        "the signature does not verify: the module does not pad, so PKCS #1 v1.5 (TLS 1.2 with rsa_pkcs1, "
        "CMS (S/MIME), most PDF signers) through this card does not verify; PSS does");
  }
  EXPECT_EQ(refusal(kPss), kDoesNotVerify);
  signature.data = Bytes{digestInfoOf(digest)};
  EXPECT_THAT(refusal(kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw), HasSubstr("the module does not pad"));
}

TEST_F(VerifySignature, DoesNotBlameThePaddingForOtherFaults) {
  const Value info = digestInfoOf(digest);
  Value withMore = afterZeros(info, key.blockSize());
  withMore[1] = 0x01;
  const std::pair<const char*, Value> kRows[] = {
      {"more than zeros before the data", withMore},
      {"other data", afterZeros(digestInfoOf(softwareDigest("SHA256", {})), key.blockSize())},
      {"the digest alone", afterZeros(digest, key.blockSize())},
  };
  for (const auto& [name, block] : kRows) {
    signature.value = Bytes{key.rawPrivate(block)};
    EXPECT_EQ(refusal(kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256), kDoesNotVerify) << name;
  }
}

}  // namespace
}  // namespace mirel::test
