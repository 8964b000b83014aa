#include "host/HostTest.h"
#include "host/KeyClient.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

/// Which reader a name leads to; the label of the inserted card tells.
class ChooseReader : public InsertedCardTest {
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

  /// Why no card is chosen by that name.
  [[nodiscard]] Failure refusalOf(const Text& readerName) {
    const Failure failure = failureOf(host.insert(readerName));
    EXPECT_EQ(failure.kind, FailureKind::kNoCard);
    return failure;
  }
};

// ---- Without a name ----

TEST_F(ChooseReader, TakesTheFirstWithAnInitialisedCardThatCanBeRead) {
  setReaders({"Reader A", "Reader B", "Reader C"});
  script.card(1).info.flags &= ~CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(labelFor(Text{}), "Card 1");
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED);
  EXPECT_EQ(labelFor(Text{}), "Card 1");
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
}

TEST_F(ChooseReader, GivesAClientOfACardBehindOneThatTheModuleDoesNotKnow) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED);
  EXPECT_TRUE(host.newClient(inserted()));
}

TEST_F(ChooseReader, GivesAClientOfTheCardWhoseReaderIsNamed) {
  setReaders({"Reader A", "Reader B"});
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_TRUE(host.newClient(inserted(Text{u"Reader B"})));
}

TEST_F(ChooseReader, FailsWithoutAnInitialisedCardOrAnyAtAll) {
  script.card().info.flags = CKF_RNG;
  EXPECT_EQ(refusalOf(Text{}).why, "no reader holds a card that is initialised");
  script.pullCard();
  EXPECT_EQ(refusalOf(Text{}).why, "no reader holds a card");
  EXPECT_EQ(refusalOf(Text{u"Reader Z"}).why, "no reader holds a card");
}

// ---- With a name ----

TEST_F(ChooseReader, TakesTheOneThatIsNamed) {
  const struct {
    std::vector<std::string> readers;
    Text name;
    const char* label;
  } rows[] = {
      {{"Reader A", "Reader B"}, Text{u"Reader B"}, "Card 1"},
      {{"Alpha 00", "Beta 00", "Beater 00"}, Text{u"Bet"}, "Card 1"},
      {{"Twin", "Twin"}, Text{u"Twin"}, "Card 0"},
      {{"Leser", "L\xE4ser"}, Text{u"L\u00E4ser"}, "Card 1"},
      // The whole name rather than a longer one that begins alike.
      {{"ID 0x1", "ID 0x1dd5ef4f"}, Text{u"ID 0x1"}, "Card 0"},
      {{"ID 0x1", "ID 0x1dd5ef4f"}, Text{u"ID 0x1dd5ef4f"}, "Card 1"},
      {{"ID 0x1", "ID 0x1dd5ef4f"}, Text{u"ID 0x1d"}, "Card 1"},
      {{"ID 0x1dd5ef4f", "ID 0x1"}, Text{u"ID 0x1"}, "Card 1"},
      {{"ID 0x1dd5ef4f", "ID 0x1"}, Text{u"ID 0x1dd5ef4f"}, "Card 0"},
      {{"Reader  2", "Reader"}, Text{u"Reader"}, "Card 1"},
      {{"Reader  2", "Reader"}, Text{u"Reader  2"}, "Card 0"},
      // Names that fill the description, but for a character.
      {{std::string(63, 'x'), std::string(64, 'x')}, Text{std::u16string(64, u'x')}, "Card 1"},
      {{std::string(63, 'x'), std::string(64, 'x')}, Text{std::u16string(63, u'x')}, "Card 0"},
      {{std::string(64, 'x'), std::string(63, 'x')}, Text{std::u16string(64, u'x')}, "Card 0"},
      {{std::string(64, 'x'), std::string(63, 'x')}, Text{std::u16string(63, u'x')}, "Card 1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name.toUtf8() + " of " + row.readers.front());
    setReaders(row.readers);
    EXPECT_EQ(labelFor(row.name), row.label);
  }
}

TEST_F(ChooseReader, TakesACardThatIsNotInitialisedWhenItsReaderIsNamed) {
  setReaders({"Reader A", "Reader B"});
  script.card(2).info.flags &= ~CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(labelFor(Text{u"Reader B"}), "Card 1");
}

TEST_F(ChooseReader, RefusesEveryOtherName) {
  setReaders({"Reader A", "Reader B", "Other"});
  for (const char16_t* name : {u"Read", u"Reader Z", u"reader a", u"Reader A and more", u""}) {
    const Failure failure = refusalOf(Text{name});
    EXPECT_THAT(failure.what, HasSubstr("\"" + Text{name}.toUtf8() + "\""));
    EXPECT_THAT(failure.why, AllOf(HasSubstr("\"Reader A\""), HasSubstr("\"Reader B\"")));
  }
  EXPECT_THAT(refusalOf(Text{u"Read"}).why, Not(HasSubstr("Other")));
}

TEST_F(ChooseReader, TellsAReaderWithoutACardFromNoReader) {
  script.addSlot("Empty reader");
  EXPECT_THAT(refusalOf(Text{u"Empty reader"}).what,
              AllOf(HasSubstr("\"Empty reader\""), HasSubstr("no card")));
}

// The card of another reader would get the PIN.
TEST_F(ChooseReader, TakesAWholeNameForThatReaderAloneBeItEmpty) {
  for (const std::vector<std::string>& others :
       {std::vector<std::string>{"Reader 10"}, std::vector<std::string>{"Reader 10", "Reader 11"}}) {
    SCOPED_TRACE(others.size());
    setReaders(others);
    script.addSlot("Reader 1");
    EXPECT_EQ(refusalOf(Text{u"Reader 1"}).what, "the reader \"Reader 1\" holds no card");
  }
}

TEST_F(ChooseReader, TakesAWholeNameOfTheCardServiceForThatReaderAloneAlsoUnderALongerName) {
  const struct {
    std::vector<std::string> readers;  ///< of the service
    std::string listed;                ///< by the module
    bool isTaken;                      ///< for "Reader 1"
  } rows[] = {{{"Reader 1", "Reader 10"}, "Reader 10", false},
              {{"Reader 1", "Reader 10"}, "Reader 10 (USB)", false},
              {{"Reader 1"}, "Reader 10", false},
              {{"Reader 1", "Reader 1 (USB)"}, "Reader 1 (USB) 00", false},
              {{"Reader 1"}, "Reader 1 (USB)", true}};
  const auto service = std::make_shared<FakeCardService>();
  PlatformServices mine = services();
  mine.cardService = service;
  for (const auto& [readers, listed, isTaken] : rows) {
    SCOPED_TRACE(readers.back() + ", " + listed);
    Host own{mine};
    setReaders({listed});
    service->view.readers.clear();
    for (const std::string& name : readers)
      service->view.readers.push_back({name, ServiceReader::Card::kNone});
    for (const auto& card : {own.insert(Text{u"Reader 1"}), own.insertFrom(Text{u"Reader 1"})}) {
      EXPECT_EQ(static_cast<bool>(card), isTaken);
      if (!card) {
        EXPECT_EQ(card.failure().what, "the reader \"Reader 1\" holds no card");
      }
    }
  }
}

TEST_F(ChooseReader, DoesNotSayThatAReaderIsEmptyOfWhichNobodyTells) {
  const auto service = std::make_shared<FakeCardService>();
  PlatformServices mine = services();
  mine.cardService = service;
  Host own{mine};
  setReaders({"Reader A"});
  service->view.readers = {{"Reader Z", ServiceReader::Card::kUnknown}};
  const Failure failure = failureOf(own.insert(Text{u"Reader Z"}));
  EXPECT_EQ(failure.what, "the reader \"Reader Z\" cannot be used");
  EXPECT_THAT(failure.why, HasSubstr("the module does not list it"));
}

TEST_F(ChooseReader, TakesNoOtherForTheReaderOfACardThatWasFound) {
  const auto service = std::make_shared<FakeCardService>();
  PlatformServices mine = services();
  mine.cardService = service;
  Host own{mine};
  setReaders({"L\xC3\xA4ser", "L\xC3\xA4ser (USB)"});
  service->view.readers = {{"L\xC3\xA4ser", ServiceReader::Card::kPresent}};
  const auto found = own.readers();
  ASSERT_TRUE(found);
  EXPECT_TRUE(own.insert(found->front()));
  setReaders({"L\xC3\xA4ser (USB)"});
  service->view.readers.front().card = ServiceReader::Card::kNone;
  const Failure failure = failureOf(own.insert(found->front()));
  EXPECT_EQ(failure.kind, FailureKind::kCardGone);
  EXPECT_THAT(failure.why, HasSubstr("the reader \"L\u00E4ser\" holds no card"));
}

TEST_F(ChooseReader, GivesNoClientByAShortNameWhileTheNameOfAnotherReaderCannotBeRead) {
  setReaders({"Reader 1", "Reader 10"});
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>(
      [first = script.slots().begin()->first](auto real, auto slot, auto* info) {
        return slot == first ? CKR_DEVICE_ERROR : real(slot, info);
      });
  const InsertedCard card = inserted(Text{u"Reader 1"});
  EXPECT_EQ(card.reader.tokenLabel, Text{u"Card 1"});
  const Failure failure = failureOf(host.newClient(card));
  expectPresentable(failure);
  EXPECT_THAT(failure.why, HasSubstr("C_GetSlotInfo answered CKR_DEVICE_ERROR"));
  const auto found = host.readers(Text{u"Reader 1"});
  ASSERT_TRUE(found);
  const auto again = host.insert(found->front());
  ASSERT_TRUE(again);
  EXPECT_EQ(failureOf(host.newClient(*again)).what, failure.what);
  EXPECT_TRUE(host.newClient(inserted(Text{u"Reader 10"})));
}

TEST_F(ChooseReader, ShowsANameWithControlCharactersInOneLine) {
  setReaders({"Reader\nA", "Reader\nB"});
  (void)refusalOf(Text{u"Re"});
  (void)refusalOf(Text{u"No\nsuch"});
}

TEST_F(ChooseReader, InsertsItsDefaultAndNoOtherThatBeginsAlike) {
  setReaders({"SoftHSM slot ID 0x1dd5ef4f", "SoftHSM slot ID 0x1"});
  script.card(1).info.flags &= ~CKF_TOKEN_INITIALIZED;
  EXPECT_EQ(labelFor(Text{}), "Card 1");
}

TEST_F(ChooseReader, TakesANameAsItIsShown) {
  setReaders({"Leser", "L\xE4ser"});
  EXPECT_EQ(labelFor(Text{u"L\\xE4"}), "Card 1");
  setReaders({"Leser", "L\xC3\xA4ser \xE7\x8D\xB7"});
  EXPECT_EQ(labelFor(Text{u"L\u00E4ser \u7377"}), "Card 1");
  EXPECT_EQ(labelFor(Text{u"L\u00E4"}), "Card 1");
}

}  // namespace
}  // namespace mirel::test
