#include "EndToEndTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

/// The DER in front of a digest by SHA-256 (RFC 8017, section 9.2, note 1).
constexpr const char* kDigestInfoStart = "3031300D060960864801650304020105000420";

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
                      {.type = "rsa3072", .id = "3072"},
                      {.type = "p256", .id = "256"},
                      {.id = "PSS", .label = "MyPSSKey"},
                      {.id = "enc", .usage = "keyEncipherment", .allow = "decrypt"}}} {}

  /// The command that signs into the file "out".
  [[nodiscard]] std::string signBy(const std::string& algorithm, const std::string& key = "2048") const {
    return "sign --key " + key + " --algorithm " + algorithm + " --out " + path("out");
  }
};

TEST_F(Signing, IsByPssAndSha256UnlessToldOtherwise) {
  const Result result = runWithPin("sign --key 2048 --out " + path("out"), kMessage);
  expectSigned(result);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, EndsWith("by kSecKeyAlgorithmRSASignatureMessagePSSSHA256, asked of the card as "
                                   "kSecKeyAlgorithmRSASignatureRaw; the signature verifies with its "
                                   "certificate.\n"));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage), read("out")));
}

TEST_F(Signing, TakesTheWholeNameOfTheAlgorithmAndAnEmptyMessageToo) {
  expectSigned(runWithPin(signBy("kSecKeyAlgorithmRSASignatureMessagePSSSHA384"), ""));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA384", digestOf("SHA384", ""), read("out")));
}

TEST_F(Signing, OfABlockIsTheRsaOperationItself) {
  const std::string block = blockOfSize(128);
  const Result result = runWithPin(signBy("RSASignatureRaw", "1024"), block);
  expectSigned(result);
  EXPECT_THAT(result.err, HasSubstr("by kSecKeyAlgorithmRSASignatureRaw; the signature verifies"));
  EXPECT_EQ(blockOf("rsa1024", read("out")), block);
}

TEST_F(Signing, WithoutVerifyingWritesWhatTheCardMade) {
  const Result result = runWithPin(signBy("RSASignatureMessagePKCS1v15SHA256") + " --no-verify", kMessage);
  expectSigned(result);
  EXPECT_THAT(result.err,
              ContainsRegex("; the signature does not verify: the module does not pad[^\n]*\\.\n$"));
  EXPECT_EQ(blockOf("rsa2048", read("out")),
            zerosThen(bytesOfHex(kDigestInfoStart) + digestOf("SHA256", kMessage), 256));
  expectSigned(runWithPin(signBy("RSASignatureDigestPKCS1v15Raw") + " --no-verify", kMessage));
  EXPECT_EQ(blockOf("rsa2048", read("out")), zerosThen(kMessage, 256));
  const Result good = runWithPin(signBy("RSASignatureMessagePSSSHA256") + " --no-verify", kMessage);
  EXPECT_THAT(good.err, EndsWith("; the signature verifies with its certificate.\n"));
}

TEST_F(Signing, ByPkcs1FailsBecauseTheModuleDoesNotPad) {
  const std::vector<std::string> words{
      "the module does not pad, so PKCS #1 v1.5 (TLS 1.2 with rsa_pkcs1, CMS (S/MIME), most PDF signers)"};
  expectFailures(
      {{signBy("RSASignatureMessagePKCS1v15SHA1"), 11, words},
       {signBy("RSASignatureDigestPKCS1v15SHA512", "1024"), 11, words, digestOf("SHA512", kMessage)},
       {signBy("RSASignatureDigestPKCS1v15Raw"), 11, words}});
}

TEST_F(Signing, WithAKeyThatNeverSignsFails) {
  const std::string tooLong = "RSA keys above 2048 bits are published and never sign";
  expectFailures(
      {{signBy("ECDSASignatureMessageX962SHA256", "256") + " --no-verify", 11, {"an EC key never signs"}},
       {"sign --key 256 --out " + path("out"), 11, {"an EC key never signs"}},
       {signBy("RSASignatureMessagePSSSHA256", "3072"), 11, {tooLong}},
       {signBy("RSASignatureRaw", "3072") + " --no-verify", 11, {tooLong}, blockOfSize(384)}});
}

TEST_F(Signing, IsRefusedWhereTheKeyCannotOrMayNot) {
  const std::vector<std::string> pssInTheName{"the name of the key contains \"PSS\"",
                                              "that signature is not handed out"};
  expectFailures({
      {signBy("RSASignatureMessagePSSSHA256", "PSS"), 11, pssInTheName},
      {signBy("RSASignatureRaw"), 11, {"there is no good signature"}, std::string(256, '\xFF')},
      {signBy("RSASignatureMessagePSSSHA256", "enc"),
       10,
       {"the key 656e63 does not sign with kSecKeyAlgorithmRSASignatureMessagePSSSHA256"}},
  });
}

TEST_F(Signing, IsRefusedForDataOfTheWrongSize) {
  const std::string doNotFit = "the data do not fit the algorithm";
  expectFailures({
      {signBy("RSASignatureRaw"),
       2,
       {doNotFit, "they have 257 bytes, a block for this key has 256"},
       std::string(257, 'x')},
      {signBy("RSASignatureDigestPKCS1v15Raw"), 2, {doNotFit, "there are none"}, ""},
  });
}

// The private key is another one than that of the certificate, and the public key shows it.
TEST_F(Signing, ThatDoesNotVerifyIsExplainedByTheCard) {
  makeCards(std::string{"token label=Card pin="} + kPin +
            "\nprivate type=rsa2048 id=01 label=Key allow=sign\npublic type=rsa2048 id=01 label=Key\n"
            "certificate type=rsa1024 id=01 label=Other usage=digitalSignature\n");
  expectFailures({{"sign --key 3031 --out " + path("out"),
                   11,
                   {"a certificate belongs to another key", "certificate and public key differ"}}});
}

// The card layer answers with zeros when the card fails, and with what it has when the length is wrong.
TEST_F(Signing, OfAFailingCardIsNeverWritten) {
  const std::vector<std::string> deviceError{"C_Sign answered CKR_DEVICE_ERROR (0x30)",
                                             "nothing was written"};
  const std::string pss = signBy("RSASignatureMessagePSSSHA256");
  const std::string unverified = signBy("RSASignatureMessagePKCS1v15SHA256") + " --no-verify";
  expectFailures({
      {pss, 11, {"C_SignInit answered CKR_DEVICE_ERROR (0x30)"}, kMessage, {{"ANSWERS", "C_SignInit=30"}}},
      {pss, 11, deviceError, kMessage, {{"ANSWERS", "C_Sign=30"}}},
      {pss + " --no-verify", 11, deviceError, kMessage, {{"ANSWERS", "C_Sign=30"}}},
      {unverified, 11, {"one by this key has 256"}, kMessage, {{"LENGTHS", "C_Sign=FF"}}},
      {unverified,
       11,
       {"the signature is all zeros: the card layer handed none out"},
       kMessage,
       {{"ANSWERS", "C_Sign=0"}, {"LENGTHS", "C_Sign=100"}}},
  });
}

}  // namespace
}  // namespace mirel::test
