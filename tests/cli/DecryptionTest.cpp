#include "EndToEndTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

constexpr const char* kUsage = "keyEncipherment,dataEncipherment";

/// A block that is none of PKCS #1 v1.5: 0x00, and then 0x11.
std::string wrongBlock() { return std::string{'\0'}.append(255, '\x11'); }

class Decryption : public EndToEndTest {
 protected:
  Decryption()
      : EndToEndTest{{{.id = "2048", .usage = kUsage, .allow = "decrypt"},
                      {.type = "rsa1024", .id = "1024", .usage = kUsage, .allow = "decrypt"},
                      {.type = "rsa4096", .id = "4096", .usage = kUsage, .allow = "decrypt"},
                      {.id = "sig"},
                      {.id = "both", .usage = "digitalSignature,keyEncipherment", .allow = "sign,decrypt"}}} {
  }

  [[nodiscard]] static std::string decryptBy(const std::string& algorithm, const std::string& key = "2048") {
    return "decrypt --key " + key + " --algorithm " + algorithm;
  }
};

TEST_F(Decryption, GivesThePlainText) {
  const std::pair<std::string, std::string> rows[] = {{"2048", kPlain},
                                                      {"1024", ""},
                                                      {"1024", std::string(117, '\xA5')},
                                                      {"4096", std::string(512 - 11, 'x')}};
  for (const auto& [bits, plain] : rows) {
    SCOPED_TRACE(bits + " " + std::to_string(plain.size()));
    expectOutput(runWithPin(decryptBy("RSAEncryptionPKCS1", bits), encrypted("rsa" + bits, "pkcs1", plain)),
                 plain);
  }
}

// The card layer decrypts by PKCS #1 v1.5 whatever the name of the algorithm says.
TEST_F(Decryption, IsOfPkcs1WithoutAnAlgorithmAndForRawToo) {
  const std::string cipher = encrypted("rsa2048", "pkcs1", kPlain);
  expectOutput(runWithPin("decrypt --key 2048", cipher), kPlain);
  expectOutput(runWithPin(decryptBy("RSAEncryptionRaw"), cipher), kPlain);
}

TEST_F(Decryption, OfOaepIsRefusedBeforeTheModuleIsLoaded) {
  for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
    const std::string name = std::string{"RSAEncryptionOAEP"} + hash;
    expectFailures({{decryptBy(name),
                     10,
                     {name + " never decrypts with these cards", "PKCS #1 v1.5"},
                     std::string(256, 'x')}});
    EXPECT_FALSE(exists("calls"));
  }
}

// Modules answer a padding that is wrong, or of another key, in two ways. This one tells it.
TEST_F(Decryption, OfAWrongPaddingFailsWithAModuleThatTellsIt) {
  const std::vector<std::string> words{"the card gave no plain text", "C_Decrypt answered",
                                       "check that the data were encrypted for this key"};
  const std::string cipher = encrypted("rsa2048", "none", wrongBlock());
  expectFailures({{"decrypt --key 2048", 13, words, cipher, {{"ANSWERS", "C_Decrypt=40"}}},
                  {"decrypt --key 2048", 13, words, cipher, {{"ANSWERS", "C_Decrypt=5"}}}});
}

// Implicit rejection: nothing tells these bytes from a plain text.
TEST_F(Decryption, OfAWrongPaddingGivesTheBytesOfAModuleThatHidesIt) {
  Invocation call = stagedWithPin("decrypt --key 2048", {{"PLAIN", write("random", "random bytes")}});
  call.input = encrypted("rsa2048", "none", wrongBlock());
  expectOutput(run(call), "random bytes");
}

TEST_F(Decryption, OfAWrongPaddingNeverGivesTheBlock) {
  const std::string cipher = encrypted("rsa2048", "none", wrongBlock());
  for (const char* algorithm : {"RSAEncryptionPKCS1", "RSAEncryptionRaw"}) {
    SCOPED_TRACE(algorithm);
    const Result result = runWithPin(decryptBy(algorithm), cipher);
    if (result.exitCode != 0) expectFailure(result, 13, {"the card gave no plain text"});
    EXPECT_EQ(result.out.find("\x11\x11\x11\x11"), std::string::npos);
  }
}

TEST_F(Decryption, IsRefusedForDataOfTheWrongSize) {
  expectFailures({
      {"decrypt --key 1024",
       2,
       {"the data do not fit the algorithm", "they have 256 bytes, a block for this key has 128"},
       encrypted("rsa2048", "pkcs1", kPlain)},
  });
}

TEST_F(Decryption, IsRefusedWhereTheKeyOrTheAlgorithmDoesNot) {
  expectFailures({
      {decryptBy("RSAEncryptionPKCS1", "sig"),
       10,
       {"the key 736967 does not decrypt with kSecKeyAlgorithmRSAEncryptionPKCS1"}},
      // The first usage that matches decides, and that is the one for signing.
      {decryptBy("RSAEncryptionPKCS1", "both"), 10, {"keyEncipherment) the key only signs"}},
  });
  expectSigned(runWithPin("sign --key both --out " + path("signature"), kPlain));
}

TEST_F(Decryption, SaysWhatOfTheCardMayBeTheReason) {
  const struct {
    const char* card;
    std::size_t size;  ///< of a block, by the certificate
    const char* why;
    const char* remedy;
  } rows[] = {{"token label=Card pin=7kQ#x2Zp\n"
               "public type=rsa2048 id=01 label=Key\n"
               "certificate type=rsa2048 id=01 label=Key usage=keyEncipherment\n",
               256, "a private key is missing", "have the card's issuer put the private key on the card"},
              {"token label=Card pin=7kQ#x2Zp\n"
               "public type=rsa2048 id=01 label=Key\n"
               "private type=rsa2048 id=01 label=Key allow=decrypt\n"
               "certificate type=rsa1024 id=01 label=Key usage=keyEncipherment\n",
               128, "a certificate belongs to another key",
               "have the card's issuer put the certificate and the public key"}};
  for (const auto& [card, size, why, remedy] : rows) {
    makeCards(card);
    expectFailures({{"decrypt --key 01 --out " + path("out"),
                     13,
                     {why, remedy},
                     std::string(size, '\x11'),
                     {{"ANSWERS", "C_Decrypt=40"}}}});
  }
}

TEST_F(Decryption, IsNotExchangingKeysWhichIsAcceptedAndGivesNothing) {
  makeCard({{.type = "p256", .id = "256", .usage = "keyAgreement", .allow = "derive"}});
  for (const char* algorithm : {"", " --algorithm ECDHKeyExchangeStandard"}) {
    expectFailures({{std::string{"exchange --key 256"} + algorithm + " --out " + path("out"),
                     10,
                     {"there is no shared secret", "key agreement gets no answer"},
                     newPoint("p256")}});
  }
}

}  // namespace
}  // namespace mirel::test
