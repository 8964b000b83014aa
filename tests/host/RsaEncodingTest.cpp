#include "RsaEncoding.h"

#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <string>

#include "host/SoftwareKey.h"

namespace mirel::test {
namespace {

struct HashRow {
  Hash hash;
  const char* name;  ///< OpenSSL's
  int size;          ///< bytes
};

constexpr HashRow kHashes[] = {{Hash::kSHA1, "SHA1", 20},
                               {Hash::kSHA224, "SHA224", 28},
                               {Hash::kSHA256, "SHA256", 32},
                               {Hash::kSHA384, "SHA384", 48},
                               {Hash::kSHA512, "SHA512", 64}};

// With 1025 bits the block has a byte more than the encoded message of PSS.
constexpr unsigned kSizes[] = {1024, 1025, 2048};  // bits

const Value kMessage = bytesOf("a message");

[[nodiscard]] Value flipped(Value bytes, std::size_t position) {
  bytes.at(position) = static_cast<CK_BYTE>(bytes.at(position) ^ 1U);
  return bytes;
}

// ---- Digests ----

TEST(HostDigest, IsTheDigestOfTheDataAtOnceAndInPieces) {
  const Value data = patternValue(1000, 3);
  for (const HashRow& row : kHashes) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(factsOf(row.hash).size, static_cast<std::size_t>(row.size));
    EXPECT_EQ(factsOf(row.hash).name, row.name);
    EXPECT_EQ(digestOf(row.hash, kMessage), softwareDigest(row.name, kMessage));
    EXPECT_EQ(digestOf(row.hash, {}), softwareDigest(row.name, {}));
    Digest digest{row.hash};
    digest.update(std::span{data}.first(1));
    digest.update({});
    digest.update(std::span{data}.subspan(1, 700));
    digest.update(std::span{data}.subspan(701));
    EXPECT_EQ(digest.finish(), softwareDigest(row.name, data));
  }
}

TEST(HostDigest, KnowsAPublishedAnswer) {
  // FIPS 180-2, appendix B.1.
  const ByteVector wanted{0xBA, 0x78, 0x16, 0xBF, 0x8F, 0x01, 0xCF, 0xEA, 0x41, 0x41, 0x40,
                          0xDE, 0x5D, 0xAE, 0x22, 0x23, 0xB0, 0x03, 0x61, 0xA3, 0x96, 0x17,
                          0x7A, 0x9C, 0xB4, 0x10, 0xFF, 0x61, 0xF2, 0x00, 0x15, 0xAD};
  EXPECT_EQ(digestOf(Hash::kSHA256, bytesOf("abc")), wanted);
}

// ---- DigestInfo ----

TEST(DigestInfo, IsWhatOpenSslExpectsInASignature) {
  const SoftwareKey& key = SoftwareKey::rsa(2048);
  for (const HashRow& row : kHashes) {
    SCOPED_TRACE(row.name);
    const Value digest = softwareDigest(row.name, kMessage);
    // Padded by OpenSSL, which does not look into it, and then verified as what it should be.
    const Value signature = key.signature(digestInfo(row.hash, digest), nullptr, RSA_PKCS1_PADDING);
    EXPECT_TRUE(key.verifies(signature, digest, row.name, RSA_PKCS1_PADDING));
    EXPECT_FALSE(key.verifies(signature, flipped(digest, 0), row.name, RSA_PKCS1_PADDING));
  }
}

TEST(DigestInfo, BeginsAsTheStandardHasIt) {
  // RFC 8017, section 9.2, note 1.
  const Value begin{0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                    0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  const ByteVector info = digestInfo(Hash::kSHA256, Value(32, 0xAB));
  ASSERT_EQ(info.size(), begin.size() + 32);
  EXPECT_TRUE(std::equal(begin.begin(), begin.end(), info.begin()));
  EXPECT_EQ(Value(info.begin() + static_cast<std::ptrdiff_t>(begin.size()), info.end()), Value(32, 0xAB));
}

// ---- PKCS #1 v1.5 for signing ----

TEST(PaddedForSigning, GivesBlocksThatVerifyOnceSigned) {
  for (const unsigned bits : kSizes) {
    const SoftwareKey& key = SoftwareKey::rsa(bits);
    for (const HashRow& row : kHashes) {
      SCOPED_TRACE(std::to_string(bits) + " " + row.name);
      const Value digest = softwareDigest(row.name, kMessage);
      const auto block = paddedForSigning(digestInfo(row.hash, digest), key.blockSize());
      ASSERT_TRUE(block);
      EXPECT_TRUE(key.verifies(key.rawPrivate(*block), digest, row.name, RSA_PKCS1_PADDING));
    }
  }
}

TEST(PaddedForSigning, PadsNothing) {
  const SoftwareKey& key = SoftwareKey::rsa(1024);
  const auto block = paddedForSigning({}, key.blockSize());
  ASSERT_TRUE(block);
  Value wanted(key.blockSize(), 0xFF);
  wanted.front() = 0x00;
  wanted[1] = 0x01;
  wanted.back() = 0x00;
  EXPECT_EQ(*block, wanted);
}

TEST(PaddedForSigning, NeedsEightBytesOfPadding) {
  const Value data = patternValue(20, 1);
  const auto block = paddedForSigning(data, 31);
  ASSERT_TRUE(block);
  EXPECT_EQ(block->size(), 31U);
  EXPECT_FALSE(paddedForSigning(data, 30));
  EXPECT_FALSE(paddedForSigning(data, 20));
  EXPECT_FALSE(paddedForSigning(data, 0));
  EXPECT_FALSE(paddedForSigning({}, 0));
}

// ---- PSS ----

const std::shared_ptr<TimeAndChance> chance = systemTimeAndChance();

TEST(EncodedForPss, GivesBlocksThatVerifyOnceSigned) {
  for (const unsigned bits : kSizes) {
    const SoftwareKey& key = SoftwareKey::rsa(bits);
    for (const HashRow& row : kHashes) {
      // 1024 bits have no room for two of these and two bytes.
      if (bits < 1040 && row.hash == Hash::kSHA512) continue;
      SCOPED_TRACE(std::to_string(bits) + " " + row.name);
      const Value digest = softwareDigest(row.name, kMessage);
      const auto block = encodedForPss(row.hash, digest, bits, *chance);
      ASSERT_TRUE(block);
      EXPECT_EQ(block->size(), key.blockSize());
      const Value signature = key.rawPrivate(*block);
      EXPECT_TRUE(key.verifies(signature, digest, row.name, RSA_PKCS1_PSS_PADDING, row.size));
      EXPECT_FALSE(key.verifies(signature, digest, row.name, RSA_PKCS1_PSS_PADDING, row.size - 1));
      EXPECT_FALSE(key.verifies(signature, flipped(digest, 0), row.name, RSA_PKCS1_PSS_PADDING, row.size));
    }
  }
}

TEST(EncodedForPss, TakesAnotherSaltEachTime) {
  const Value digest = softwareDigest("SHA256", kMessage);
  EXPECT_NE(encodedForPss(Hash::kSHA256, digest, 1024, *chance),
            encodedForPss(Hash::kSHA256, digest, 1024, *chance));
}

TEST(EncodedForPss, LeavesTheTopmostBitsClear) {
  const Value digest = softwareDigest("SHA256", kMessage);
  // The size of the modulus in bits; what must not be set in the first byte of the block.
  const std::pair<std::size_t, CK_BYTE> rows[] = {
      {1024, 0x80}, {1023, 0xC0}, {1018, 0xFE}, {1025, 0xFF}, {1026, 0xFE}};
  for (const auto& [bits, forbidden] : rows) {
    for (int i = 0; i < 64; ++i) {
      const auto block = encodedForPss(Hash::kSHA256, digest, bits, *chance);
      ASSERT_TRUE(block);
      EXPECT_EQ(block->size(), (bits + 7) / 8);
      EXPECT_EQ(block->front() & forbidden, 0) << bits;
    }
  }
}

TEST(EncodedForPss, RefusesAKeyThatIsTooShort) {
  // The encoded message has one bit less than the modulus and takes twice the digest and two bytes
  // (RFC 8017, section 9.1.1, step 3).
  for (const std::size_t bits : {1024U, 1033U, 1034U})
    EXPECT_EQ(encodedForPss(Hash::kSHA512, Value(64, 1), bits, *chance).has_value(), bits >= 1034) << bits;
  for (const std::size_t bits : {0U, 1U, 329U, 330U})
    EXPECT_EQ(encodedForPss(Hash::kSHA1, Value(20, 1), bits, *chance).has_value(), bits >= 330) << bits;
}

// ---- PKCS #1 v1.5 after decrypting ----

TEST(UnpaddedAfterDecrypting, GivesWhatOpenSslHasEncrypted) {
  for (const unsigned bits : kSizes) {
    const SoftwareKey& key = SoftwareKey::rsa(bits);
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{32}, key.blockSize() - 11}) {
      SCOPED_TRACE(std::to_string(bits) + " " + std::to_string(size));
      const Value plain = patternValue(size, 9);
      EXPECT_EQ(unpaddedAfterDecrypting(key.rawPrivate(key.encrypted(plain, RSA_PKCS1_PADDING))), plain);
    }
  }
}

TEST(UnpaddedAfterDecrypting, RefusesWhatIsNoBlock) {
  const Value good = cipherOf(bytesOf("text"), 64);
  ASSERT_EQ(unpaddedAfterDecrypting(good), bytesOf("text"));
  Value endless(64, 0xFF);
  endless[0] = 0x00;
  endless[1] = 0x02;
  const std::pair<const char*, Value> kRows[] = {
      {"nothing", {}},
      {"too short", {0x00, 0x02, 1, 2, 3, 4, 5, 6, 7, 0x00}},
      {"another first byte", flipped(good, 0)},
      {"another second byte", flipped(good, 1)},
      {"padded for a signature", paddedForSigning(bytesOf("text"), 64).value()},
      {"no end of the padding", endless},
  };
  for (const auto& [name, block] : kRows) EXPECT_FALSE(unpaddedAfterDecrypting(block)) << name;
}

TEST(UnpaddedAfterDecrypting, NeedsEightBytesOfPadding) {
  for (std::size_t paddingSize = 0; paddingSize < 12; ++paddingSize) {
    Value block{0x00, 0x02};
    block.resize(2 + paddingSize, 0xFF);
    block.push_back(0x00);
    block.resize(20, 0x77);
    EXPECT_EQ(unpaddedAfterDecrypting(block).has_value(), paddingSize >= 8) << paddingSize;
  }
  EXPECT_EQ(unpaddedAfterDecrypting(Value{0x00, 0x02, 1, 2, 3, 4, 5, 6, 7, 8, 0x00}), Value{});
}

// ---- OAEP ----

TEST(DecodedFromOaep, GivesWhatOpenSslHasEncrypted) {
  for (const unsigned bits : kSizes) {
    const SoftwareKey& key = SoftwareKey::rsa(bits);
    for (const HashRow& row : kHashes) {
      const std::size_t around = 2 * static_cast<std::size_t>(row.size) + 2;
      if (key.blockSize() < around) continue;
      const std::size_t most = key.blockSize() - around;
      for (const std::size_t size : {std::size_t{0}, std::min<std::size_t>(most, 1), most}) {
        SCOPED_TRACE(std::to_string(bits) + " " + row.name + " " + std::to_string(size));
        const Value plain = patternValue(size, 9);
        const Value cipher = key.encrypted(plain, RSA_PKCS1_OAEP_PADDING, row.name);
        EXPECT_EQ(decodedFromOaep(row.hash, key.rawPrivate(cipher)), plain);
      }
    }
  }
}

TEST(DecodedFromOaep, RefusesABlockThatIsAlteredOrOfAnotherHashOrTooShort) {
  const SoftwareKey& key = SoftwareKey::rsa(1024);
  const Value block = key.rawPrivate(key.encrypted(kMessage, RSA_PKCS1_OAEP_PADDING, "SHA1"));
  ASSERT_EQ(decodedFromOaep(Hash::kSHA1, block), kMessage);
  EXPECT_FALSE(decodedFromOaep(Hash::kSHA256, block));
  // The first byte, the seed, the hash of the label.
  for (const std::size_t position : {0U, 1U, 20U, 21U, 40U})
    EXPECT_FALSE(decodedFromOaep(Hash::kSHA1, flipped(block, position))) << position;
  for (const std::size_t size : {0U, 1U, 41U})
    EXPECT_FALSE(decodedFromOaep(Hash::kSHA1, Value(size))) << size;
  EXPECT_FALSE(decodedFromOaep(Hash::kSHA512, Value(128)));
}

/// A block of OAEP with SHA-1 around that data, with a seed of zeros (RFC 8017, section 7.1.1, step 2).
[[nodiscard]] Value oaepBlock(const Value& data) {
  const auto masked = [](const Value& bytes, const Value& seed) {
    Value result = bytes;
    for (std::size_t done = 0; done < bytes.size(); done += 20) {
      Value counted = seed;
      counted.insert(counted.end(), {0, 0, 0, static_cast<CK_BYTE>(done / 20)});
      const Value mask = softwareDigest("SHA1", counted);
      for (std::size_t i = done; i < std::min(done + 20, bytes.size()); ++i)
        result[i] = static_cast<CK_BYTE>(result[i] ^ mask[i - done]);
    }
    return result;
  };
  const Value maskedData = masked(data, Value(20));
  const Value maskedSeed = masked(Value(20), maskedData);
  Value block{0x00};
  block.insert(block.end(), maskedSeed.begin(), maskedSeed.end());
  block.insert(block.end(), maskedData.begin(), maskedData.end());
  return block;
}

TEST(DecodedFromOaep, LooksForTheMarkBehindZerosAlone) {
  const auto decoded = [](const Value& rest, const char* label = "") {
    Value data = softwareDigest("SHA1", bytesOf(label));
    data.insert(data.end(), rest.begin(), rest.end());
    return decodedFromOaep(Hash::kSHA1, oaepBlock(data));
  };
  EXPECT_EQ(decoded({0, 0, 1, 7}), Value{7});
  EXPECT_EQ(decoded({0, 1, 0, 0, 1, 0}), (Value{0, 0, 1, 0}));
  EXPECT_EQ(decoded({1}), Value{});
  EXPECT_FALSE(decoded({0, 2, 1, 7}));
  EXPECT_FALSE(decoded({0, 0, 0, 0}));
  EXPECT_FALSE(decoded({0, 0, 1, 7}, "label"));
}

}  // namespace
}  // namespace mirel::test
