#include <map>

#include "host/Algorithms.h"
#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;

/// From the algorithm that a client wants to the one that the token is asked for; names with "*" stand for
/// one with each hash. What is not listed, the token accepts in no form.
using Forms = std::vector<std::pair<const char*, const char*>>;

const Forms kOfSigningKeys{
    {"RSASignatureRaw", "RSASignatureRaw"},
    {"RSASignatureDigestPKCS1v15Raw", "RSASignatureDigestPKCS1v15Raw"},
    {"RSASignatureDigestPKCS1v15*", "RSASignatureDigestPKCS1v15Raw"},
    {"RSASignatureMessagePKCS1v15*", "RSASignatureDigestPKCS1v15Raw"},
    {"RSASignatureDigestPSS*", "RSASignatureRaw"},
    {"RSASignatureMessagePSS*", "RSASignatureRaw"},
    {"ECDSASignatureDigestX962SHA256", "ECDSASignatureDigestX962SHA256"},
    {"ECDSASignatureDigestX962SHA384", "ECDSASignatureDigestX962SHA384"},
    {"ECDSASignatureDigestX962SHA512", "ECDSASignatureDigestX962SHA512"},
    {"ECDSASignatureMessageX962SHA256", "ECDSASignatureDigestX962SHA256"},
    {"ECDSASignatureMessageX962SHA384", "ECDSASignatureDigestX962SHA384"},
    {"ECDSASignatureMessageX962SHA512", "ECDSASignatureDigestX962SHA512"},
};

const Forms kOfDecryptingKeys{
    {"RSAEncryptionRaw", "RSAEncryptionRaw"},
    {"RSAEncryptionPKCS1", "RSAEncryptionPKCS1"},
    {"RSAEncryptionOAEP*", "RSAEncryptionRaw"},
    {"RSAEncryptionOAEP*AESGCM", "RSAEncryptionRaw"},
    // But:
    {"RSAEncryptionOAEPSHA256", "RSAEncryptionOAEPSHA256"},
    {"RSAEncryptionOAEPSHA256AESGCM", "RSAEncryptionOAEPSHA256"},
};

const Forms kOfExchangingKeys{
    {"ECDHKeyExchangeStandard", "ECDHKeyExchangeStandard"},
    {"ECDHKeyExchangeStandardX963*", "ECDHKeyExchangeStandard"},
    {"ECIESEncryptionStandardX963*AESGCM", "ECDHKeyExchangeStandard"},
    {"ECIESEncryptionStandardVariableIVX963SHA224AESGCM", "ECDHKeyExchangeStandard"},
    {"ECIESEncryptionStandardVariableIVX963SHA256AESGCM", "ECDHKeyExchangeStandard"},
    {"ECIESEncryptionStandardVariableIVX963SHA384AESGCM", "ECDHKeyExchangeStandard"},
    {"ECIESEncryptionStandardVariableIVX963SHA512AESGCM", "ECDHKeyExchangeStandard"},
};

class AcceptedForm : public KeyClientTest {
 protected:
  void expectForms(const char16_t* objectID, const Forms& forms) {
    std::map<SecKeyAlgorithm, SecKeyAlgorithm> all;
    for (const auto& [from, to] : forms) {
      for (const std::string_view hash : kHashNames)
        all[algorithmNamed(withHash(from, hash))] = algorithmNamed(withHash(to, hash));
    }
    for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
      SCOPED_TRACE(name);
      const auto wanted = all.find(algorithm);
      const auto form = client->acceptedForm(published(objectID), algorithm);
      ASSERT_EQ(form.has_value(), wanted != all.end());
      if (!form) continue;
      EXPECT_EQ(nameOf(*form), nameOf(wanted->second));
    }
  }
};

TEST_F(AcceptedForm, IsTheFirstThatTheTokenAccepts) {
  expectForms(u"01", kOfSigningKeys);
  // The token does not look at the type of the key.
  expectForms(u"03", kOfSigningKeys);
  expectForms(u"02", kOfDecryptingKeys);
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

TEST_F(NotSupported, IsSigningThatTheKeyOrTheTokenDoesNot) {
  const struct {
    const char16_t* objectID;
    const char* algorithm;
    const char* why = "the token accepts no form of it";
  } rows[] = {
      {u"03", "ECDSASignatureDigestX962"},
      {u"03", "ECDSASignatureDigestX962SHA1"},
      {u"03", "ECDSASignatureMessageX962SHA224"},
      {u"03", "ECDSASignatureRFC4754"},
      // Keys that do not sign.
      {u"02", "RSASignatureRaw",
       "by the key usage of its certificate (keyEncipherment) the key only decrypts"},
      {u"04", "ECDSASignatureDigestX962SHA256", "(keyAgreement) the key only exchanges keys"},
      {u"01", "RSAEncryptionRaw", "that algorithm is there to decrypt"},
      {u"04", "ECDHKeyExchangeStandard", "that algorithm is there to exchange keys"},
      {u"03", "RSASignatureRaw", "the key is no RSA key"},
      {u"03", "RSASignatureMessagePSSSHA256", "the key is no RSA key"},
      {u"03", "RSASignatureDigestPKCS1v15SHA256", "the key is no RSA key"},
      {u"01", "ECDSASignatureDigestX962SHA256", "the key is an RSA key"},
      {u"01", "ECDSASignatureMessageX962SHA384", "the key is an RSA key"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.algorithm);
    expectNotSupported(client->sign(published(row.objectID), algorithmNamed(row.algorithm), input, pins),
                       row.why);
  }
}

TEST_F(NotSupported, IsDecryptingOrExchangingThatTheKeyOrTheTokenDoesNot) {
  const struct {
    bool decrypts;
    const char16_t* objectID;
    const char* algorithm;
    const char* why;
  } rows[] = {
      {true, u"01", "RSAEncryptionPKCS1", "(digitalSignature) the key only signs"},
      {true, u"02", "RSASignatureRaw", "that algorithm is there to sign"},
      {true, u"02", "RSAEncryptionOAEPSHA256AESGCM", "is not done here"},
      {true, u"02", "RSAEncryptionOAEPSHA512AESGCM", "is not done here"},
      {true, u"04", "ECIESEncryptionStandardX963SHA256AESGCM", "is not done here"},
      {false, u"03", "ECDHKeyExchangeStandard", "(digitalSignature) the key only signs"},
      {false, u"04", "ECDHKeyExchangeCofactor", "the token accepts no form of it"},
      {false, u"04", "RSAEncryptionRaw", "that algorithm is there to decrypt"},
      {false, u"04", "ECDHKeyExchangeStandardX963SHA256", "is not done here"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.algorithm);
    const SecKeyAlgorithm algorithm = algorithmNamed(row.algorithm);
    if (row.decrypts) {
      expectNotSupported(client->decrypt(published(row.objectID), algorithm, input, pins), row.why);
    } else {
      expectNotSupported(client->exchange(published(row.objectID), algorithm, input, pins), row.why);
    }
  }
}

TEST_F(NotSupported, TellsKeyAndAlgorithm) {
  EXPECT_EQ(failureOf(client->sign(published(u"02"), kSecKeyAlgorithmRSASignatureRaw, input, pins)).what,
            "the key 3032 does not sign with kSecKeyAlgorithmRSASignatureRaw");
  EXPECT_EQ(failureOf(client->decrypt(published(u"01"), kSecKeyAlgorithmRSAEncryptionRaw, input, pins)).what,
            "the key 3031 does not decrypt with kSecKeyAlgorithmRSAEncryptionRaw");
  EXPECT_EQ(
      failureOf(client->exchange(published(u"03"), kSecKeyAlgorithmECDHKeyExchangeStandard, input, pins))
          .what,
      "the key 3033 does not exchange keys with kSecKeyAlgorithmECDHKeyExchangeStandard");
}

}  // namespace
}  // namespace mirel::test
