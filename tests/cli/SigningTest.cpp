#include <array>

#include "EndToEndTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

/// A hash with the DER in front of its digest (RFC 8017, section 9.2, note 1).
struct Hash {
  const char* name;
  const char* digestInfoStart;
};
constexpr std::array kHashes{
    Hash{"SHA1", "3021300906052B0E03021A05000414"},
    Hash{"SHA224", "302D300D06096086480165030402040500041C"},
    Hash{"SHA256", "3031300D060960864801650304020105000420"},
    Hash{"SHA384", "3041300D060960864801650304020205000430"},
    Hash{"SHA512", "3051300D060960864801650304020305000440"},
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

class Signing : public EndToEndTest {
 protected:
  Signing()
      : EndToEndTest{{{.id = "2048"},
                      {.type = "rsa1024", .id = "1024"},
                      {.type = "rsa1536", .id = "1536"},
                      {.type = "rsa3072", .id = "3072"},
                      {.type = "rsa4096", .id = "4096"},
                      {.type = "p256", .id = "256"},
                      {.type = "p384", .id = "384"},
                      {.id = "PSS", .label = "MyPSSKey"},
                      {.id = "enc", .usage = "keyEncipherment", .allow = "decrypt"}}} {}

  /// The command that signs into the file "out".
  [[nodiscard]] std::string signBy(const std::string& algorithm, const std::string& key = "2048") const {
    return "sign --key " + key + " --algorithm " + algorithm + " --out " + path("out");
  }
};

TEST_F(Signing, ByPssVerifiesWithEveryHash) {
  for (const std::string bits : {"1024", "1536", "2048"}) {
    const std::string type = "rsa" + bits;
    for (const auto& [hash, start] : kHashes) {
      if (bits == "1024" && hash == kHashes.back().name) continue;  // Such a key is too small, see below.
      SCOPED_TRACE(type + " " + hash);
      const std::string digest = digestOf(hash, kMessage);
      const Result result = runWithPin(signBy(std::string{"RSASignatureMessagePSS"} + hash, bits), kMessage);
      expectSigned(result);
      EXPECT_THAT(result.out, IsEmpty());
      EXPECT_THAT(result.err, EndsWith("asked of the card as kSecKeyAlgorithmRSASignatureRaw; the signature "
                                       "verifies with its certificate.\n"));
      EXPECT_EQ(read("out").size() * 8, std::stoul(bits));
      EXPECT_TRUE(pssVerifies(type, hash, digest, read("out")));
      expectSigned(runWithPin(signBy(std::string{"RSASignatureDigestPSS"} + hash, bits), digest));
      EXPECT_TRUE(pssVerifies(type, hash, digest, read("out")));
    }
  }
}

TEST_F(Signing, ByPssDiffersEachTime) {
  expectSigned(runWithPin(signBy("RSASignatureMessagePSSSHA256"), kMessage));
  const std::string first = read("out");
  expectSigned(runWithPin(signBy("RSASignatureMessagePSSSHA256"), kMessage));
  EXPECT_NE(read("out"), first);
}

TEST_F(Signing, IsByPssAndSha256UnlessToldOtherwise) {
  const Result result = runWithPin("sign --key 2048 --out " + path("out"), kMessage);
  expectSigned(result);
  EXPECT_THAT(result.err, HasSubstr("kSecKeyAlgorithmRSASignatureMessagePSSSHA256"));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage), read("out")));
}

TEST_F(Signing, TakesTheWholeNameOfTheAlgorithmAndAnEmptyMessageToo) {
  expectSigned(runWithPin(signBy("kSecKeyAlgorithmRSASignatureMessagePSSSHA384"), ""));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA384", digestOf("SHA384", ""), read("out")));
}

TEST_F(Signing, OfABlockIsTheRsaOperationItself) {
  for (const std::string bits : {"1024", "2048"}) {
    SCOPED_TRACE(bits);
    const std::string block = blockOfSize(std::stoul(bits) / 8);
    const Result result = runWithPin(signBy("RSASignatureRaw", bits), block);
    expectSigned(result);
    EXPECT_THAT(result.err, HasSubstr("by kSecKeyAlgorithmRSASignatureRaw; the signature verifies"));
    EXPECT_EQ(blockOf("rsa" + bits, read("out")), block);
  }
}

TEST_F(Signing, WithoutVerifyingWritesWhatTheCardMade) {
  for (const auto& [hash, start] : kHashes) {
    SCOPED_TRACE(hash);
    const Result result =
        runWithPin(signBy(std::string{"RSASignatureMessagePKCS1v15"} + hash) + " --no-verify", kMessage);
    expectSigned(result);
    EXPECT_THAT(result.err, EndsWith("; the signature was not verified.\n"));
    EXPECT_EQ(blockOf("rsa2048", read("out")), zerosThen(bytesOfHex(start) + digestOf(hash, kMessage), 256));
  }
  expectSigned(runWithPin(signBy("RSASignatureDigestPKCS1v15Raw") + " --no-verify", kMessage));
  EXPECT_EQ(blockOf("rsa2048", read("out")), zerosThen(kMessage, 256));
}

TEST_F(Signing, ByPkcs1FailsBecauseTheModuleDoesNotPad) {
  const std::vector<std::string> words{
      "the module does not pad, so PKCS #1 v1.5 (TLS 1.2 with rsa_pkcs1, CMS (S/MIME), most PDF signers)"};
  std::vector<FailingRun> rows;
  for (const std::string bits : {"1024", "2048"}) {
    for (const auto& [name, start] : kHashes) {
      const std::string hash = name;
      rows.push_back({signBy("RSASignatureMessagePKCS1v15" + hash, bits), 11, words});
      rows.push_back(
          {signBy("RSASignatureDigestPKCS1v15" + hash, bits), 11, words, digestOf(hash, kMessage)});
    }
    rows.push_back({signBy("RSASignatureDigestPKCS1v15Raw", bits), 11, words});
  }
  expectFailures(rows);
}

TEST_F(Signing, WithAKeyThatNeverSignsFails) {
  const std::string onlyRsa = "an EC key never signs";
  const std::string tooLong = "RSA keys above 2048 bits are published and never sign";
  std::vector<FailingRun> rows{
      {signBy("ECDSASignatureMessageX962SHA256", "256") + " --no-verify", 11, {onlyRsa}}};
  for (const std::string curve : {"256", "384"}) {
    for (const std::string hash : {"SHA256", "SHA384", "SHA512"}) {
      rows.push_back(
          {signBy("ECDSASignatureDigestX962" + hash, curve), 11, {onlyRsa}, digestOf(hash, kMessage)});
      rows.push_back({signBy("ECDSASignatureMessageX962" + hash, curve), 11, {onlyRsa}});
    }
  }
  for (const std::string bits : {"3072", "4096"}) {
    const std::string block = blockOfSize(std::stoul(bits) / 8);
    rows.push_back({signBy("RSASignatureMessagePSSSHA256", bits), 11, {tooLong}});
    rows.push_back({signBy("RSASignatureMessagePKCS1v15SHA256", bits), 11, {tooLong}});
    rows.push_back({signBy("RSASignatureRaw", bits), 11, {tooLong}, block});
    rows.push_back({signBy("RSASignatureRaw", bits) + " --no-verify", 11, {tooLong}, block});
  }
  expectFailures(rows);
}

TEST_F(Signing, IsRefusedWhereTheKeyCannotOrMayNot) {
  const std::vector<std::string> pssInTheName{"the name of the key contains \"PSS\"",
                                              "that signature is not handed out"};
  expectFailures({
      {signBy("RSASignatureMessagePSSSHA256", "PSS"), 11, pssInTheName},
      {signBy("RSASignatureRaw"), 11, {"there is no good signature"}, std::string(256, '\xFF')},
      {signBy("ECDSASignatureRFC4754", "256"), 10, {"does not sign with", "the token accepts no form of it"}},
      {signBy("RSASignatureMessagePSSSHA256", "enc"),
       10,
       {"the key 656e63 does not sign with kSecKeyAlgorithmRSASignatureMessagePSSSHA256"}},
      {signBy("RSAEncryptionPKCS1"), 10, {"that algorithm is there to decrypt"}},
      {signBy("RSASignatureMessagePSSSHA256", "256"), 10, {"the key is no RSA key"}},
  });
}

TEST_F(Signing, IsRefusedForDataOfTheWrongSize) {
  const std::string doNotFit = "the data do not fit the algorithm";
  const auto x = [](std::size_t size) { return std::string(size, 'x'); };
  expectFailures({
      // RFC 8017, section 9.1.1: 64 bytes of hash, as many of salt and two more are longer than 1024 bits.
      {signBy("RSASignatureDigestPSSSHA512", "1024"), 2, {"the key has too few bits"}, x(64)},
      {signBy("RSASignatureDigestPKCS1v15Raw", "1024"), 2, {doNotFit}, x(129)},
      {signBy("RSASignatureRaw"), 2, {doNotFit, "they have 257 bytes, a block for this key has 256"}, x(257)},
      {signBy("RSASignatureDigestPSSSHA1"), 2, {"they have 32 bytes, a digest of SHA1 has 20"}, x(32)},
      {signBy("RSASignatureDigestPKCS1v15Raw"), 2, {doNotFit, "there are none"}, ""},
      {signBy("RSASignatureDigestPKCS1v15Raw"), 2, {"there are more than 65536 bytes of them"}, x(65537)},
  });
}

// An algorithm for RSA would be refused because of the key's type.
TEST_F(Signing, IsByAnAlgorithmForTheTypeOfTheKeyWhereNoneIsNamed) {
  const Result result = runWithPin("sign --key 256 --out " + path("out"), kMessage);
  EXPECT_NE(result.exitCode, 0);
  EXPECT_THAT(result.err, ::testing::Not(HasSubstr("the key is no RSA key")));
  expectSigned(runWithPin("sign --key 2048 --out " + path("out"), kMessage));
}

// The card layer answers with zeros when the card fails, and with what it has when the length is wrong.
TEST_F(Signing, OfAFailingCardIsNeverWritten) {
  const std::vector<std::string> deviceError{"C_Sign answered CKR_DEVICE_ERROR (0x30)",
                                             "nothing was written"};
  const std::string pss = signBy("RSASignatureMessagePSSSHA256");
  const std::string unverified = signBy("RSASignatureMessagePKCS1v15SHA256") + " --no-verify";
  const std::string anyLength = "one by this key has 256";
  expectFailures({
      {pss, 11, {"C_SignInit answered CKR_DEVICE_ERROR (0x30)"}, kMessage, {{"ANSWERS", "C_SignInit=30"}}},
      {pss, 11, deviceError, kMessage, {{"ANSWERS", "C_Sign=30"}}},
      {pss + " --no-verify", 11, deviceError, kMessage, {{"ANSWERS", "C_Sign=30"}}},
      {unverified, 11, deviceError, kMessage, {{"ANSWERS", "C_Sign=30"}}},
      {unverified, 11, {anyLength}, kMessage, {{"LENGTHS", "C_Sign=1"}}},
      {unverified, 11, {anyLength}, kMessage, {{"LENGTHS", "C_Sign=FF"}}},
      {unverified,
       11,
       {"the signature is all zeros: the card layer handed none out"},
       kMessage,
       {{"ANSWERS", "C_Sign=0"}, {"LENGTHS", "C_Sign=100"}}},
  });
}

}  // namespace
}  // namespace mirel::test
