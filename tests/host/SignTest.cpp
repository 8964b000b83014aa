#include <openssl/rsa.h>

#include <functional>

#include "FailureDiary.h"
#include "HostToken.h"
#include "host/Algorithms.h"
#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;

const Value kMessage = bytesOf("a message");

class Sign : public KeyClientTest {
 protected:
  /// Signs the message and its digest in that way, which the token is asked for in that form.
  void expectGood(const std::string& way, const std::string& hash, int padding, SecKeyAlgorithm form) {
    const Value digest = softwareDigest(hash.c_str(), kMessage);
    for (const std::string input : {"Message", "Digest"}) {
      SCOPED_TRACE(input + hash);
      const SecKeyAlgorithm algorithm = algorithmNamed("RSASignature" + input + way + hash);
      const Signature made = signature(algorithm, input == "Message" ? kMessage : digest);
      EXPECT_TRUE(
          key.verifies(valueOf(made.value), digest, hash.c_str(), padding, static_cast<int>(digest.size())));
      EXPECT_EQ(made.performed, form);
      EXPECT_EQ(made.data, Bytes{digest});
      EXPECT_FALSE(made.fault);
      EXPECT_TRUE(verified(algorithm, made));
    }
  }

  /// A block that is a number below any modulus of the size.
  [[nodiscard]] Value block() const {
    Value block = patternValue(key.blockSize(), 1);
    block.front() = 0x00;
    return block;
  }
};

// ---- What comes out ----

TEST_F(Sign, MakesSignaturesByPssThatVerify) {
  for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384"})
    expectGood("PSS", hash, RSA_PKCS1_PSS_PADDING, kSecKeyAlgorithmRSASignatureRaw);
}

TEST_F(Sign, LeavesThePaddingOfPkcs1ToTheModule) {
  padInTheModule();
  for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"})
    expectGood("PKCS1v15", hash, RSA_PKCS1_PADDING, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw);
}

TEST_F(Sign, GivesTheSignatureOfAModuleThatDoesNotPad) {
  const Signature made = signature(kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, kMessage);
  EXPECT_EQ(made.value.size(), key.blockSize());
  EXPECT_FALSE(made.fault);
  EXPECT_THAT(failureOf(verified(kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256, made)).why,
              HasSubstr("the module does not pad"));
}

TEST_F(Sign, DoesNotVerifyWhereTheKeyHasNoCertificate) {
  PublishedKey lonely = published(u"01");
  lonely.certificateID = Text{u"none"};
  GivenInput input{{kMessage}};
  const auto made = client->sign(lonely, kSignByPss, input, pins);
  ASSERT_TRUE(made);
  ASSERT_TRUE(made->whyNotVerified);
  EXPECT_EQ(made->whyNotVerified->why, "the key has no certificate");
  EXPECT_EQ(made->value.size(), key.blockSize());
}

TEST_F(Sign, GivesTheModuleRawBlocksAsTheyAre) {
  const Signature made = signature(kSecKeyAlgorithmRSASignatureRaw, block());
  EXPECT_EQ(valueOf(made.value), key.rawPrivate(block()));
  EXPECT_EQ(made.performed, kSecKeyAlgorithmRSASignatureRaw);
  EXPECT_EQ(made.data, Bytes{block()});
  EXPECT_TRUE(verified(kSecKeyAlgorithmRSASignatureRaw, made));
  ASSERT_EQ(script.countOf("C_SignInit"), 1U);
  EXPECT_THAT(script.callTexts("C_SignInit").front(), HasSubstr("CKM 3 null 0"));
}

TEST_F(Sign, GivesTheModuleRawDigestInfosAsTheyAre) {
  padInTheModule();
  const Value data = patternValue(19, 1);
  const Signature made = signature(kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, data);
  EXPECT_TRUE(key.verifies(valueOf(made.value), data, nullptr, RSA_PKCS1_PADDING));
  EXPECT_EQ(made.performed, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw);
  EXPECT_EQ(made.data, Bytes{data});
}

TEST_F(Sign, HashesAMessageInPieces) {
  // One piece is longer than what is read at once.
  const Value pieces[] = {patternValue(1, 1), patternValue(70000, 2), patternValue(3, 3)};
  Value whole;
  for (const Value& piece : pieces) whole.insert(whole.end(), piece.begin(), piece.end());
  GivenInput input{{pieces[0], pieces[1], pieces[2]}};
  const auto outcome = client->sign(published(u"01"), kSignByPss, input, pins);
  ASSERT_TRUE(outcome);
  const Value digest = softwareDigest("SHA256", whole);
  EXPECT_EQ(outcome->data, Bytes{digest});
  EXPECT_TRUE(key.verifies(valueOf(outcome->value), digest, "SHA256", RSA_PKCS1_PSS_PADDING, 32));
  EXPECT_GT(input.timesRead, 4U);
}

TEST_F(Sign, SignsAnEmptyMessage) {
  const Signature made = signature(kSignByPss, {});
  EXPECT_TRUE(
      key.verifies(valueOf(made.value), softwareDigest("SHA256", {}), "SHA256", RSA_PKCS1_PSS_PADDING, 32));
}

// ---- What the card is asked ----

TEST_F(Sign, AsksForThePinOnceAndThenSigns) {
  (void)signature(kSignByPss, kMessage);
  EXPECT_THAT(secretCalls(), ElementsAre("C_Login", "C_SignInit", "C_Sign"));
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre(HasSubstr(", 1, 313233343536)")));
  (void)signature(kSignByPss, kMessage);
  EXPECT_THAT(secretCalls(), ElementsAre("C_Login", "C_SignInit", "C_Sign", "C_SignInit", "C_Sign"));
  EXPECT_THAT(pins.cards, ElementsAre("\"TESTCARD\""));
  EXPECT_THAT(pins.refusals, IsEmpty());
}

TEST_F(Sign, AuthenticatesByTheConstraintOfTheKeyForTheOperation) {
  strings->texts["Not suppport this constraint"] = Text{u"Not that way"};
  const std::map<KeyOperation, Text> rows[] = {{{KeyOperation::kSign, Text{u"Fingerprint"}}},
                                               {{KeyOperation::kDecrypt, Text{u"PINAlways"}}}};
  for (const auto& constraints : rows) {
    PublishedKey other = published(u"01");
    other.constraints = constraints;
    GivenInput input{{kMessage}};
    const Failure failure = failureOf(client->sign(other, kSignByPss, input, pins));
    EXPECT_EQ(failure.kind, FailureKind::kNotSupported);
    EXPECT_EQ(failure.why, "the token says \"Not that way\"");
  }
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_THAT(secretCalls(), IsEmpty());
}

TEST_F(Sign, AsksWithoutThePinFirst) {
  // Somebody who has logged in elsewhere spares nobody the PIN: each client has a login of its own.
  script.card().loggedIn = true;
  (void)signature(kSignByPss, kMessage);
  EXPECT_EQ(pins.timesAsked(), 1U);
}

TEST_F(Sign, NeedsALoginForEachClient) {
  (void)signature(kSignByPss, kMessage);
  const auto other = newClient();
  GivenPins otherPins{{u"123456"}};
  for (int round = 0; round < 2; ++round) {
    GivenInput input{{kMessage}};
    const auto outcome = other->sign(published(u"01"), kSignByPss, input, otherPins);
    EXPECT_TRUE(outcome);
    EXPECT_EQ(otherPins.timesAsked(), 1U);
  }
  (void)signature(kSignByPss, kMessage);
  EXPECT_EQ(pins.timesAsked(), 1U);
}

TEST_F(Sign, DoesNotNeedTheFirstClient) {
  const auto other = newClient();
  client.reset();
  GivenInput input{{kMessage}};
  EXPECT_TRUE(other->sign(published(u"01"), kSignByPss, input, pins));
}

// ---- Input that cannot be ----

TEST_F(Sign, RefusesDataOfAnotherSizeBeforeThePin) {
  const std::pair<SecKeyAlgorithm, std::size_t> kRows[] = {
      {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, 31},
      {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, 33},
      {kSecKeyAlgorithmRSASignatureDigestPSSSHA256, 0},
      {kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1, 32},
      {kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw, 0},
      {kSecKeyAlgorithmRSASignatureRaw, 127},
      {kSecKeyAlgorithmRSASignatureRaw, 129},
      {kSecKeyAlgorithmRSASignatureRaw, 0},
      {kSecKeyAlgorithmRSASignatureRaw, 65537},
      {kSecKeyAlgorithmRSASignatureRaw, 200000},
  };
  for (const auto& [algorithm, size] : kRows) {
    SCOPED_TRACE(std::string{nameOf(algorithm)} + " " + std::to_string(size));
    EXPECT_EQ(signFailure(algorithm, Value(size, 1)).kind, FailureKind::kBadInput);
  }
  EXPECT_EQ(signFailure(kSecKeyAlgorithmECDSASignatureDigestX962SHA384, Value(32), u"03").kind,
            FailureKind::kBadInput);
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(Sign, TellsWhichSizeIsWanted) {
  EXPECT_EQ(signFailure(kSecKeyAlgorithmRSASignatureDigestPSSSHA256, Value(31)).why,
            "they have 31 bytes, a digest of SHA256 has 32");
  EXPECT_EQ(signFailure(kSecKeyAlgorithmRSASignatureRaw, Value(7)).why,
            "they have 7 bytes, a block for this key has 128");
}

TEST_F(Sign, RefusesAnEncodingThatTheKeyIsTooShortFor) {
  // 1024 bits have no room for a digest and a salt of 64 bytes each.
  const Failure failure = signFailure(kSecKeyAlgorithmRSASignatureMessagePSSSHA512, kMessage);
  EXPECT_EQ(failure.kind, FailureKind::kNotSupported);
  EXPECT_EQ(failure.why, "the key is too short for this hash: it has 1024 bits, and 1034 are needed");
  EXPECT_EQ(pins.timesAsked(), 0U);
}

// ---- Signatures that fail in the card ----

TEST_F(Sign, TellsWhatWentWrongInTheCard) {
  script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
  const Signature made = signature(kSignByPss, kMessage);
  ASSERT_TRUE(made.fault);
  EXPECT_EQ(made.fault->reason, "C_Sign answered CKR_DEVICE_ERROR (0x30)");
  EXPECT_THAT(failureOf(verified(kSignByPss, made)).why, HasSubstr(made.fault->reason));
}

TEST_F(Sign, TellsThatTheCardIsGone) {
  script.hook<&CK_FUNCTION_LIST::C_SignInit>([&](auto real, auto... args) {
    script.pullCard(kSlot, CKR_DEVICE_REMOVED);
    return real(args...);
  });
  const Signature made = signature(kSignByPss, kMessage);
  ASSERT_TRUE(made.fault);
  EXPECT_EQ(made.fault->reason, "C_SignInit answered CKR_DEVICE_REMOVED (0x32)");
}

TEST_F(Sign, TellsTheLastFaultAlone) {
  script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
  (void)signature(kSignByPss, kMessage);
  EXPECT_FALSE(signature(kSignByPss, kMessage).fault);
  script.failCallOf("C_Sign", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  EXPECT_THAT(signature(kSignByPss, kMessage).fault.value().reason, HasSubstr("CKR_DEVICE_REMOVED (0x32)"));
}

// ---- Tokens that keep refusing ----

/// Does something when the token begins to sign.
class WatchingLog final : public Log {
 public:
  explicit WatchingLog(std::function<void()> whenSigning) : whenSigning_{std::move(whenSigning)} {}
  void systemDefault(std::string_view line) noexcept override {
    if (line == "CTK [MirelSCTokenSession-204] +++START+++") whenSigning_();
  }
  void systemError(std::string_view) noexcept override {}
  void process(std::string_view) noexcept override {}

 private:
  std::function<void()> whenSigning_;
};

/// A client whose session is in the test's hands.
class RefusingToken : public KeyClientTest {
 protected:
  RefusingToken() {
    PlatformServices own = services();
    own.log = std::make_shared<WatchingLog>([this] {
      if (whenSigning) whenSigning();
    });
    session = std::make_shared<HostTokenSession>(own, card.reader.distinctName, card.token);
    EXPECT_TRUE(session->initWithToken());
    client = std::make_unique<KeyClient>(card, session, std::make_shared<FailureDiary>(nullptr));
  }
  void TearDown() override {
    whenSigning = nullptr;
    KeyClientTest::TearDown();
  }

  std::shared_ptr<HostTokenSession> session;
  std::function<void()> whenSigning;
};

TEST_F(RefusingToken, IsNotAskedAThirdTime) {
  int timesAsked = 0;
  whenSigning = [&] {
    ++timesAsked;
    session->core()->setAuthState(MirelSCTokenSession::kNotAuthenticated);
  };
  const Failure failure = signFailure(kSignByPss, kMessage);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.why, HasSubstr("error -9"));
  EXPECT_EQ(timesAsked, 2);
  EXPECT_EQ(pins.timesAsked(), 1U);
}

TEST_F(RefusingToken, AnswersWithItsError) {
  (void)signature(kSignByPss, kMessage);
  // The card was reset: its user's mark is gone.
  session->smartCard().dropContext();
  const Failure failure = signFailure(kSignByPss, kMessage);
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_EQ(failure.what, "the token does not sign");
  EXPECT_EQ(failure.why, "it answered with error -7");
  EXPECT_EQ(pins.timesAsked(), 1U);
}

}  // namespace
}  // namespace mirel::test
