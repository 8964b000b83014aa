#include <openssl/rsa.h>

#include "CardWatch.h"
#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

using enum SecKeyAlgorithm;

const Value kMessage = bytesOf("a message");

/// A client whose card leaves its reader, or another one takes its place.
class SwappedCard : public KeyClientTest {
 protected:
  /// Puts another card with the same keys and the same PIN in, at once.
  void swap() {
    Card other = script.card();
    setField(other.info.label, "OTHER");
    setField(other.info.serialNumber, "0000000000000002");
    put(std::move(other));
  }

  /// Takes the card out and puts it back.
  void takeOutAndPutBack() { put(script.card()); }

  [[nodiscard]] Failure loginFailure() { return failureOf(client->logIn(pins)); }

  [[nodiscard]] Failure signFailure() { return KeyClientTest::signFailure(kSignByPss, kMessage); }

  void expectAnotherCard(const Failure& failure) const {
    expectPresentable(failure);
    EXPECT_EQ(failure.kind, FailureKind::kAnotherCard);
    EXPECT_EQ(failure.what, "another card is in the reader \"Reader A 00\"");
    EXPECT_THAT(failure.why, HasSubstr("\"TESTCARD\" with serial number \"1234567890ABCDEF\""));
    EXPECT_THAT(failure.why, HasSubstr("\"OTHER\" with serial number \"0000000000000002\""));
  }

  void expectGone(const Failure& failure) const {
    expectPresentable(failure);
    EXPECT_EQ(failure.kind, FailureKind::kCardGone);
    EXPECT_EQ(failure.what, "the card is not in the reader \"Reader A 00\" any more");
  }

  void expectUntouched() const {
    EXPECT_THAT(secretCalls(), IsEmpty());
    EXPECT_EQ(script.card().triesLeft, 3U);
    EXPECT_FALSE(script.card().loggedIn);
  }

 private:
  void put(Card next) {
    next.loggedIn = false;
    script.pullCard();
    script.insertCard(std::move(next));
  }
};

// ---- A module that was ended ----

TEST_F(SwappedCard, IsNotSaidToBeGoneWhereTheModuleWasEnded) {
  for (const char* function : {"C_GetTokenInfo", "C_GetSlotList", "C_GetSessionInfo"}) {
    SCOPED_TRACE(function);
    script.reset();
    startAnew();
    script.failCallOf(function, 0, CKR_CRYPTOKI_NOT_INITIALIZED, Times::kFromThenOn);
    const Failure failure = signFailure();
    expectPresentable(failure);
    EXPECT_THAT(failure.what, Not(HasSubstr("any more")));
    EXPECT_THAT(failure.why, HasSubstr("the module was ended while it was in use"));
  }
}

// ---- A module that tells less than before ----

TEST_F(SwappedCard, IsNotSaidToBeAnotherWhereTheModuleOnlyTellsLess) {
  const struct {
    const char* label;
    const char* serialNumber;
    const char* given;
  } rows[] = {{"", "", "gives \"\" with serial number \"\""},
              {"TESTCARD", "", "gives \"TESTCARD\" with serial number \"\""}};
  for (const auto& [label, serialNumber, given] : rows) {
    SCOPED_TRACE(given);
    const Card own = script.card();
    setField(script.card().info.label, label);
    setField(script.card().info.serialNumber, serialNumber);
    const Failure failure = loginFailure();
    expectPresentable(failure);
    EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
    EXPECT_EQ(failure.what, "whether the same card is in the reader \"Reader A 00\" is not known");
    EXPECT_THAT(failure.why, HasSubstr(given));
    EXPECT_THAT(host.examine(card).findings,
                Contains(::testing::Field(&Finding::id, FindingID::kTokenUnreadable)));
    expectUntouched();
    script.card() = own;
  }
  EXPECT_TRUE(client->logIn(pins));  // it goes on
}

// ---- Another card ----

TEST_F(SwappedCard, GetsNoPinThatWasAskedForBefore) {
  pins.whenAsked = [&] { swap(); };
  expectAnotherCard(loginFailure());
  EXPECT_EQ(pins.timesAsked(), 1U);
  expectUntouched();
}

TEST_F(SwappedCard, GetsNoPinForASignature) {
  pins.whenAsked = [&] { swap(); };
  expectAnotherCard(signFailure());
  expectUntouched();
}

TEST_F(SwappedCard, IsNoReasonToAskForThePin) {
  swap();
  expectAnotherCard(loginFailure());
  expectAnotherCard(exchangeFailure(kSecKeyAlgorithmECDHKeyExchangeStandard, Value(65, 0x04)));
  EXPECT_EQ(pins.timesAsked(), 0U);
  expectUntouched();
}

TEST_F(SwappedCard, IsNoReasonToAskAgainAfterAWrongPin) {
  script.hook<&CK_FUNCTION_LIST::C_Login>([&](auto real, auto... args) {
    const CK_RV rv = real(args...);
    swap();
    return rv;
  });
  GivenPins wrong{{u"000000", u"123456"}};
  expectAnotherCard(failureOf(client->logIn(wrong)));
  EXPECT_EQ(wrong.timesAsked(), 1U);
}

TEST_F(SwappedCard, IsNoReasonToAskAgainAfterAPinThatCannotBeSent) {
  GivenPins given{{u"", u"123456"}};
  given.whenAsked = [&] {
    if (given.timesAsked() == 1) swap();
  };
  expectAnotherCard(failureOf(client->logIn(given)));
  EXPECT_EQ(given.timesAsked(), 1U);
  expectUntouched();
}

TEST_F(SwappedCard, SignsAndDecryptsNothingAfterTheLogin) {
  EXPECT_TRUE(client->logIn(pins));
  script.forgetCalls();
  swap();
  expectAnotherCard(signFailure());
  expectAnotherCard(decryptFailure(kDecryptPkcs1, key.encrypted(kMessage, RSA_PKCS1_PADDING)));
  expectUntouched();
}

TEST_F(SwappedCard, SignsNothingBetweenTheLoginAndTheRequestThatNeededIt) {
  bool loggedIn = false;
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>([&](auto real, auto present, auto* list, auto* count) {
    if (script.card().loggedIn && !loggedIn) {
      loggedIn = true;
      swap();
    }
    return real(present, list, count);
  });
  expectAnotherCard(signFailure());
  EXPECT_TRUE(loggedIn);
  EXPECT_THAT(secretCalls(), ElementsAre("C_Login"));
}

TEST_F(SwappedCard, IsKnownByItsSerialNumberOrItsLabelAlone) {
  for (const bool bySerialNumber : {true, false}) {
    SCOPED_TRACE(bySerialNumber);
    script.reset();
    startAnew();
    Card other = script.card();
    if (bySerialNumber) setField(other.info.serialNumber, "1234567890ABCDE0");
    if (!bySerialNumber) setField(other.info.label, "TESTCARE");
    script.pullCard();
    script.insertCard(other);
    EXPECT_EQ(loginFailure().kind, FailureKind::kAnotherCard);
  }
}

TEST_F(SwappedCard, IsSeenThoughTheModuleKeepsTheSession) {
  // A module that does not notice: only label and serial number tell.
  setField(script.card().info.label, "OTHER");
  setField(script.card().info.serialNumber, "0000000000000002");
  expectAnotherCard(loginFailure());
}

TEST_F(SwappedCard, EndsTheTokenForAllItsClients) {
  const auto second = newClient();
  Card first = script.card();
  swap();
  expectAnotherCard(loginFailure());
  script.pullCard();
  script.insertCard(first);
  expectAnotherCard(loginFailure());
  expectAnotherCard(signFailure());
  EXPECT_EQ(client->acceptedForm(published(u"01"), kSecKeyAlgorithmRSASignatureRaw), std::nullopt);
  expectAnotherCard(failureOf(second->logIn(pins)));
  EXPECT_EQ(failureOf(host.newClient(card)).kind, FailureKind::kAnotherCard);
  expectUntouched();
}

TEST_F(SwappedCard, IsNotTakenForTheOneThatWasChosenWhileItIsInserted) {
  int calls = 0;
  script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([&](auto real, auto slot, auto* info) {
    if (++calls == 2) swap();
    return real(slot, info);
  });
  expectAnotherCard(failureOf(host.insert(Text{})));
}

// ---- No card ----

TEST_F(SwappedCard, IsGoneWhileThePinIsEntered) {
  pins.whenAsked = [&] { script.pullCard(); };
  const Failure failure = loginFailure();
  expectGone(failure);
  EXPECT_THAT(failure.why, HasSubstr("CKR_SLOT_ID_INVALID (0x3)"));
  EXPECT_EQ(pins.timesAsked(), 1U);
  EXPECT_THAT(pins.refusals, IsEmpty());
  EXPECT_THAT(secretCalls(), IsEmpty());
}

TEST_F(SwappedCard, IsGoneBeforeARequest) {
  EXPECT_TRUE(client->logIn(pins));
  script.forgetCalls();
  script.pullCard();
  // After a listing that failed, the card is not even asked any more.
  for (int attempt = 1; attempt <= 2; ++attempt) {
    SCOPED_TRACE(attempt);
    expectGone(signFailure());
    expectGone(decryptFailure(kDecryptPkcs1, key.encrypted(kMessage, RSA_PKCS1_PADDING)));
  }
  EXPECT_EQ(pins.timesAsked(), 1U);
  EXPECT_THAT(secretCalls(), IsEmpty());
}

TEST_F(SwappedCard, StaysGoneWhenItComesBackAfterThat) {
  Card first = script.card();
  script.pullCard();
  expectGone(loginFailure());
  script.insertCard(first);
  expectGone(loginFailure());
  EXPECT_EQ(pins.timesAsked(), 0U);
}

TEST_F(SwappedCard, IsGoneForGoodWhenItGoesWithinASignature) {
  EXPECT_TRUE(client->logIn(pins));
  script.failCallOf("C_Sign", 0, CKR_DEVICE_REMOVED);
  const Signature made = signature(kSignByPss, kMessage);
  ASSERT_TRUE(made.fault && made.fault->failure);
  EXPECT_EQ(made.fault->failure->kind, FailureKind::kCardGone);
  EXPECT_EQ(signFailure().kind, FailureKind::kCardGone);
}

// ---- The same card again ----

TEST_F(SwappedCard, IsANewOneWhenItWasTakenOutAndPutBack) {
  pins.whenAsked = [&] { takeOutAndPutBack(); };
  const Failure failure = loginFailure();
  expectPresentable(failure);
  EXPECT_EQ(failure.kind, FailureKind::kCardGone);
  EXPECT_EQ(failure.what, "the card in the reader \"Reader A 00\" was taken out and put back");
  EXPECT_THAT(failure.why, HasSubstr("C_GetSessionInfo answered CKR_SESSION_HANDLE_INVALID (0xB3)"));
  expectUntouched();
}

TEST_F(SwappedCard, CanBeInsertedAnewWhenItWasTakenOutAndPutBack) {
  takeOutAndPutBack();
  EXPECT_EQ(loginFailure().kind, FailureKind::kCardGone);
  insertAnew();
  EXPECT_TRUE(client->logIn(pins));
}

TEST_F(SwappedCard, EndsForAClientThatLookedJustBeforeAnotherOneFoundOut) {
  script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([&](auto real, auto slot, auto* info) {
    card.watch->learnFrom({FailureKind::kCardGone, "the card is gone", "another client saw it", "run again"});
    return real(slot, info);
  });
  EXPECT_EQ(loginFailure().kind, FailureKind::kCardGone);
  EXPECT_EQ(signFailure().kind, FailureKind::kCardGone);
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_THAT(secretCalls(), IsEmpty());
}

// ---- What is no change ----

TEST_F(SwappedCard, IsNotACardThatCouldNotBeReadWhenTheReadersWereListed) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  insertAnew(Text{u"Reader A 00"});
  EXPECT_TRUE(client->logIn(pins));
  swap();
  expectAnotherCard(signFailure());
}

TEST_F(SwappedCard, IsNotACardThatIsReadAtTheSecondTime) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED);
  insertAnew(Text{u"Reader A 00"});
  EXPECT_FALSE(card.reader.unreadable);
  EXPECT_TRUE(client->logIn(pins));
}

TEST_F(SwappedCard, IsNotSeenInAnotherReaderWhileItsOwnCannotBeRead) {
  Card other = script.card();
  setField(other.info.serialNumber, "0000000000000002");
  script.addSlot("Reader A 00 and more", other);
  insertAnew(Text{u"Reader A 00"});
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([&](auto real, auto slot, auto* info) {
    return slot == card.reader.slotID ? CKR_DEVICE_ERROR : real(slot, info);
  });
  const Failure failure = loginFailure();
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.why, HasSubstr("C_GetSlotInfo answered CKR_DEVICE_ERROR (0x30)"));
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto real, auto... args) { return real(args...); });
  EXPECT_TRUE(client->logIn(pins));
}

TEST_F(SwappedCard, IsNotEveryTokenWithoutARandomNumberGenerator) {
  script.card().info.flags &= ~static_cast<CK_FLAGS>(CKF_RNG);
  insertAnew();
  EXPECT_TRUE(client->logIn(pins));
  EXPECT_FALSE(signature(kSignByPss, kMessage).fault);
  swap();
  expectAnotherCard(signFailure());
}

TEST_F(SwappedCard, IsNotEveryReaderWithANameBeyondAscii) {
  setField(script.slot().info.slotDescription, "L\xE4ser");
  insertAnew();
  EXPECT_TRUE(client->logIn(pins));
  takeOutAndPutBack();
  EXPECT_EQ(loginFailure().kind, FailureKind::kCardGone);
}

TEST_F(SwappedCard, IsNotSeenInAFailureThatPasses) {
  script.failCallOf("C_GetTokenInfo", 1, CKR_DEVICE_ERROR);
  const Failure failure = loginFailure();
  EXPECT_EQ(failure.kind, FailureKind::kCardRefuses);
  EXPECT_THAT(failure.what, HasSubstr("cannot be looked at"));
  EXPECT_THAT(secretCalls(), IsEmpty());
  EXPECT_TRUE(client->logIn(pins));
}

TEST_F(SwappedCard, IsLookedForWithoutAWordInTheLog) {
  EXPECT_TRUE(client->logIn(pins));
  const auto lines = log->allLines.size();
  swap();
  expectAnotherCard(loginFailure());
  EXPECT_EQ(log->allLines.size(), lines);
}

}  // namespace
}  // namespace mirel::test
