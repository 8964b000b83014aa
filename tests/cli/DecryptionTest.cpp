#include <gmock/gmock.h>

#include <array>

#include "KeyTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

constexpr const char* kPlain = "The plain text\n";
constexpr const char* kUsage = "keyEncipherment,dataEncipherment";

class Decryption : public KeyTest {
 protected:
  void makeKey(std::string_view type, std::string_view label = "Encryption") const {
    makeCard({{type, "01", label, kUsage, "decrypt"}});
  }
  [[nodiscard]] Result decrypt(const std::string& cipher, const std::string& algorithm) const {
    return runWithPin({"decrypt", "--key", "01", "--algorithm", algorithm}, cipher);
  }
};

TEST_F(Decryption, OfPkcs1GivesThePlainText) {
  for (const char* type : {"rsa1024", "rsa2048", "rsa3072", "rsa4096"}) {
    SCOPED_TRACE(type);
    makeKey(type);
    const Result result = decrypt(encrypted(type, "pkcs1", kPlain), "RSAEncryptionPKCS1");
    expectSuccess(result);
    EXPECT_EQ(result.out, kPlain);
  }
}

TEST_F(Decryption, IsOfPkcs1UnlessToldOtherwise) {
  makeKey("rsa2048");
  const Result result = runWithPin({"decrypt", "--key", "01"}, encrypted("rsa2048", "pkcs1", kPlain));
  expectSuccess(result);
  EXPECT_EQ(result.out, kPlain);
}

TEST_F(Decryption, GivesThePlainTextOfEveryLength) {
  makeKey("rsa1024");
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{116}, std::size_t{117}}) {
    SCOPED_TRACE(size);
    const std::string plain(size, '\xA5');
    const Result result = decrypt(encrypted("rsa1024", "pkcs1", plain), "RSAEncryptionPKCS1");
    expectSuccess(result);
    EXPECT_EQ(result.out, plain);
  }
}

TEST_F(Decryption, GivesTheLongestPlainTextOfTheLargestKey) {
  makeKey("rsa4096");
  const std::string plain(512 - 11, 'x');
  const Result result = decrypt(encrypted("rsa4096", "pkcs1", plain), "RSAEncryptionPKCS1");
  expectSuccess(result);
  EXPECT_EQ(result.out, plain);
}

// The card layer decrypts by PKCS #1 v1.5 whatever the name of the algorithm says.
TEST_F(Decryption, TakesOffPkcs1PaddingForRawToo) {
  makeKey("rsa2048");
  const Result result = decrypt(encrypted("rsa2048", "pkcs1", kPlain), "RSAEncryptionRaw");
  expectSuccess(result);
  EXPECT_EQ(result.out, kPlain);
}

TEST_F(Decryption, OfOaepIsRefusedBeforeTheModuleIsLoaded) {
  makeKey("rsa2048");
  for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
    SCOPED_TRACE(hash);
    const std::string name = std::string{"RSAEncryptionOAEP"} + hash;
    Invocation call =
        staged({"decrypt", "--key", "01", "--algorithm", name, "--pin-file", write("pin", kPin)});
    call.input = std::string(256, 'x');
    expectFailure(run(call), 10, {name + " never decrypts with these cards", "PKCS #1 v1.5"});
    EXPECT_FALSE(std::filesystem::exists(path("calls")));
  }
}

// ---- A padding that is wrong, or of another key: modules answer it in two ways ----

/// A block that is none of PKCS #1 v1.5: 0x00, and then 0x11.
std::string wrongBlock() { return std::string{'\0'}.append(255, '\x11'); }

TEST_F(Decryption, OfAWrongPaddingFailsWithAModuleThatTellsIt) {
  makeKey("rsa2048");
  for (const char* answer : {"40", "5"}) {  // CKR_ENCRYPTED_DATA_INVALID; CKR_GENERAL_ERROR
    SCOPED_TRACE(answer);
    Invocation call = staged({"decrypt", "--key", "01", "--pin-file", write("pin", kPin)},
                             std::string{"C_Decrypt="} + answer);
    call.input = encrypted("rsa2048", "none", wrongBlock());
    expectFailure(run(call), 13,
                  {"the card gave no plain text", "C_Decrypt answered",
                   "check that the data were encrypted for this key"});
  }
}

// Implicit rejection: nothing tells these bytes from a plain text.
TEST_F(Decryption, OfAWrongPaddingGivesTheBytesOfAModuleThatHidesIt) {
  makeKey("rsa2048");
  Invocation call = staged({"decrypt", "--key", "01", "--pin-file", write("pin", kPin)});
  call.environment["MIREL_STAGED_PLAIN"] = write("random", "random bytes");
  call.input = encrypted("rsa2048", "none", wrongBlock());
  const Result result = run(call);
  expectSuccess(result);
  EXPECT_EQ(result.out, "random bytes");
}

TEST_F(Decryption, OfAWrongPaddingNeverGivesTheBlock) {
  makeKey("rsa2048");
  const std::string cipher = encrypted("rsa2048", "none", wrongBlock());
  for (const char* algorithm : {"RSAEncryptionPKCS1", "RSAEncryptionRaw"}) {
    SCOPED_TRACE(algorithm);
    const Result result = decrypt(cipher, algorithm);
    if (result.exitCode != 0) expectFailure(result, 13, {"the card gave no plain text"});
    EXPECT_EQ(result.out.find("\x11\x11\x11\x11"), std::string::npos);
  }
}

TEST_F(Decryption, WithASmallerKeyIsRefused) {
  makeCard({{"rsa2048", "01", "One", kUsage, "decrypt"}, {"rsa1024", "02", "Two", kUsage, "decrypt"}});
  expectFailure(runWithPin({"decrypt", "--key", "02"}, encrypted("rsa2048", "pkcs1", kPlain)), 2,
                {"they have 256 bytes, a block for this key has 128"});
}

TEST_F(Decryption, RefusesDataOfTheWrongSize) {
  makeKey("rsa2048");
  for (const std::size_t size : {std::size_t{0}, std::size_t{255}, std::size_t{257}, std::size_t{512}}) {
    SCOPED_TRACE(size);
    expectFailure(decrypt(std::string(size, 'x'), "RSAEncryptionPKCS1"), 2,
                  {"the data do not fit the algorithm",
                   "they have " + std::to_string(size) + " bytes, a block for this key has 256"});
  }
  expectFailure(decrypt(std::string(65537, 'x'), "RSAEncryptionPKCS1"), 2,
                {"there are more than 65536 bytes of them"});
}

TEST_F(Decryption, ByWhatIsNotDoneHereIsRefused) {
  makeKey("rsa2048");
  expectFailure(decrypt(std::string(256, 'x'), "RSAEncryptionOAEPSHA256AESGCM"), 10,
                {"the rest is the platform's work and is not done here"});
}

TEST_F(Decryption, ByAnAlgorithmForSigningIsRefused) {
  makeKey("rsa2048");
  expectFailure(decrypt(std::string(256, 'x'), "RSASignatureRaw"), 10, {"that algorithm is there to sign"});
}

TEST_F(Decryption, IsNotOfferedByAKeyForSigning) {
  makeCard({{"rsa2048", "01", "Signature"}});
  expectFailure(decrypt(encrypted("rsa2048", "pkcs1", kPlain), "RSAEncryptionPKCS1"), 10,
                {"the key \"01\" does not decrypt with kSecKeyAlgorithmRSAEncryptionPKCS1"});
}

TEST_F(Decryption, WithAFailingCardFails) {
  makeKey("rsa2048");
  for (const char* function : {"C_DecryptInit", "C_Decrypt"}) {
    SCOPED_TRACE(function);
    Invocation call =
        staged({"decrypt", "--key", "01", "--pin-file", write("pin", kPin)}, std::string{function} + "=30");
    call.input = encrypted("rsa2048", "pkcs1", kPlain);
    expectFailure(run(call), 13, {std::string{function} + " answered CKR_DEVICE_ERROR (0x30)"});
  }
}

TEST_F(Decryption, WithACardThatOnlySaysThatItDecryptedFails) {
  makeKey("rsa2048");
  Invocation call = staged(
      {"decrypt", "--key", "01", "--out", path("plain"), "--pin-file", write("pin", kPin)}, "C_Decrypt=0");
  call.input = encrypted("rsa2048", "pkcs1", kPlain);
  expectFailure(run(call), 13, {"the card gave no plain text", "C_Decrypt answered CKR_OK with 256 bytes"});
  EXPECT_FALSE(std::filesystem::exists(path("plain")));
}

// The first usage that matches decides, and that is the one for signing.
TEST_F(Decryption, IsNotOfferedByAKeyThatMaySignToo) {
  makeCard({{"rsa2048", "01", "Both", "digitalSignature,keyEncipherment", "sign,decrypt"}});
  expectFailure(decrypt(encrypted("rsa2048", "pkcs1", kPlain), "RSAEncryptionPKCS1"), 10,
                {"the token accepts no form of it"});
  expectSigned(runWithPin({"sign", "--key", "01", "--out", path("signature")}, kPlain));
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kPlain), read("signature")));
}

class KeyAgreement : public KeyTest {};

TEST_F(KeyAgreement, IsAcceptedAndGivesNothing) {
  for (const char* type : {"p256", "p384"}) {
    makeCard({{type, "01", "Agreement", "keyAgreement", "derive"}});
    for (const char* algorithm : {"ECDHKeyExchangeStandard", "kSecKeyAlgorithmECDHKeyExchangeStandard"}) {
      SCOPED_TRACE(std::string{type} + " " + algorithm);
      expectFailure(runWithPin({"exchange", "--key", "01", "--algorithm", algorithm, "--out", path("secret")},
                               newPoint(type)),
                    10,
                    {"there is no shared secret", "the token accepts the key exchange, but answers nothing"});
      EXPECT_FALSE(std::filesystem::exists(path("secret")));
    }
  }
}

TEST_F(KeyAgreement, IsTheStandardOneUnlessToldOtherwise) {
  makeCard({{"p256", "01", "Agreement", "keyAgreement", "derive"}});
  expectFailure(runWithPin({"exchange", "--key", "01"}, newPoint("p256")), 10, {"there is no shared secret"});
}

TEST_F(KeyAgreement, IsNotOfferedWithACofactor) {
  makeCard({{"p256", "01", "Agreement", "keyAgreement", "derive"}});
  expectFailure(
      runWithPin({"exchange", "--key", "01", "--algorithm", "ECDHKeyExchangeCofactor"}, newPoint("p256")), 10,
      {"the token accepts no form of it"});
}

TEST_F(KeyAgreement, WithWhatThePlatformAddsIsRefused) {
  makeCard({{"p256", "01", "Agreement", "keyAgreement", "derive"}});
  expectFailure(runWithPin({"exchange", "--key", "01", "--algorithm", "ECDHKeyExchangeStandardX963SHA256"},
                           newPoint("p256")),
                10, {"the rest is the platform's work and is not done here"});
}

TEST_F(KeyAgreement, NeedsThePublicKeyOfTheOtherParty) {
  makeCard({{"p256", "01", "Agreement", "keyAgreement", "derive"}});
  expectFailure(runWithPin({"exchange", "--key", "01"}), 2, {"there are none"});
}

TEST_F(KeyAgreement, IsNotOfferedByAKeyForSigning) {
  makeCard({{"p256", "01", "Signature"}});
  expectFailure(runWithPin({"exchange", "--key", "01"}, newPoint("p256")), 10,
                {"does not exchange keys with"});
}

}  // namespace
}  // namespace mirel::test
