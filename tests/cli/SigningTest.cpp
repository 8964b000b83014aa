#include <gmock/gmock.h>

#include <array>

#include "KeyTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::array kHashes{"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};
constexpr const char* kMessage = "What is to be signed\n";
constexpr const char* kDoesNotPad =
    "the module does not pad, so PKCS #1 v1.5 through this card does not verify; PSS does";

/// A key that the card signs with, and how many bytes its signatures have.
struct SigningKey {
  const char* type;
  std::size_t size;
};
constexpr std::array kSigningKeys{SigningKey{"rsa1024", 128}, SigningKey{"rsa2048", 256}};

/// DER in front of a digest (RFC 8017, section 9.2, note 1).
struct DigestInfoStart {
  const char* hash;
  const char* digits;
};
constexpr std::array kDigestInfoStarts{
    DigestInfoStart{"SHA1", "3021300906052B0E03021A05000414"},
    DigestInfoStart{"SHA224", "302D300D06096086480165030402040500041C"},
    DigestInfoStart{"SHA256", "3031300D060960864801650304020105000420"},
    DigestInfoStart{"SHA384", "3041300D060960864801650304020205000430"},
    DigestInfoStart{"SHA512", "3051300D060960864801650304020305000440"},
};

/// A block below every modulus, with a zero byte at its front.
std::string blockOfSize(std::size_t size) {
  std::string block(size, '\0');
  for (std::size_t i = 1; i < size; ++i) block[i] = static_cast<char>(i * 7);
  return block;
}

std::string zerosThen(const std::string& data, std::size_t size) {
  return std::string(size - data.size(), '\0') + data;
}

class Signing : public KeyTest {
 protected:
  /// Makes a card with one key, "01".
  void makeKey(std::string_view type, std::string_view label = "Signature") const {
    makeCard({{type, "01", label}});
  }
  /// Signs with that key into the file "signature".
  [[nodiscard]] Result sign(const std::string& algorithm, const std::string& input,
                            const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"sign",  "--key",          "01", "--algorithm", algorithm,
                                       "--out", path("signature")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runWithPin(arguments, input);
  }
  void expectRefusal(const Result& result, int exitCode, const std::vector<std::string>& parts) const {
    expectFailure(result, exitCode, parts);
    EXPECT_FALSE(std::filesystem::exists(path("signature")));
  }
};

TEST_F(Signing, MessagesByPssVerifyWithEveryHash) {
  for (const SigningKey& key : {kSigningKeys[1], SigningKey{"rsa1536", 192}}) {
    makeKey(key.type);
    for (const char* hash : kHashes) {
      SCOPED_TRACE(std::string{key.type} + " " + hash);
      const Result result = sign(std::string{"RSASignatureMessagePSS"} + hash, kMessage);
      expectSigned(result);
      EXPECT_THAT(result.out, IsEmpty());
      EXPECT_THAT(result.err, EndsWith("asked of the card as kSecKeyAlgorithmRSASignatureRaw; the signature "
                                       "verifies with its certificate.\n"));
      EXPECT_EQ(read("signature").size(), key.size);
      EXPECT_TRUE(pssVerifies(key.type, hash, digestOf(hash, kMessage), read("signature")));
    }
  }
}

TEST_F(Signing, DigestsByPssVerifyWithEveryHash) {
  makeKey("rsa2048");
  for (const char* hash : kHashes) {
    SCOPED_TRACE(hash);
    const std::string digest = digestOf(hash, kMessage);
    expectSigned(sign(std::string{"RSASignatureDigestPSS"} + hash, digest));
    EXPECT_TRUE(pssVerifies("rsa2048", hash, digest, read("signature")));
  }
}

TEST_F(Signing, ByPssVerifiesWithTheSmallestKeyWhereTheHashFits) {
  makeKey("rsa1024");
  for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384"}) {
    SCOPED_TRACE(hash);
    expectSigned(sign(std::string{"RSASignatureMessagePSS"} + hash, kMessage));
    EXPECT_EQ(read("signature").size(), 128U);
    EXPECT_TRUE(pssVerifies("rsa1024", hash, digestOf(hash, kMessage), read("signature")));
    expectSigned(sign(std::string{"RSASignatureDigestPSS"} + hash, digestOf(hash, kMessage)));
    EXPECT_TRUE(pssVerifies("rsa1024", hash, digestOf(hash, kMessage), read("signature")));
  }
}

// RFC 8017, section 9.1.1: 64 bytes of hash, as many of salt and two more are longer than 1024 bits.
TEST_F(Signing, ByPssIsRefusedWhenTheKeyHasTooFewBitsForTheHash) {
  makeKey("rsa1024");
  expectRefusal(sign("RSASignatureMessagePSSSHA512", kMessage), 2, {"the key has too few bits"});
  expectRefusal(sign("RSASignatureDigestPSSSHA512", digestOf("SHA512", kMessage)), 2,
                {"the key has too few bits"});
}

TEST_F(Signing, ByPssDiffersEachTime) {
  makeKey("rsa2048");
  expectSigned(sign("RSASignatureMessagePSSSHA256", kMessage));
  const std::string first = read("signature");
  expectSigned(sign("RSASignatureMessagePSSSHA256", kMessage));
  EXPECT_NE(read("signature"), first);
}

TEST_F(Signing, IsByPssAndSha256UnlessToldOtherwise) {
  makeKey("rsa2048");
  const Result result = runWithPin({"sign", "--key", "01", "--out", path("signature")}, kMessage);
  expectSigned(result);
  EXPECT_THAT(result.err, HasSubstr("kSecKeyAlgorithmRSASignatureMessagePSSSHA256"));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage), read("signature")));
}

TEST_F(Signing, TakesTheWholeNameOfTheAlgorithmToo) {
  makeKey("rsa2048");
  expectSigned(sign("kSecKeyAlgorithmRSASignatureMessagePSSSHA384", kMessage));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA384", digestOf("SHA384", kMessage), read("signature")));
}

TEST_F(Signing, SignsTheEmptyMessage) {
  makeKey("rsa2048");
  expectSigned(sign("RSASignatureMessagePSSSHA256", ""));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", ""), read("signature")));
}

TEST_F(Signing, OfABlockIsTheRsaOperationItself) {
  for (const SigningKey& key : kSigningKeys) {
    SCOPED_TRACE(key.type);
    makeKey(key.type);
    const std::string block = blockOfSize(key.size);
    const Result result = sign("RSASignatureRaw", block);
    expectSigned(result);
    EXPECT_THAT(result.err, HasSubstr("verifies"));
    EXPECT_EQ(blockOf(key.type, read("signature")), block);
  }
}

TEST_F(Signing, OfABlockAsLargeAsTheModulusIsRefused) {
  makeKey("rsa2048");
  expectRefusal(sign("RSASignatureRaw", std::string(256, '\xFF')), 11, {"there is no good signature"});
}

TEST_F(Signing, ByPkcs1FailsBecauseTheModuleDoesNotPad) {
  for (const SigningKey& key : kSigningKeys) {
    makeKey(key.type);
    for (const char* hash : kHashes) {
      SCOPED_TRACE(std::string{key.type} + " " + hash);
      expectRefusal(sign(std::string{"RSASignatureMessagePKCS1v15"} + hash, kMessage), 11, {kDoesNotPad});
      expectRefusal(sign(std::string{"RSASignatureDigestPKCS1v15"} + hash, digestOf(hash, kMessage)), 11,
                    {kDoesNotPad});
    }
    expectRefusal(sign("RSASignatureDigestPKCS1v15Raw", digestOf("SHA256", kMessage)), 11, {kDoesNotPad});
  }
}

TEST_F(Signing, ByPkcs1IsRefusedForMoreThanABlock) {
  makeKey("rsa1024");
  expectRefusal(sign("RSASignatureDigestPKCS1v15Raw", std::string(129, 'x')), 2,
                {"the data do not fit the algorithm"});
}

TEST_F(Signing, WithoutVerifyingWritesWhatTheCardMade) {
  makeKey("rsa2048");
  for (const DigestInfoStart& start : kDigestInfoStarts) {
    SCOPED_TRACE(start.hash);
    const Result result =
        sign(std::string{"RSASignatureMessagePKCS1v15"} + start.hash, kMessage, {"--no-verify"});
    expectSigned(result);
    EXPECT_THAT(result.err, EndsWith("; the signature was not verified.\n"));
    EXPECT_EQ(blockOf("rsa2048", read("signature")),
              zerosThen(bytesOfHex(start.digits) + digestOf(start.hash, kMessage), 256));
  }
  expectSigned(sign("RSASignatureDigestPKCS1v15Raw", kMessage, {"--no-verify"}));
  EXPECT_EQ(blockOf("rsa2048", read("signature")), zerosThen(kMessage, 256));
}

TEST_F(Signing, WithoutVerifyingStillRefusesAnEmptySignature) {
  makeKey("p256");
  expectRefusal(sign("ECDSASignatureMessageX962SHA256", kMessage, {"--no-verify"}), 11,
                {"the signature is empty"});
}

TEST_F(Signing, WithAnEllipticCurveFails) {
  for (const char* type : {"p256", "p384"}) {
    makeKey(type);
    for (const char* hash : {"SHA256", "SHA384", "SHA512"}) {
      SCOPED_TRACE(std::string{type} + " " + hash);
      const std::vector<std::string> words{
          "the signature is empty: only RSA keys sign through this card layer"};
      expectRefusal(sign(std::string{"ECDSASignatureDigestX962"} + hash, digestOf(hash, kMessage)), 11,
                    words);
      expectRefusal(sign(std::string{"ECDSASignatureMessageX962"} + hash, kMessage), 11, words);
    }
  }
}

TEST_F(Signing, WithAnEllipticCurveIsNotOfferedForOtherHashes) {
  makeKey("p256");
  for (const char* algorithm : {"ECDSASignatureDigestX962", "ECDSASignatureDigestX962SHA1",
                                "ECDSASignatureMessageX962SHA224", "ECDSASignatureRFC4754"}) {
    SCOPED_TRACE(algorithm);
    expectRefusal(sign(algorithm, kMessage), 10, {"does not sign with", "the token accepts no form of it"});
  }
}

TEST_F(Signing, WithAKeyAbove2048BitsFails) {
  for (const char* type : {"rsa3072", "rsa4096"}) {
    makeKey(type);
    const std::size_t size = std::string_view{type} == "rsa3072" ? 384 : 512;
    const std::vector<std::string> words{
        "the signature is empty: RSA keys above 2048 bits do not sign through this card layer"};
    SCOPED_TRACE(type);
    expectRefusal(sign("RSASignatureMessagePSSSHA256", kMessage), 11, words);
    expectRefusal(sign("RSASignatureDigestPSSSHA512", digestOf("SHA512", kMessage)), 11, words);
    expectRefusal(sign("RSASignatureMessagePKCS1v15SHA256", kMessage), 11, words);
    expectRefusal(sign("RSASignatureDigestPKCS1v15Raw", kMessage), 11, words);
    expectRefusal(sign("RSASignatureRaw", blockOfSize(size)), 11, words);
    expectRefusal(sign("RSASignatureRaw", blockOfSize(size), {"--no-verify"}), 11, words);
  }
}

TEST_F(Signing, WithPssInTheKeysNameFails) {
  makeKey("rsa2048", "MyPSSKey");
  for (const char* algorithm : {"RSASignatureMessagePSSSHA256", "RSASignatureMessagePKCS1v15SHA256"}) {
    SCOPED_TRACE(algorithm);
    expectRefusal(sign(algorithm, kMessage), 11,
                  {"a key with PSS in its name signs by PSS in the card, and that signature is not handed "
                   "out"});
  }
}

TEST_F(Signing, WithAFailingCardFails) {
  makeKey("rsa2048");
  for (const char* function : {"C_SignInit", "C_Sign"}) {
    SCOPED_TRACE(function);
    const Result result =
        run(staged({"sign", "--key", "01", "--out", path("signature"), "--pin-file", write("pin", kPin)},
                   std::string{function} + "=30"));
    expectRefusal(result, 11,
                  {std::string{function} + " answered CKR_DEVICE_ERROR (0x30)", "nothing was written"});
  }
}

// The card layer answers with zeros then.
TEST_F(Signing, WithoutVerifyingStillRefusesWhatAFailingCardGives) {
  makeKey("rsa2048");
  for (const char* algorithm : {"RSASignatureMessagePSSSHA256", "RSASignatureMessagePKCS1v15SHA256"}) {
    SCOPED_TRACE(algorithm);
    Invocation call = staged({"sign", "--key", "01", "--algorithm", algorithm, "--out", path("signature"),
                              "--no-verify", "--pin-file", write("pin", kPin)},
                             "C_Sign=30");
    call.input = kMessage;
    expectRefusal(run(call), 11, {"C_Sign answered CKR_DEVICE_ERROR (0x30)"});
  }
}

TEST_F(Signing, WithoutVerifyingStillRefusesWhatIsNotAsLongAsTheModulus) {
  makeKey("rsa2048");
  for (const char* length : {"1", "FF"}) {
    SCOPED_TRACE(length);
    Invocation call = staged({"sign", "--key", "01", "--algorithm", "RSASignatureMessagePKCS1v15SHA256",
                              "--out", path("signature"), "--no-verify", "--pin-file", write("pin", kPin)});
    call.environment["MIREL_STAGED_LENGTHS"] = std::string{"C_Sign="} + length;
    call.input = kMessage;
    expectRefusal(run(call), 11, {"one by this key has 256"});
  }
}

TEST_F(Signing, WithoutVerifyingStillRefusesZeros) {
  makeKey("rsa2048");
  Invocation call = staged({"sign", "--key", "01", "--algorithm", "RSASignatureMessagePKCS1v15SHA256",
                            "--out", path("signature"), "--no-verify", "--pin-file", write("pin", kPin)},
                           "C_Sign=0");
  call.environment["MIREL_STAGED_LENGTHS"] = "C_Sign=100";
  call.input = kMessage;
  expectRefusal(run(call), 11, {"the signature is all zeros: the card layer handed none out"});
}

TEST_F(Signing, IsNotOfferedByAKeyForDecryption) {
  makeCard({{"rsa2048", "01", "Encryption", "keyEncipherment", "decrypt"}});
  expectRefusal(sign("RSASignatureMessagePSSSHA256", kMessage), 10,
                {"the key \"01\" does not sign with kSecKeyAlgorithmRSASignatureMessagePSSSHA256"});
}

TEST_F(Signing, IsNotWhatAnAlgorithmForEncryptionIsFor) {
  makeKey("rsa2048");
  expectRefusal(sign("RSAEncryptionPKCS1", kMessage), 10, {"that algorithm is there to decrypt"});
  expectRefusal(sign("ECDHKeyExchangeStandard", kMessage), 10, {"that algorithm is there to exchange keys"});
}

TEST_F(Signing, WithAnAlgorithmForTheOtherKindOfKeyIsRefused) {
  makeCard({{"rsa2048", "01", "One"}, {"p256", "02", "Two"}});
  expectRefusal(sign("ECDSASignatureMessageX962SHA256", kMessage), 10, {"the key is an RSA key"});
  expectRefusal(runWithPin({"sign", "--key", "02", "--out", path("signature")}, kMessage), 10,
                {"the key is no RSA key"});
}

TEST_F(Signing, RefusesDataOfTheWrongSize) {
  makeKey("rsa2048");
  struct Row {
    const char* algorithm;
    std::size_t size;
    const char* why;
  };
  constexpr std::array kRows{
      Row{"RSASignatureRaw", 255, "they have 255 bytes, a block for this key has 256"},
      Row{"RSASignatureRaw", 257, "they have 257 bytes, a block for this key has 256"},
      Row{"RSASignatureRaw", 0, "they have 0 bytes, a block for this key has 256"},
      Row{"RSASignatureDigestPSSSHA1", 32, "they have 32 bytes, a digest of SHA1 has 20"},
      Row{"RSASignatureDigestPSSSHA256", 31, "they have 31 bytes, a digest of SHA256 has 32"},
      Row{"RSASignatureDigestPKCS1v15SHA512", 65, "they have 65 bytes, a digest of SHA512 has 64"},
      Row{"RSASignatureDigestPKCS1v15Raw", 0, "there are none"},
      Row{"RSASignatureDigestPKCS1v15Raw", 65537, "there are more than 65536 bytes of them"},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string{row.algorithm} + " " + std::to_string(row.size));
    expectRefusal(sign(row.algorithm, std::string(row.size, 'x')), 2,
                  {"the data do not fit the algorithm", row.why});
  }
}

TEST_F(Signing, UsesTheKeyThatIsAskedFor) {
  makeCard({{"rsa2048", "01", "One"}, {"rsa1024", "02", "Two"}});
  expectSigned(runWithPin({"sign", "--key", "02", "--out", path("signature")}, kMessage));
  EXPECT_TRUE(pssVerifies("rsa1024", "SHA256", digestOf("SHA256", kMessage), read("signature")));
  expectSigned(runWithPin({"sign", "--key", "01", "--out", path("signature")}, kMessage));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage), read("signature")));
}

}  // namespace
}  // namespace mirel::test
