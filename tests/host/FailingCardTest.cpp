#include <openssl/rsa.h>

#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

const Value kMessage = bytesOf("a message");
const Value kPlain = bytesOf("a secret");

/// A client of a card of which any call fails.
class FailingCard : public KeyClientTest {
 protected:
  /// A card that works, and a client with a PIN at hand.
  void begin() {
    script.setInitialised(true);
    startAnew();
    given = std::make_unique<GivenPins>(std::deque<std::u16string>{u"123456", u"123456", u"123456"});
  }

  [[nodiscard]] Result<Signature> sign() {
    GivenInput input{{kMessage}};
    return client->sign(published(u"01"), kSignByPss, input, *given);
  }

  [[nodiscard]] Result<Bytes> decrypt() {
    GivenInput input{{key.encrypted(kPlain, RSA_PKCS1_PADDING)}};
    return client->decrypt(published(u"02"), kDecryptPkcs1, input, *given);
  }

  void expectRefusal(const Failure& failure) const {
    expectPresentable(failure);
    EXPECT_THAT(failure.kind, AnyOf(FailureKind::kCardRefuses, alsoAllowed))
        << failure.what << ": " << failure.why;
    EXPECT_LE(given->timesAsked(), 1U) << "the PIN is asked for again";
  }

  /// A failure, a good signature, or one whose fault has an explanation.
  void expectSignature(const Result<Signature>& outcome, bool mustBeGood) const {
    if (!outcome) {
      EXPECT_FALSE(mustBeGood);
      return expectRefusal(outcome.failure());
    }
    const auto good = verified(kSignByPss, *outcome);
    if (good) return;
    EXPECT_FALSE(mustBeGood) << good.failure().why;
    EXPECT_TRUE(outcome->fault) << good.failure().why;
  }

  /// A failure or the plain text; never another one.
  void expectPlain(const Result<Bytes>& outcome, bool mustBeGood) const {
    if (!outcome) {
      EXPECT_FALSE(mustBeGood);
      return expectRefusal(outcome.failure());
    }
    EXPECT_EQ(*outcome, Bytes{kPlain});
  }

  std::unique_ptr<GivenPins> given;
  FailureKind alsoAllowed = FailureKind::kCardRefuses;
};

TEST_F(FailingCard, GivesAReasonForEveryBadSignatureAndNeverAWrongPlainText) {
  const std::pair<CK_RV, bool> rows[] = {{CKR_DEVICE_ERROR, false}, {CKR_DEVICE_REMOVED, true}};
  for (const auto& [code, afterLogin] : rows) {
    for (const bool signs : {true, false}) {
      SCOPED_TRACE(std::string{signs ? "signing" : "decrypting"} + (afterLogin ? " after the login" : ""));
      alsoAllowed = afterLogin ? FailureKind::kCardGone : FailureKind::kCardRefuses;
      forEachFailingCall(script, code, [&, loggedIn = afterLogin](FailPoint& point) {
        begin();
        if (loggedIn) {
          EXPECT_TRUE(client->logIn(*given));
        }
        point.arm();
        if (signs) {
          const auto outcome = sign();
          expectSignature(outcome, !point.fired());
        } else {
          const auto outcome = decrypt();
          expectPlain(outcome, !point.fired());
        }
      });
    }
  }
}

TEST_F(FailingCard, NeverAsksForThePinTwiceBecauseOfIt) {
  forEachFailingCall(script, CKR_DEVICE_ERROR, [&](FailPoint& point) {
    begin();
    point.arm();
    if (const auto outcome = client->logIn(*given); !outcome) {
      EXPECT_TRUE(point.fired());
      expectRefusal(outcome.failure());
    }
    EXPECT_LE(given->timesAsked(), 1U);
  });
}

TEST_F(FailingCard, GivesAReasonForEveryBadSignatureWhenMemoryRunsOut) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    begin();
    point.arm();
    const auto outcome = sign();
    expectSignature(outcome, !point.fired());
  });
}

// ---- Modules that answer without having done anything ----

TEST_F(FailingCard, GivesAReasonForSignaturesThatWereNeverMade) {
  for (const char* function : {"C_SignInit", "C_Sign", "C_FindObjects", "C_GetAttributeValue"}) {
    SCOPED_TRACE(function);
    script.reset();
    begin();
    EXPECT_TRUE(client->logIn(*given));
    script.deviations.silent = {function};
    const auto outcome = sign();
    if (!outcome) {
      expectRefusal(outcome.failure());
      continue;
    }
    EXPECT_FALSE(verified(kSignByPss, *outcome));
    script.deviations.silent.clear();
  }
}

}  // namespace
}  // namespace mirel::test
