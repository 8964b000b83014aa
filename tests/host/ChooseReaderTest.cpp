#include "host/HostTest.h"
#include "host/KeyClient.h"

namespace mirel::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

/// Which reader a name leads to; the label of the inserted card tells.
class ChooseReader : public HostTest {
 protected:
  /// The module has exactly these readers, each with a card that is labelled with its number.
  void setReaders(const std::vector<std::string>& names) {
    script.slots().clear();
    for (std::size_t i = 0; i < names.size(); ++i) {
      script.addSlot(names[i], emptyCard("Card " + std::to_string(i), "1"));
    }
  }

  /// The label of the card that is inserted, by what the host says of the reader and by what the card
  /// framework found. Closes the card's session.
  [[nodiscard]] std::string labelFor(const Text& readerName) {
    const InsertedCard card = inserted(readerName);
    std::string label = card.reader.tokenLabel.toUtf8();
    EXPECT_EQ(card.instanceID.toUtf8().substr(0, label.size()), label) << "another card was inserted";
    for (auto& [id, slot] : script.slots()) script.closeSessionsOf(id);
    return label;
  }
};

// ---- Without a name ----

TEST_F(ChooseReader, TakesTheFirstWithAnInitialisedCard) {
  setReaders({"Reader A", "Reader B", "Reader C"});
  script.card(1).info.flags &= ~CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(labelFor(Text{}), "Card 1");
}

TEST_F(ChooseReader, PassesOverACardThatCannotBeRead) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED);
  EXPECT_EQ(labelFor(Text{}), "Card 1");
}

TEST_F(ChooseReader, PassesOverAReaderThatCannotBeRead) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_EQ(labelFor(Text{}), "Card 1");
}

// It would get a PIN that is not its own.
TEST_F(ChooseReader, GivesNoClientOfACardThatIsTakenForOneThatCannotBeReadJustNow) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  const Failure failure = failureOf(host.newClient(inserted()));
  EXPECT_EQ(failure.kind, FailureKind::kCardEnumerationFailed);
  EXPECT_THAT(failure.why,
              AllOf(HasSubstr("\"Reader A\""), HasSubstr("C_GetTokenInfo answered CKR_DEVICE_ERROR")));
  EXPECT_EQ(failure.advice, UserStep::kRetryOrNameReader);
  leavesOpen(script.openSessions());
}

TEST_F(ChooseReader, GivesAClientOfACardBehindOneThatTheModuleDoesNotKnow) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED);
  EXPECT_TRUE(host.newClient(inserted()));
  leavesOpen(script.openSessions());
}

TEST_F(ChooseReader, GivesAClientOfTheCardWhoseReaderIsNamed) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_TRUE(host.newClient(inserted(Text{u"Reader B"})));
  leavesOpen(script.openSessions());
}

TEST_F(ChooseReader, FailsWithoutAnyCard) {
  script.pullCard();
  const Failure failure = failureOf(host.insert(Text{}));
  EXPECT_EQ(failure.kind, FailureKind::kNoCard);
  EXPECT_EQ(failure.why, "no reader holds a card");
}

TEST_F(ChooseReader, FailsWithoutAnInitialisedCard) {
  script.card().info.flags = CKF_RNG;
  const Failure failure = failureOf(host.insert(Text{}));
  EXPECT_EQ(failure.kind, FailureKind::kNoCard);
  EXPECT_EQ(failure.why, "no reader holds a card that is initialised");
}

// ---- With a name ----

TEST_F(ChooseReader, TakesTheWholeName) {
  setReaders({"Reader A", "Reader B"});
  EXPECT_EQ(labelFor(Text{u"Reader B"}), "Card 1");
}

TEST_F(ChooseReader, TakesABeginningThatOnlyOneHas) {
  setReaders({"Alpha 00", "Beta 00", "Beater 00"});
  EXPECT_EQ(labelFor(Text{u"Bet"}), "Card 1");
}

TEST_F(ChooseReader, TakesACardThatIsNotInitialisedWhenItsReaderIsNamed) {
  setReaders({"Reader A", "Reader B"});
  script.card(2).info.flags &= ~CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(labelFor(Text{u"Reader B"}), "Card 1");
}

TEST_F(ChooseReader, TellsLettersFromCapitals) {
  setReaders({"Reader A"});
  EXPECT_EQ(failureOf(host.insert(Text{u"reader a"})).kind, FailureKind::kNoCard);
}

TEST_F(ChooseReader, RefusesABeginningThatSeveralHave) {
  setReaders({"Reader A", "Reader B", "Other"});
  const Failure failure = failureOf(host.insert(Text{u"Read"}));
  EXPECT_EQ(failure.kind, FailureKind::kNoCard);
  EXPECT_THAT(failure.what, HasSubstr("\"Read\""));
  EXPECT_THAT(failure.why,
              AllOf(HasSubstr("\"Reader A\""), HasSubstr("\"Reader B\""), Not(HasSubstr("Other"))));
}

TEST_F(ChooseReader, RefusesANameThatNoneHas) {
  setReaders({"Reader A", "Reader B"});
  const Failure failure = failureOf(host.insert(Text{u"Reader Z"}));
  EXPECT_EQ(failure.kind, FailureKind::kNoCard);
  EXPECT_THAT(failure.what, HasSubstr("\"Reader Z\""));
  EXPECT_THAT(failure.why, AllOf(HasSubstr("\"Reader A\""), HasSubstr("\"Reader B\"")));
}

TEST_F(ChooseReader, RefusesANameThatIsLongerThanTheReaders) {
  setReaders({"Reader A"});
  EXPECT_EQ(failureOf(host.insert(Text{u"Reader A and more"})).kind, FailureKind::kNoCard);
}

TEST_F(ChooseReader, RefusesAnEmptyName) {
  EXPECT_EQ(failureOf(host.insert(Text{u""})).kind, FailureKind::kNoCard);
}

TEST_F(ChooseReader, RefusesAnyNameWhenThereIsNoCard) {
  script.pullCard();
  const Failure failure = failureOf(host.insert(Text{u"Reader Z"}));
  EXPECT_EQ(failure.kind, FailureKind::kNoCard);
  EXPECT_EQ(failure.why, "no reader holds a card");
}

TEST_F(ChooseReader, TellsAReaderWithoutACardFromNoReader) {
  script.addSlot("Empty reader");
  const Failure failure = failureOf(host.insert(Text{u"Empty reader"}));
  EXPECT_EQ(failure.kind, FailureKind::kNoCard);
  EXPECT_THAT(failure.what, AllOf(HasSubstr("\"Empty reader\""), HasSubstr("no card")));
}

TEST_F(ChooseReader, ShowsANameWithControlCharactersInOneLine) {
  setReaders({"Reader\nA", "Reader\nB"});
  EXPECT_EQ(failureOf(host.insert(Text{u"Re"})).kind, FailureKind::kNoCard);
  EXPECT_EQ(failureOf(host.insert(Text{u"No\nsuch"})).kind, FailureKind::kNoCard);
}

// ---- Names that begin alike ----

TEST_F(ChooseReader, PrefersTheWholeNameToALongerOne) {
  setReaders({"SoftHSM slot ID 0x1", "SoftHSM slot ID 0x1dd5ef4f"});
  EXPECT_EQ(labelFor(Text{u"SoftHSM slot ID 0x1"}), "Card 0");
  EXPECT_EQ(labelFor(Text{u"SoftHSM slot ID 0x1dd5ef4f"}), "Card 1");
  EXPECT_EQ(labelFor(Text{u"SoftHSM slot ID 0x1d"}), "Card 1");
}

TEST_F(ChooseReader, PrefersTheWholeNameToALongerOneThatIsListedBefore) {
  setReaders({"SoftHSM slot ID 0x1dd5ef4f", "SoftHSM slot ID 0x1"});
  EXPECT_EQ(labelFor(Text{u"SoftHSM slot ID 0x1"}), "Card 1");
  EXPECT_EQ(labelFor(Text{u"SoftHSM slot ID 0x1dd5ef4f"}), "Card 0");
}

TEST_F(ChooseReader, InsertsItsDefaultAndNoOtherThatBeginsAlike) {
  setReaders({"SoftHSM slot ID 0x1dd5ef4f", "SoftHSM slot ID 0x1"});
  script.card(1).info.flags &= ~CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(labelFor(Text{}), "Card 1");
}

TEST_F(ChooseReader, TellsAReaderFromOneWhoseNameGoesOnWithABlank) {
  setReaders({"Reader  2", "Reader"});
  EXPECT_EQ(labelFor(Text{u"Reader"}), "Card 1");
  EXPECT_EQ(labelFor(Text{u"Reader  2"}), "Card 0");
}

TEST_F(ChooseReader, TakesANameThatFillsTheDescription) {
  const std::string kFull(64, 'x');
  setReaders({kFull.substr(1), kFull});
  EXPECT_EQ(labelFor(Text{std::u16string(64, u'x')}), "Card 1");
  EXPECT_EQ(labelFor(Text{std::u16string(63, u'x')}), "Card 0");
  setReaders({kFull, kFull.substr(1)});
  EXPECT_EQ(labelFor(Text{std::u16string(64, u'x')}), "Card 0");
  EXPECT_EQ(labelFor(Text{std::u16string(63, u'x')}), "Card 1");
}

TEST_F(ChooseReader, TakesTheFirstOfTwoWithOneName) {
  setReaders({"Twin", "Twin"});
  EXPECT_EQ(labelFor(Text{u"Twin"}), "Card 0");
}

TEST_F(ChooseReader, TakesANameWithLettersBeyondAscii) {
  setReaders({"Leser", "L\xE4ser"});
  EXPECT_EQ(labelFor(Text{u"L\u00E4ser"}), "Card 1");
  EXPECT_EQ(labelFor(Text{u"L\\xE4"}), "Card 1");
}

TEST_F(ChooseReader, TakesANameInUtf8) {
  setReaders({"Leser", "L\xC3\xA4ser \xE7\x8D\xB7"});
  EXPECT_EQ(labelFor(Text{u"L\u00E4ser \u7377"}), "Card 1");
  EXPECT_EQ(labelFor(Text{u"L\u00E4"}), "Card 1");
}

}  // namespace
}  // namespace mirel::test
