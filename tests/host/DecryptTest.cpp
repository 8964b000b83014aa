#include <openssl/rsa.h>

#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;

const Value kPlain = bytesOf("a secret");

class Decrypt : public KeyClientTest {};

// ---- PKCS #1 v1.5 ----

TEST_F(Decrypt, GivesThePlainText) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{32}, key.blockSize() - 11}) {
    for (const Value& plain : {patternValue(size, 7), Value(size, 0)}) {
      SCOPED_TRACE(size);
      EXPECT_EQ(plainText(kDecryptPkcs1, key.encrypted(plain, RSA_PKCS1_PADDING)), plain);
    }
  }
}

TEST_F(Decrypt, AsksForThePinOnce) {
  const Value cipher = key.encrypted(kPlain, RSA_PKCS1_PADDING);
  (void)plainText(kDecryptPkcs1, cipher);
  (void)plainText(kDecryptPkcs1, cipher);
  EXPECT_EQ(pins.timesAsked(), 1U);
  EXPECT_THAT(secretCalls(),
              ElementsAre("C_Login", "C_DecryptInit", "C_Decrypt", "C_DecryptInit", "C_Decrypt"));
}

TEST_F(Decrypt, ReadsACryptogramInPieces) {
  const Value cipher = key.encrypted(kPlain, RSA_PKCS1_PADDING);
  GivenInput input{{Value(cipher.begin(), cipher.begin() + 1), {}, Value(cipher.begin() + 1, cipher.end())}};
  const auto outcome = client->decrypt(published(u"02"), kDecryptPkcs1, input, pins);
  ASSERT_TRUE(outcome);
  EXPECT_EQ(*outcome, Bytes{kPlain});
}

TEST_F(Decrypt, AuthenticatesByTheConstraintOfTheOperation) {
  PublishedKey other = published(u"02");
  other.constraints = {{KeyOperation::kSign, Text{u"PINAlways"}}};
  GivenInput input{{key.encrypted(kPlain, RSA_PKCS1_PADDING)}};
  EXPECT_EQ(failureOf(client->decrypt(other, kDecryptPkcs1, input, pins)).kind, FailureKind::kNotSupported);
  EXPECT_EQ(pins.timesAsked(), 0U);
}

// ---- Raw and OAEP, where the module hands out whole blocks ----

TEST_F(Decrypt, GivesTheWholeBlock) {
  decryptRawInTheModule();
  Value block = patternValue(key.blockSize(), 3);
  block.front() = 0x00;
  EXPECT_EQ(plainText(kSecKeyAlgorithmRSAEncryptionRaw, key.encrypted(block, RSA_NO_PADDING)), block);
  const Value zeros(key.blockSize(), 0);
  EXPECT_EQ(plainText(kSecKeyAlgorithmRSAEncryptionRaw, zeros), zeros);
}

TEST_F(Decrypt, DecodesOaepThatTheTokenAcceptsRawAlone) {
  decryptRawInTheModule();
  const std::pair<SecKeyAlgorithm, const char*> kRows[] = {
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA1, "SHA1"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA224, "SHA224"},
      {kSecKeyAlgorithmRSAEncryptionOAEPSHA384, "SHA384"},
  };
  for (const auto& [algorithm, hash] : kRows) {
    SCOPED_TRACE(hash);
    EXPECT_EQ(plainText(algorithm, key.encrypted(kPlain, RSA_PKCS1_OAEP_PADDING, hash)), kPlain);
    EXPECT_EQ(plainText(algorithm, key.encrypted({}, RSA_PKCS1_OAEP_PADDING, hash)), Value{});
  }
}

TEST_F(Decrypt, LeavesOaepThatTheTokenAcceptsToTheToken) {
  // As it comes: the card layer takes PKCS #1 v1.5 padding away, whatever the algorithm.
  EXPECT_EQ(plainText(kSecKeyAlgorithmRSAEncryptionOAEPSHA256, key.encrypted(kPlain, RSA_PKCS1_PADDING)),
            kPlain);
}

TEST_F(Decrypt, RefusesAWholeBlockForOaepThatTheTokenAccepts) {
  decryptRawInTheModule();
  const Failure failure = decryptFailure(kSecKeyAlgorithmRSAEncryptionOAEPSHA256,
                                         key.encrypted(kPlain, RSA_PKCS1_OAEP_PADDING, "SHA256"));
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
}

TEST_F(Decrypt, RefusesABlockThatIsNoOaep) {
  decryptRawInTheModule();
  const Failure failure =
      decryptFailure(kSecKeyAlgorithmRSAEncryptionOAEPSHA1, key.encrypted(kPlain, RSA_PKCS1_PADDING));
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.what, HasSubstr("kSecKeyAlgorithmRSAEncryptionOAEPSHA1"));
}

TEST_F(Decrypt, TellsThatACardThatRemovesThePaddingDoesNoOaep) {
  const Failure failure =
      decryptFailure(kSecKeyAlgorithmRSAEncryptionOAEPSHA1, key.encrypted(kPlain, RSA_PKCS1_PADDING));
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.why, HasSubstr("not a whole block"));
}

// ---- Input that cannot be ----

TEST_F(Decrypt, RefusesCryptogramsOfAnotherSizeBeforeThePin) {
  for (const SecKeyAlgorithm algorithm :
       {kSecKeyAlgorithmRSAEncryptionRaw, kDecryptPkcs1, kSecKeyAlgorithmRSAEncryptionOAEPSHA256,
        kSecKeyAlgorithmRSAEncryptionOAEPSHA1}) {
    for (const std::size_t size : {0U, 1U, 127U, 129U, 65536U, 65537U}) {
      SCOPED_TRACE(std::string{nameOf(algorithm)} + " " + std::to_string(size));
      EXPECT_EQ(decryptFailure(algorithm, Value(size, 1)).kind, FailureKind::kBadInput);
    }
  }
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(Decrypt, TellsWhichSizeIsWanted) {
  EXPECT_EQ(decryptFailure(kDecryptPkcs1, Value(7)).why, "they have 7 bytes, a block for this key has 128");
  EXPECT_EQ(decryptFailure(kDecryptPkcs1, Value(65536)).why,
            "they have 65536 bytes, a block for this key has 128");
  EXPECT_EQ(decryptFailure(kDecryptPkcs1, Value(65537)).why, "there are more than 65536 bytes of them");
}

// ---- Decryptions that fail in the card ----

TEST_F(Decrypt, TellsThatTheCardGaveNone) {
  Value block = patternValue(key.blockSize(), 3);
  block.front() = 0x00;  // and then 0x0A, which begins no block of PKCS #1 v1.5
  const Value cipher = key.encrypted(block, RSA_NO_PADDING);
  const Failure failure = decryptFailure(kDecryptPkcs1, cipher);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.why, StartsWith("C_Decrypt answered CKR_ENCRYPTED_DATA_INVALID (0x40)"));
}

TEST_F(Decrypt, TellsTheCodeOfEachCallThatFails) {
  (void)plainText(kDecryptPkcs1, key.encrypted(kPlain, RSA_PKCS1_PADDING));
  for (const char* function : {"C_DecryptInit", "C_Decrypt"}) {
    script.failCallOf(function, 0, CKR_DEVICE_ERROR);
    const Failure failure = decryptFailure(kDecryptPkcs1, key.encrypted(kPlain, RSA_PKCS1_PADDING));
    EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
    EXPECT_THAT(failure.why, StartsWith(std::string{function} + " answered CKR_DEVICE_ERROR (0x30)"));
  }
}

TEST_F(Decrypt, TellsThatTheCardWasNotAskedBecauseOfTheReadersName) {
  // The card framework compares no byte above 0x7F of a name, except when it selects the card.
  setField(script.slot().info.slotDescription, "L\xE4ser");
  insertAnew(Text{u"L\u00E4ser"});
  const Failure failure = decryptFailure(kDecryptPkcs1, key.encrypted(kPlain, RSA_PKCS1_PADDING));
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_EQ(failure.why, "the card was not asked");
}

// ---- Plain texts that cannot be ----

TEST_F(Decrypt, RefusesARoomThatTheModuleDidNotWrite) {
  script.hook<&CK_FUNCTION_LIST::C_Decrypt>(
      [](auto real, auto session, auto* data, auto dataLen, auto*, auto* outLen) {
        Value elsewhere(*outLen);
        CK_ULONG length = *outLen;
        (void)real(session, data, dataLen, elsewhere.data(), &length);  // ends the operation
        return CKR_OK;
      });
  for (const SecKeyAlgorithm algorithm :
       {kDecryptPkcs1, kSecKeyAlgorithmRSAEncryptionOAEPSHA256, kSecKeyAlgorithmRSAEncryptionRaw}) {
    SCOPED_TRACE(nameOf(algorithm));
    const Failure failure = decryptFailure(algorithm, key.encrypted(kPlain, RSA_PKCS1_PADDING));
    EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
    EXPECT_EQ(failure.what, "the card gave no plain text");
    EXPECT_THAT(failure.why, HasSubstr("C_Decrypt answered CKR_OK"));
  }
}

TEST_F(Decrypt, RefusesAPlainTextThatNoBlockOfTheKeyHolds) {
  // The module writes no more than the length of the modulus, but says that there is more. The card layer
  // itself takes 2000 bytes.
  script.deviations.claimedResults["C_Decrypt"] = {2001, {}};
  EXPECT_EQ(decryptFailure(kDecryptPkcs1, key.encrypted(kPlain, RSA_PKCS1_PADDING)).kind,
            FailureKind::kCardRefuses);
  for (const CK_ULONG length : {key.blockSize() - 10, key.blockSize(), CK_ULONG{300}, CK_ULONG{2000}}) {
    SCOPED_TRACE(length);
    script.deviations.claimedResults["C_Decrypt"] = {length, {}};
    const Failure failure = decryptFailure(kDecryptPkcs1, key.encrypted(kPlain, RSA_PKCS1_PADDING));
    EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
    EXPECT_EQ(failure.why, "C_Decrypt answered CKR_OK with " + std::to_string(length) +
                               " bytes, a plain text in a block for this key has 117 at most");
  }
}

// ---- Key exchange ----

class Exchange : public KeyClientTest {};

TEST_F(Exchange, GivesNoSecretAndNeedsNoPin) {
  GivenInput input{{Value(65, 0x04)}};
  const auto outcome =
      client->exchange(published(u"04"), kSecKeyAlgorithmECDHKeyExchangeStandard, input, pins);
  ASSERT_TRUE(outcome);
  EXPECT_TRUE(outcome->secret.isNull());
  EXPECT_EQ(outcome->performed, kSecKeyAlgorithmECDHKeyExchangeStandard);
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_THAT(secretCalls(), IsEmpty());
}

TEST_F(Exchange, RefusesPointsOfAnImpossibleSize) {
  for (const std::size_t size : {0U, 65537U})
    EXPECT_EQ(exchangeFailure(kSecKeyAlgorithmECDHKeyExchangeStandard, Value(size)).kind,
              FailureKind::kBadInput);
}

// ---- Requests of every kind ----

TEST_F(KeyClientTest, PassesOnWhatIsWrongWithTheInput) {
  GivenInput input{{Value(128, 1)}};
  input.failure = Failure{FailureKind::kFileFailure, "the file cannot be read", "it is gone", "look for it"};
  const auto expectPassedOn = [](const Failure& failure) {
    EXPECT_EQ(failure.kind, FailureKind::kFileFailure);
    EXPECT_EQ(failure.why, "it is gone");
    EXPECT_EQ(failure.advice.words(), "look for it");
  };
  for (const SecKeyAlgorithm algorithm : {kSignByPss, kSecKeyAlgorithmRSASignatureRaw})
    expectPassedOn(failureOf(client->sign(published(u"01"), algorithm, input, pins)));
  expectPassedOn(failureOf(client->decrypt(published(u"02"), kDecryptPkcs1, input, pins)));
  expectPassedOn(
      failureOf(client->exchange(published(u"04"), kSecKeyAlgorithmECDHKeyExchangeStandard, input, pins)));
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
