#include "platform/PublicKey.h"

#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

#include "CertificateBuilder.h"
#include "host/SoftwareKey.h"

namespace mirel {
namespace {

using enum SecKeyAlgorithm;

constexpr std::size_t kModulusSize = 256;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error{what};
}

/// One key of each kind for the whole process, and another one.
struct TestKey {
  explicit TestKey(const test::SoftwareKey& made)
      : key{made}, publicKey{publicKeyOfCertificate(made.certificate())} {
    require(publicKey != nullptr, "no public key");
  }

  const test::SoftwareKey& key;
  std::unique_ptr<PublicKey> publicKey;
};

const TestKey& rsaKey() {
  static const TestKey key{test::SoftwareKey::rsa(8 * kModulusSize)};
  return key;
}

const TestKey& otherRsaKey() {
  static const TestKey key{test::SoftwareKey::rsa(8 * kModulusSize, "other")};
  return key;
}

const TestKey& ecKey() {
  static const TestKey key{test::SoftwareKey::ec("P-256")};
  return key;
}

const TestKey& otherEcKey() {
  static const test::SoftwareKey other{EVP_EC_gen("P-256")};
  static const TestKey key{other};
  return key;
}

/// An algorithm that signs, with padding (RSA only) and hash (null: none) as OpenSSL has to use them.
struct Row {
  SecKeyAlgorithm algorithm;
  int padding;
  const char* hash;
};

constexpr const char* kSignatureHashes[] = {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};

SecKeyAlgorithm named(const std::string& name) { return secKeyAlgorithmNamed(name).value(); }

const std::vector<Row>& rsaRows() {
  static const std::vector<Row> rows = [] {
    std::vector<Row> all{{kSecKeyAlgorithmRSASignatureRaw, RSA_NO_PADDING, nullptr},
                         {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, RSA_PKCS1_PADDING, nullptr}};
    for (const char* hash : kSignatureHashes) {
      // A token gets the digest of the message.
      for (const std::string front : {"RSASignatureDigest", "RSASignatureMessage"}) {
        all.push_back({named(front + "PKCS1v15" + hash), RSA_PKCS1_PADDING, hash});
        all.push_back({named(front + "PSS" + hash), RSA_PKCS1_PSS_PADDING, hash});
      }
    }
    return all;
  }();
  return rows;
}

const std::vector<Row>& ecRows() {
  static const std::vector<Row> rows = [] {
    std::vector<Row> all{{kSecKeyAlgorithmECDSASignatureDigestX962, 0, nullptr}};
    for (const char* hash : kSignatureHashes) {
      for (const std::string front : {"ECDSASignatureDigestX962", "ECDSASignatureMessageX962"})
        all.push_back({named(front + hash), 0, hash});
    }
    return all;
  }();
  return rows;
}

constexpr Row kRaw{kSecKeyAlgorithmRSASignatureRaw, RSA_NO_PADDING, nullptr};
constexpr Row kPkcs1Sha256{kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256, RSA_PKCS1_PADDING, "SHA256"};
constexpr Row kPssSha256{kSecKeyAlgorithmRSASignatureDigestPSSSHA256, RSA_PKCS1_PSS_PADDING, "SHA256"};
constexpr Row kEcdsaSha256{kSecKeyAlgorithmECDSASignatureDigestX962SHA256, 0, "SHA256"};

/// A number below every modulus, as a block of its length.
ByteVector smallBlock() {
  ByteVector block(kModulusSize);
  for (std::size_t i = 3; i < block.size(); ++i) block[i] = static_cast<std::uint8_t>(i);
  return block;
}

/// What the row's algorithm works on.
ByteVector dataFor(const Row& row) {
  if (row.padding == RSA_NO_PADDING) return smallBlock();
  return test::softwareDigest(row.hash ? row.hash : "SHA256", ByteVector{'m', 's', 'g'});
}

ByteVector signatureBy(const TestKey& key, const Row& row, int saltLen = RSA_PSS_SALTLEN_DIGEST) {
  return key.key.signature(dataFor(row), row.hash, row.padding, saltLen);
}

/// With a bit of the byte at `at` turned round.
ByteVector changedAt(std::size_t at, ByteVector bytes) {
  bytes.at(at) ^= 1U;
  return bytes;
}

bool signs(SecKeyAlgorithm algorithm) {
  return nameOf(algorithm).find("Signature") != std::string_view::npos;
}

bool isOf(const char* kind, SecKeyAlgorithm algorithm) {
  return nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size()).starts_with(kind);
}

/// Whether what the key signed as the row says is a signature by that algorithm.
bool verifies(const TestKey& key, SecKeyAlgorithm algorithm, const Row& row) {
  return key.publicKey->verifies(algorithm, dataFor(row), signatureBy(key, row));
}

void expectNoRsaSignature(SecKeyAlgorithm algorithm) {
  for (const Row& row : {kRaw, kPkcs1Sha256, kPssSha256}) EXPECT_FALSE(verifies(rsaKey(), algorithm, row));
}

/// Checks everything that makes a signature of the rows a wrong one.
void expectNoWrongSignatureToVerify(const TestKey& key, const TestKey& other, const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(nameOf(row.algorithm));
    const ByteVector data = dataFor(row);
    const ByteVector signature = signatureBy(key, row);
    EXPECT_FALSE(other.publicKey->verifies(row.algorithm, data, signature)) << "another key";
    // In front: of a long digest ECDSA takes no more than what is there (SEC 1, section 4.1.3).
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, changedAt(0, data), signature)) << "changed data";
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, {}, signature)) << "no data";
    const ByteVector altered = changedAt(signature.size() - 1, signature);
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, data, altered)) << "changed signature";
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, data, {})) << "no signature";
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, data, ByteVector(signature.size()))) << "zeros";
    ByteVector cut = signature;
    cut.pop_back();
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, data, cut)) << "a byte less";
    ByteVector longer = signature;
    longer.push_back(0);
    EXPECT_FALSE(key.publicKey->verifies(row.algorithm, data, longer)) << "a byte more";
  }
}

// ---- Reading ----

TEST(PublicKeyOfCertificate, IsReadForBothKindsOfKey) {
  EXPECT_TRUE(publicKeyOfCertificate(rsaKey().key.certificate()));
  EXPECT_TRUE(publicKeyOfCertificate(ecKey().key.certificate()));
}

TEST(PublicKeyOfCertificate, IsMissingForWhatIsNoCertificate) {
  for (const auto& [description, der] : noCertificates())
    EXPECT_FALSE(publicKeyOfCertificate(der)) << description;
}

TEST(PublicKeyOfCertificate, IsMissingForEveryTruncation) {
  const ByteVector good = makeCertificate();
  for (std::size_t size = 0; size < good.size(); ++size) {
    SCOPED_TRACE(size);
    EXPECT_FALSE(publicKeyOfCertificate(std::span{good}.first(size)));
  }
}

TEST(PublicKeyOfCertificate, IsMissingWhenTheKeyCannotBeRead) {
  // rsaEncryption as in every RSA certificate, but the key is no RSAPublicKey any more: its outer tag is
  // broken.
  ByteVector der = rsaKey().key.certificate();
  const ByteVector keyStart{0x00, 0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01};
  const auto found = std::search(der.begin(), der.end(), keyStart.begin(), keyStart.end());
  ASSERT_NE(found, der.end());
  *(found + 1) = 0x31;
  EXPECT_FALSE(publicKeyOfCertificate(der));
}

// ---- Verifying ----

TEST(PublicKeyVerifies, EverySignatureOfItsPrivateKey) {
  for (const Row& row : rsaRows())
    EXPECT_TRUE(verifies(rsaKey(), row.algorithm, row)) << nameOf(row.algorithm);
  for (const Row& row : ecRows()) EXPECT_TRUE(verifies(ecKey(), row.algorithm, row)) << nameOf(row.algorithm);
}

TEST(PublicKeyVerifies, NoWrongSignature) {
  expectNoWrongSignatureToVerify(rsaKey(), otherRsaKey(), rsaRows());
  expectNoWrongSignatureToVerify(ecKey(), otherEcKey(), ecRows());
}

TEST(PublicKeyVerifies, NoSignatureByAnotherAlgorithm) {
  EXPECT_FALSE(verifies(rsaKey(), kPssSha256.algorithm, kPkcs1Sha256));
  EXPECT_FALSE(verifies(rsaKey(), kPkcs1Sha256.algorithm, kPssSha256));
  EXPECT_FALSE(verifies(rsaKey(), kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, kPkcs1Sha256));
}

TEST(PublicKeyVerifies, NoSignatureByPssWithAnotherLengthOfSalt) {
  // RFC 8017, section 9.1: by their names the algorithms have a salt as long as the hash.
  const ByteVector signature = signatureBy(rsaKey(), kPssSha256, 20);
  EXPECT_FALSE(rsaKey().publicKey->verifies(kPssSha256.algorithm, dataFor(kPssSha256), signature));
}

TEST(PublicKeyVerifies, NothingByAnAlgorithmOfTheOtherKindOfKey) {
  for (const auto& known : kSecKeyAlgorithms) {
    if (!signs(known.algorithm)) continue;
    SCOPED_TRACE(known.name);
    if (isOf("EC", known.algorithm)) {
      expectNoRsaSignature(known.algorithm);
    } else {
      EXPECT_FALSE(verifies(ecKey(), known.algorithm, kEcdsaSha256));
    }
  }
}

TEST(PublicKeyVerifies, NothingByAnAlgorithmThatDoesNotSign) {
  for (const auto& known : kSecKeyAlgorithms) {
    if (signs(known.algorithm)) continue;
    SCOPED_TRACE(known.name);
    expectNoRsaSignature(known.algorithm);
    EXPECT_FALSE(verifies(ecKey(), known.algorithm, kEcdsaSha256));
  }
}

/// The two numbers of an X9.62 signature by a P-256 key as blocks of equal length (RFC 4754, section 7).
ByteVector numbersOf(const ByteVector& sequence) {
  constexpr int kSize = 32;
  const unsigned char* next = sequence.data();
  const std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature{
      d2i_ECDSA_SIG(nullptr, &next, static_cast<long>(sequence.size())), &ECDSA_SIG_free};
  require(signature != nullptr, "no sequence");
  ByteVector numbers(2 * kSize);
  require(BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), numbers.data(), kSize) == kSize, "r is too long");
  require(BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), numbers.data() + kSize, kSize) == kSize,
          "s is too long");
  return numbers;
}

TEST(PublicKeyVerifies, TwoNumbersWhereTheAlgorithmHasThatForm) {
  const ByteVector digest = dataFor(kEcdsaSha256);
  const ByteVector sequence = signatureBy(ecKey(), kEcdsaSha256);
  const ByteVector numbers = numbersOf(sequence);
  constexpr auto kNumbers = kSecKeyAlgorithmECDSASignatureRFC4754;
  EXPECT_TRUE(ecKey().publicKey->verifies(kNumbers, digest, numbers));
  EXPECT_FALSE(ecKey().publicKey->verifies(kNumbers, digest, sequence));
  EXPECT_FALSE(ecKey().publicKey->verifies(kNumbers, digest, changedAt(0, numbers)));
  EXPECT_FALSE(ecKey().publicKey->verifies(kNumbers, digest, {}));
  EXPECT_FALSE(ecKey().publicKey->verifies(kNumbers, digest, ByteVector(63, 0x01)));
  EXPECT_FALSE(ecKey().publicKey->verifies(kNumbers, digest, ByteVector(4096, 0x01)));
  EXPECT_FALSE(ecKey().publicKey->verifies(kEcdsaSha256.algorithm, digest, numbers));
}

// ---- The block ----

/// The modulus as a block of its length, with `difference` added.
ByteVector modulusAnd(int difference) {
  const test::Value bytes = rsaKey().key.modulus();
  const std::unique_ptr<BIGNUM, decltype(&BN_free)> modulus{
      BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr), &BN_free};
  BIGNUM* const number = modulus.get();
  require((difference < 0 ? BN_sub_word(number, static_cast<BN_ULONG>(-difference))
                          : BN_add_word(number, static_cast<BN_ULONG>(difference))) == 1,
          "no other number");
  ByteVector block(kModulusSize);
  require(
      BN_bn2binpad(number, block.data(), static_cast<int>(block.size())) == static_cast<int>(block.size()),
      "the number is too large");
  return block;
}

TEST(RecoveredBlock, IsTheDataWithItsPadding) {
  // RFC 8017, section 9.2
  const ByteVector digest = dataFor(kPkcs1Sha256);
  const ByteVector digestInfo{0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  ByteVector expected(kModulusSize, 0xFF);
  expected[0] = 0x00;
  expected[1] = 0x01;
  const auto end = std::copy_backward(digest.begin(), digest.end(), expected.end());
  *(std::copy_backward(digestInfo.begin(), digestInfo.end(), end) - 1) = 0x00;
  EXPECT_EQ(rsaKey().publicKey->recoveredBlock(signatureBy(rsaKey(), kPkcs1Sha256)), expected);
}

TEST(RecoveredBlock, KeepsItsZeros) {
  EXPECT_EQ(rsaKey().publicKey->recoveredBlock(signatureBy(rsaKey(), kRaw)), smallBlock());
}

TEST(RecoveredBlock, IsThereForTheLargestNumberBelowTheModulus) {
  // -1 by an odd exponent is -1.
  EXPECT_EQ(rsaKey().publicKey->recoveredBlock(modulusAnd(-1)), modulusAnd(-1));
}

TEST(RecoveredBlock, IsEmptyForAnyOtherNumberOrLength) {
  ByteVector longer = signatureBy(rsaKey(), kRaw);
  longer.push_back(0);
  const std::pair<const char*, ByteVector> rows[] = {
      {"the modulus", modulusAnd(0)},
      {"one more", modulusAnd(1)},
      {"all-ones", ByteVector(kModulusSize, 0xFF)},
      {"a byte more", longer},
      {"twice as long", ByteVector(2 * kModulusSize, 0x01)},
      {"nothing", {}},
      {"a single byte", {0x01}},
      {"a byte less", ByteVector(kModulusSize - 1, 0x01)},
      {"another byte more", ByteVector(kModulusSize + 1, 0x01)},
  };
  for (const auto& [description, signature] : rows)
    EXPECT_EQ(rsaKey().publicKey->recoveredBlock(signature), ByteVector{}) << description;
}

TEST(RecoveredBlock, IsEmptyForAnEcKey) {
  EXPECT_EQ(ecKey().publicKey->recoveredBlock(signatureBy(ecKey(), kEcdsaSha256)), ByteVector{});
  EXPECT_EQ(ecKey().publicKey->recoveredBlock({}), ByteVector{});
}

}  // namespace
}  // namespace mirel
