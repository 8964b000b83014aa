#include <map>

#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;

/// From the algorithm that a client wants to the one that the token is asked for; what is not listed, the
/// token accepts in no form.
using Forms = std::map<SecKeyAlgorithm, SecKeyAlgorithm>;

const Forms kOfSigningKeys{
    {kSecKeyAlgorithmRSASignatureRaw, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA1, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA224, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA384, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureDigestPSSSHA512, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA1, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA224, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA256, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA384, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmRSASignatureMessagePSSSHA512, kSecKeyAlgorithmRSASignatureRaw},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kSecKeyAlgorithmECDSASignatureDigestX962SHA256},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA384, kSecKeyAlgorithmECDSASignatureDigestX962SHA384},
    {kSecKeyAlgorithmECDSASignatureDigestX962SHA512, kSecKeyAlgorithmECDSASignatureDigestX962SHA512},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA256, kSecKeyAlgorithmECDSASignatureDigestX962SHA256},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA384, kSecKeyAlgorithmECDSASignatureDigestX962SHA384},
    {kSecKeyAlgorithmECDSASignatureMessageX962SHA512, kSecKeyAlgorithmECDSASignatureDigestX962SHA512},
};

const Forms kOfDecryptingKeys{
    {kSecKeyAlgorithmRSAEncryptionRaw, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionPKCS1, kSecKeyAlgorithmRSAEncryptionPKCS1},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256, kSecKeyAlgorithmRSAEncryptionOAEPSHA256},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM, kSecKeyAlgorithmRSAEncryptionOAEPSHA256},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM, kSecKeyAlgorithmRSAEncryptionRaw},
    {kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM, kSecKeyAlgorithmRSAEncryptionRaw},
};

const Forms kOfExchangingKeys{
    {kSecKeyAlgorithmECDHKeyExchangeStandard, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM, kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM,
     kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM,
     kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM,
     kSecKeyAlgorithmECDHKeyExchangeStandard},
    {kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM,
     kSecKeyAlgorithmECDHKeyExchangeStandard},
};

class AcceptedForm : public KeyClientTest {
 protected:
  void expectForms(const char16_t* objectID, const Forms& forms) {
    for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
      SCOPED_TRACE(name);
      const auto wanted = forms.find(algorithm);
      const auto form = client->acceptedForm(published(objectID), algorithm);
      ASSERT_EQ(form.has_value(), wanted != forms.end());
      if (!form) continue;
      EXPECT_EQ(nameOf(*form), nameOf(wanted->second));
    }
  }
};

TEST_F(AcceptedForm, IsTheFirstThatTheTokenAcceptsOfASigningKey) {
  expectForms(u"01", kOfSigningKeys);
  // The token does not look at the type of the key.
  expectForms(u"03", kOfSigningKeys);
}

TEST_F(AcceptedForm, IsTheFirstThatTheTokenAcceptsOfADecryptingKey) { expectForms(u"02", kOfDecryptingKeys); }

TEST_F(AcceptedForm, IsTheFirstThatTheTokenAcceptsOfAnExchangingKey) {
  expectForms(u"04", kOfExchangingKeys);
}

TEST_F(AcceptedForm, IsNoneOfAKeyThatIsNotThere) {
  PublishedKey unknown = published(u"01");
  unknown.objectID = Text{u"99"};
  EXPECT_EQ(client->acceptedForm(unknown, kSecKeyAlgorithmRSASignatureRaw), std::nullopt);
}

TEST_F(AcceptedForm, IsKnownWithoutTheCard) {
  (void)client->acceptedForm(published(u"01"), kSecKeyAlgorithmRSASignatureMessagePSSSHA256);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

// ---- What is refused because of it ----

/// Requests that must fail before anything is read, asked for or done.
class NotSupported : public KeyClientTest {
 protected:
  template <typename Value>
  void expectNotSupported(const Result<Value>& outcome, const char* why) {
    const Failure failure = failureOf(outcome);
    EXPECT_EQ(failure.kind, FailureKind::kNotSupported);
    EXPECT_THAT(failure.why, HasSubstr(why));
    EXPECT_EQ(input.timesRead, 0U);
    EXPECT_EQ(pins.timesAsked(), 0U);
    EXPECT_THAT(script.callTexts(), IsEmpty());
  }

  GivenInput input{{Value(128, 0x01)}};
};

TEST_F(NotSupported, IsAnAlgorithmThatTheTokenAcceptsInNoForm) {
  const std::pair<const char16_t*, SecKeyAlgorithm> kRows[] = {
      {u"03", kSecKeyAlgorithmECDSASignatureDigestX962},
      {u"03", kSecKeyAlgorithmECDSASignatureDigestX962SHA1},
      {u"03", kSecKeyAlgorithmECDSASignatureMessageX962SHA224},
      {u"03", kSecKeyAlgorithmECDSASignatureRFC4754},
      // Keys that do not sign.
      {u"02", kSecKeyAlgorithmRSASignatureRaw},
      {u"04", kSecKeyAlgorithmECDSASignatureDigestX962SHA256},
  };
  for (const auto& [objectID, algorithm] : kRows) {
    SCOPED_TRACE(nameOf(algorithm));
    expectNotSupported(client->sign(published(objectID), algorithm, input, pins),
                       "the token accepts no form of it");
  }
}

TEST_F(NotSupported, IsDecryptingOrExchangingWithAKeyThatSigns) {
  expectNotSupported(client->decrypt(published(u"01"), kSecKeyAlgorithmRSAEncryptionPKCS1, input, pins),
                     "the token accepts no form of it");
  expectNotSupported(client->exchange(published(u"03"), kSecKeyAlgorithmECDHKeyExchangeStandard, input, pins),
                     "the token accepts no form of it");
  expectNotSupported(client->exchange(published(u"04"), kSecKeyAlgorithmECDHKeyExchangeCofactor, input, pins),
                     "the token accepts no form of it");
}

TEST_F(NotSupported, IsAnAlgorithmOfAnotherOperation) {
  expectNotSupported(client->sign(published(u"01"), kSecKeyAlgorithmRSAEncryptionRaw, input, pins),
                     "that algorithm is there to decrypt");
  expectNotSupported(client->sign(published(u"04"), kSecKeyAlgorithmECDHKeyExchangeStandard, input, pins),
                     "that algorithm is there to exchange keys");
  expectNotSupported(client->decrypt(published(u"02"), kSecKeyAlgorithmRSASignatureRaw, input, pins),
                     "that algorithm is there to sign");
  expectNotSupported(client->exchange(published(u"04"), kSecKeyAlgorithmRSAEncryptionRaw, input, pins),
                     "that algorithm is there to decrypt");
}

TEST_F(NotSupported, IsAnRsaAlgorithmWithAnotherKey) {
  for (const SecKeyAlgorithm algorithm :
       {kSecKeyAlgorithmRSASignatureRaw, kSecKeyAlgorithmRSASignatureMessagePSSSHA256,
        kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256}) {
    expectNotSupported(client->sign(published(u"03"), algorithm, input, pins), "the key is no RSA key");
  }
}

TEST_F(NotSupported, IsAnEcAlgorithmWithAnRsaKey) {
  for (const SecKeyAlgorithm algorithm :
       {kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kSecKeyAlgorithmECDSASignatureMessageX962SHA384}) {
    expectNotSupported(client->sign(published(u"01"), algorithm, input, pins), "the key is an RSA key");
  }
}

TEST_F(NotSupported, IsWhatIsComposedAroundADecryption) {
  for (const SecKeyAlgorithm algorithm :
       {kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM, kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM}) {
    expectNotSupported(client->decrypt(published(u"02"), algorithm, input, pins), "is not done here");
  }
}

TEST_F(NotSupported, IsWhatIsComposedAroundAnExchange) {
  expectNotSupported(
      client->exchange(published(u"04"), kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256, input, pins),
      "is not done here");
  expectNotSupported(
      client->decrypt(published(u"04"), kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM, input, pins),
      "is not done here");
}

TEST_F(NotSupported, TellsKeyAndAlgorithm) {
  const Failure failure =
      failureOf(client->sign(published(u"02"), kSecKeyAlgorithmRSASignatureRaw, input, pins));
  EXPECT_EQ(failure.what, "the key 3032 does not sign with kSecKeyAlgorithmRSASignatureRaw");
}

}  // namespace
}  // namespace mirel::test
