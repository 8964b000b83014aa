/// What is refused before any PIN, and how the report of a card explains a signature that does not verify.

#include "host/KeyAbility.h"

#include "host/CardReportTest.h"
#include "host/KeyChoice.h"
#include "host/Verification.h"

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class KeyAbility : public CardReportTest {
 protected:
  [[nodiscard]] Failure signFailure(std::size_t index, SecKeyAlgorithm algorithm) {
    const InsertedCard card = inserted();
    const auto client = host.newClient(card);
    GivenInput input{{bytesOf("a message")}};
    const auto made = (*client)->sign(keysOf(card).at(index), algorithm, input, pins);
    return failureOf(made);
  }

  GivenPins pins{{u"123456"}};
};

TEST_F(KeyAbility, RefusesToSignInTheWordsOfTheFinding) {
  const struct {
    const char* name;
    std::function<void()> make;
    SecKeyAlgorithm algorithm;
    FindingID id;
  } rows[] = {
      {"RSA of 3072 bits", [&] { addKey("01", "Long", kForSigning, SoftwareKey::rsa(3072)); },
       kSecKeyAlgorithmRSASignatureMessagePSSSHA256, FindingID::kRsaKeyTooLong},
      {"EC", [&] { addEcKey("01", "Curve", kForSigning); }, kSecKeyAlgorithmECDSASignatureMessageX962SHA256,
       FindingID::kEcKeyNeverSigns},
      {"label with PSS", [&] { addKey("01", "Pss"); }, kSecKeyAlgorithmRSASignatureMessagePSSSHA256,
       FindingID::kKeyNameWithPss},
      {"long ID", [&] { addKey(std::string(255, 'x').c_str(), "Key"); },
       kSecKeyAlgorithmRSASignatureMessagePSSSHA256, FindingID::kKeyIDTooLong},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    clearCard();
    row.make();
    const Failure failure = signFailure(0, row.algorithm);
    EXPECT_EQ(failure.kind, FailureKind::kVerificationFailed);
    const FindingEntry& entry = entryOf(row.id);
    EXPECT_THAT(failure.why, AllOf(HasSubstr(std::string{entry.title}), HasSubstr(std::string{entry.why}),
                                   HasSubstr(theFinding(report(), row.id).evidence)));
    EXPECT_EQ(failure.advice.words(), entry.remedy);
  }
  EXPECT_EQ(pins.timesAsked(), 0U);
}

TEST(KeySize, DecidesWhichHashesWork) {
  const struct {
    SecKeyAlgorithm algorithm;
    int least;
  } rows[] = {{kSecKeyAlgorithmRSASignatureMessagePSSSHA1, 330},
              {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, 522},
              {kSecKeyAlgorithmRSASignatureMessagePSSSHA512, 1034},
              {kSecKeyAlgorithmRSASignatureDigestPSSSHA512, 1034},
              {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, 489},
              {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512, 745}};
  PublishedKey key;
  key.keyType = CertificateKeyType::kRSA;
  key.canSign = true;
  for (const auto& [algorithm, least] : rows) {
    SCOPED_TRACE(std::string{nameOf(algorithm)});
    EXPECT_EQ(leastKeySizeFor(algorithm), least);
    key.keySizeInBits = least;
    EXPECT_TRUE(mayWork(key, algorithm));
    key.keySizeInBits = least - 1;
    EXPECT_FALSE(mayWork(key, algorithm));
  }
  key.keySizeInBits = 512;
  EXPECT_TRUE(mayWork(key, kSecKeyAlgorithmRSASignatureRaw));
}

TEST(KeyAbilities, OfAKeyThatNeverDoesItAndOfAnAlgorithmThatIsNotOfRsaAreNone) {
  PublishedKey key;
  key.keyType = CertificateKeyType::kRSA;
  key.keySizeInBits = 2048;
  key.canSign = true;
  const auto algorithm = kSecKeyAlgorithmRSASignatureMessagePSSSHA256;
  EXPECT_TRUE(mayWork(key, algorithm));
  EXPECT_FALSE(mayWork(key, kSecKeyAlgorithmECDSASignatureMessageX962SHA256));
  key.keySizeInBits = 4096;
  EXPECT_FALSE(mayWork(key, algorithm));
  key.keySizeInBits = 2048;
  key.keyType = CertificateKeyType::kECPrimeRandom;
  EXPECT_FALSE(mayWork(key, algorithm));
}

TEST_F(KeyAbility, TellsThatTheKeychainFindsAnotherKeyWithThatID) {
  addKey("01", "First", kForDecrypting);
  addCertificate("01", "Second", kForSigning);
  const Failure failure = signFailure(1, kSecKeyAlgorithmRSASignatureMessagePSSSHA256);
  EXPECT_EQ(failure.kind, FailureKind::kNotSupported);
  EXPECT_THAT(failure.why,
              HasSubstr("several objects share one ID (3031): the keychain finds only the first"));
  EXPECT_EQ(pins.timesAsked(), 0U);
}

TEST_F(KeyAbility, TellsThatACertificateAllowsItsKeyNoUse) {
  addKey("01", "MyKey", 1U << 5U);  // keyCertSign
  const Failure failure = signFailure(0, kSecKeyAlgorithmRSASignatureMessagePSSSHA256);
  EXPECT_EQ(failure.kind, FailureKind::kNotSupported);
  EXPECT_THAT(failure.why, HasSubstr("a certificate allows its key no use (MT-C15)"));
  EXPECT_EQ(failure.advice.words(), entryOf(FindingID::kKeyUsageMissing).remedy);
}

TEST_F(KeyAbility, ExplainsASignatureThatDoesNotVerify) {
  const struct {
    const char* name;
    std::function<void()> make;
    const char* why;
  } rows[] = {
      {"another key",
       [&] {
         addPublicKey("01", "MyKey", otherRsa());
         addPrivateKey("01", "MyKey", otherRsa());
         addCertificate("01", "MyKey");
       },
       "a certificate belongs to another key (certificate 3031 \"MyKey\": certificate and public key differ"},
      {"one ID",
       [&] {
         addKey("01", "First");
         addKey("01", "Second", kForSigning, otherRsa());
       },
       "several objects share one ID (ID 3031: 2 certificates (\"First\", \"Second\")"},
      {"another certificate with its ID",
       [&] {
         addKey("01", "First");
         addCertificate("01", "Second", kForSigning, otherRsa());
       },
       "several objects share one ID (ID 3031: 2 certificates (\"First\", \"Second\")"},
      // It gave a result, so it did not want the PIN.
      {"PIN for each use",
       [&] {
         addKey("01", "MyKey");
         lastObject(1) = lastObject(1).with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
       },
       ""},
      {"a use that is not allowed",
       [&] {
         addKey("01", "MyKey");
         lastObject(1) = lastObject(1).with(CKA_SIGN, boolValue(false));
       },
       "the card does not allow its private key what the certificate says (key 3031 \"MyKey\": CKA_SIGN"},
      {"two private keys",
       [&] {
         addKey("01", "MyKey");
         addPrivateKey("01", "Other", otherRsa());
       },
       "several objects share one ID (ID 3031: 2 private keys"},
      {"a renewed certificate",
       [&] {
         addKey("01", "MyKey");
         addCertificate("01", "Renewed");
       },
       ""},
      {"nothing known", [&] { addKey("01", "MyKey"); }, ""},
  };
  const Failure plain{FailureKind::kVerificationFailed, "there is no good signature", "it does not verify",
                      "try another algorithm or key"};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    clearCard();
    row.make();
    script.card().loggedIn = false;
    const CardReport report = reportAfterLogin();
    const InsertedCard card = inserted();
    const Failure failure = explainedBy(report, keysOf(card).front(), plain);
    EXPECT_EQ(failure.kind, plain.kind);
    EXPECT_THAT(failure.why, HasSubstr(row.why));
    Failure known = plain;
    known.isCauseKnown = true;
    EXPECT_EQ(explainedBy(report, keysOf(card).front(), known).why, plain.why);
    if (std::string{row.why}.empty()) {
      EXPECT_EQ(failure.why, plain.why);
    }
  }
}

TEST_F(KeyAbility, ExplainsByThePinForEachUseOnlyWhatTheCardRefusedForThat) {
  addKey("01", "MyKey");
  lastObject(1) = lastObject(1).with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
  const CardReport report = reportAfterLogin();
  Failure failure{FailureKind::kCardRefuses, "there is no plain text", "C_Decrypt answered", "run again"};
  const std::pair<CK_RV, bool> rows[] = {{CKR_USER_NOT_LOGGED_IN, true},
                                         {CKR_GENERAL_ERROR, false},
                                         {CKR_ENCRYPTED_DATA_INVALID, false},
                                         {CKR_MECHANISM_INVALID, false}};
  for (const auto& [answer, isCause] : rows) {
    SCOPED_TRACE(answer);
    failure.result = answer;
    const Failure told = explainedBy(report, keysOf(inserted()).front(), failure);
    EXPECT_EQ(told.why, isCause ? "C_Decrypt answered: the key wants the PIN for each use (key 3031 "
                                  "\"MyKey\": CKA_ALWAYS_AUTHENTICATE of its private key is true)"
                                : failure.why);
    EXPECT_EQ(told.advice.words(),
              isCause ? entryOf(FindingID::kPinForEachUse).remedy : failure.advice.words());
  }
}

TEST_F(KeyAbility, SaysThatTheCardCouldNotBeLookedAtForTheReason) {
  const Failure plain{FailureKind::kCardRefuses, "there is no plain text", "C_Decrypt answered", "run again"};
  addKey("01", "MyKey");
  const InsertedCard card = inserted();
  for (const char* function : {"C_GetAttributeValue", "C_FindObjects", "C_OpenSession", "C_GetTokenInfo"}) {
    SCOPED_TRACE(function);
    script.failCallOf(function, 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
    const Failure failure = explainedBy(host.examine(card), keysOf(card).front(), plain);
    EXPECT_THAT(
        failure.why,
        StartsWith("C_Decrypt answered; whether the card's objects are the reason cannot be told now, " +
                   std::string{function} + " answered CKR_DEVICE_ERROR"));
    EXPECT_EQ(failure.advice.words(), plain.advice.words());
  }
}

TEST_F(KeyAbility, SaysNothingOfALookThatSawAll) {
  const Failure plain{FailureKind::kCardRefuses, "there is no plain text", "C_Decrypt answered", "run again"};
  addKey("01", "MyKey");
  InsertedCard card = inserted();
  card.incomplete = plain;
  EXPECT_EQ(explainedBy(host.examine(card), keysOf(card).front(), plain).why, plain.why);
}

}  // namespace
}  // namespace mirel::test
