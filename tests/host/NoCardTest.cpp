#include "ReaderFindings.h"
#include "host/HostTest.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using InReader = ServiceReader::Card;
using State = CardServiceView::State;

/// What is said where the module shows no card.
class NoCard : public HostTest {
 protected:
  NoCard() : withKeys{script.card()} { script.slots().clear(); }

  /// A host on a system with that card service.
  [[nodiscard]] Host& hostWith(CardServiceView view) {
    PlatformServices mine = services();
    mine.cardService = service;
    service->view = std::move(view);
    return host_.emplace(mine);
  }

  const Card withKeys;
  std::shared_ptr<FakeCardService> service = std::make_shared<FakeCardService>();

 private:
  std::optional<Host> host_;
};

CardServiceView answering(std::vector<ServiceReader> readers) {
  return {State::kAnswers, {}, std::move(readers)};
}

const ServiceReader kEmptyReader{"Reader A", InReader::kNone};
const ServiceReader kUnknown{"Reader A", InReader::kPresent, false, false, "3B00"};
const ServiceReader kHeld{"Reader A", InReader::kPresent, true, true, "3B00"};
const ServiceReader kMuteCard{"Reader A", InReader::kMute};

TEST_F(NoCard, HasAReasonOfItsOwnInEachCase) {
  enum class Slot { kNone, kEmpty, kFailing, kBroken, kSecondFailing };
  const struct {
    const char* name;
    Slot slot;
    CardServiceView service;
    const char* why;
    bool onlyMissing;
  } rows[] = {
      // By what the card service says.
      {"no service",
       Slot::kNone,
       {State::kSilent, "no pcscd\n", {}},
       "the card service does not answer (no pcscd\\x0A)",
       false},
      {"no reader", Slot::kNone, answering({}), "no reader is connected", true},
      {"an empty slot that stands for no reader", Slot::kEmpty, answering({}), "no reader is connected",
       true},
      {"no card", Slot::kEmpty, answering({kEmptyReader}), "no reader holds a card", true},
      {"no card, and an empty reader that the module does not list", Slot::kEmpty,
       answering({{"Reader Z", InReader::kNone}, kEmptyReader}), "no reader holds a card", true},
      {"a slot that fails, and an empty reader that the module does not list", Slot::kSecondFailing,
       answering({{"Reader Z", InReader::kNone}, kEmptyReader}),
       "another program holds the card (slot 2, C_GetSlotInfo answered CKR_DEVICE_ERROR (0x30))", false},
      {"a card that is not known", Slot::kEmpty, answering({kUnknown}),
       "there is a card, and this module does not know it (reader \"Reader A\", ATR 3B00)", false},
      {"a card in a reader that is not listed", Slot::kNone, answering({kUnknown}),
       "there is a card, and this module does not know it (reader \"Reader A\", ATR 3B00)", false},
      {"a card that is held", Slot::kEmpty, answering({kHeld}),
       "another program holds the card (reader \"Reader A\", ATR 3B00, in exclusive use)", false},
      {"a card in a slot that fails", Slot::kFailing, answering({kUnknown}),
       "another program holds the card (reader \"Reader A\", C_GetSlotInfo answered CKR_DEVICE_ERROR (0x30), "
       "ATR 3B00)",
       false},
      {"a mute card", Slot::kEmpty, answering({kMuteCard}),
       "the card does not answer (reader \"Reader A\", the card service finds the card mute)", false},
      // By what the module says.
      {"no service that a module needs which shows its readers",
       Slot::kEmpty,
       {State::kSilent, "no pcscd", {}},
       "no reader holds a card",
       true},
      {"nothing to ask, no slot", Slot::kNone, {}, "no reader is connected", true},
      {"nothing to ask, an empty slot", Slot::kEmpty, {}, "no reader holds a card", true},
      {"nothing to ask, a slot that fails",
       Slot::kFailing,
       {},
       "another program holds the card (slot 1, C_GetSlotInfo answered CKR_DEVICE_ERROR (0x30))",
       false},
      {"nothing to ask, a slot that fails otherwise",
       Slot::kBroken,
       {},
       "the card cannot be read (slot 1, C_GetSlotInfo answered CKR_GENERAL_ERROR (0x5))",
       false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.reset();
    script.slots().clear();
    if (row.slot != Slot::kNone) (void)script.addSlot("Reader A");
    if (row.slot == Slot::kFailing)
      script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
    if (row.slot == Slot::kBroken)
      script.failCallOf("C_GetSlotInfo", 0, CKR_GENERAL_ERROR, Times::kFromThenOn);
    if (row.slot == Slot::kSecondFailing) {
      const CK_SLOT_ID second = script.addSlot("Reader B");
      script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([second](auto real, CK_SLOT_ID slot, auto* info) {
        return slot == second ? CK_RV{CKR_DEVICE_ERROR} : real(slot, info);
      });
    }
    Host& asked = hostWith(row.service);
    const Failure failure = failureOf(asked.insert(Text{}));
    EXPECT_EQ(failure.kind, FailureKind::kNoCard);
    EXPECT_EQ(failure.why, row.why);
    EXPECT_EQ(asked.whyNoCard("x").onlyMissing, row.onlyMissing);
  }
}

TEST_F(NoCard, IsSaidWithTheNumberOfReadersForWhichItIsKnown) {
  const ServiceReader open{"Reader Z", InReader::kUnknown};
  const ServiceReader alsoOpen{"Reader A", InReader::kUnknown};
  const struct {
    const char* name;
    CardServiceView service;
    const char* evidence;
  } rows[] = {
      {"nothing to ask", {}, "1 without a card"},
      {"all", answering({kEmptyReader}), "1 without a card"},
      {"one of two", answering({open, kEmptyReader}), "1 without a card, 1 not known"},
      {"one by the module's word alone", answering({open, alsoOpen}), "1 without a card, 1 not known"},
  };
  for (const auto& [name, view, evidence] : rows) {
    SCOPED_TRACE(name);
    Reader slot;
    slot.name = Text{u"Reader A"};
    const std::vector<Finding> found = readerFindings({slot}, view);
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found.front().id, FindingID::kReadersEmpty);
    EXPECT_EQ(found.front().evidence, evidence);
  }
}

TEST_F(NoCard, IsNotSaidOfReadersOfWhichNothingIsKnown) {
  const ServiceReader open{"Reader Z", InReader::kUnknown};
  Reader slot;
  slot.name = Text{u"Reader A"};
  for (const std::vector<Reader>& slots : {std::vector<Reader>{}, {slot}}) {
    const std::vector<Finding> found = readerFindings(slots, answering({open}));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front().id, FindingID::kReaderUnknownToModule);
    EXPECT_EQ(found.front().subject, "reader \"Reader Z\"");
    EXPECT_EQ(found.front().evidence, "whether it holds a card is not known");
  }
  script.slots().clear();
  const Failure failure = failureOf(hostWith(answering({open})).insert(Text{}));
  EXPECT_EQ(failure.why,
            "the module does not list a reader that the system has (reader \"Reader Z\", whether it holds a "
            "card is not known)");
}

/// As OpenSC has it: the slot shows a token, and is not listed among those with one.
TEST_F(NoCard, IsNotSaidOfACardThatTheModuleDoesNotKnow) {
  Reader slot;
  slot.name = Text{u"Reader A"};
  slot.distinctName = slot.name;
  slot.hasToken = true;
  slot.notRecognised = true;
  slot.unreadable = Failure{FailureKind::kNoCard, "", "not known", ""};
  for (const auto& [view, evidence] :
       {std::pair{answering({kUnknown}), "ATR 3B00"}, {CardServiceView{}, "not known"}}) {
    const std::vector<Finding> found = readerFindings({slot}, view);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front().id, FindingID::kCardNotRecognised);
    EXPECT_EQ(found.front().subject, "reader \"Reader A\"");
    EXPECT_EQ(found.front().evidence, evidence);
  }
}

TEST_F(NoCard, IsToldOfTheReaderThatIsNamed) {
  (void)script.addSlot("Reader A");
  (void)script.addSlot("Reader B", emptyCard("B", "2"));
  const ServiceReader other{"Reader B", InReader::kPresent, false, false, "3BFF"};
  {
    const Failure failure = failureOf(hostWith(answering({kUnknown, other})).insert(Text{u"Reader A"}));
    EXPECT_THAT(failure.what, HasSubstr("\"Reader A\""));
    EXPECT_THAT(failure.why, HasSubstr("does not know it (reader \"Reader A\", ATR 3B00)"));
  }
  {
    const Failure failure = failureOf(hostWith(answering({kEmptyReader, other})).insert(Text{u"Reader A"}));
    EXPECT_EQ(failure.what, "the reader \"Reader A\" holds no card");
  }
  const ServiceReader unlisted{"Reader C", InReader::kPresent, false, false, "3BCC"};
  EXPECT_THAT(failureOf(hostWith(answering({other, unlisted})).insert(Text{u"Reader C"})).why,
              HasSubstr("ATR 3BCC"));
}

TEST_F(NoCard, IsToldWhereOneIsPutInMeanwhile) {
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>([&](auto real, auto present, auto* list, auto* count) {
    const CK_RV rv = real(present, list, count);
    if (script.slots().empty()) (void)script.addSlot("Reader A", emptyCard("A", "1"));
    return rv;
  });
  EXPECT_EQ(failureOf(hostWith(answering({kUnknown})).insert(Text{u"Reader B"})).why,
            "no reader holds a card");
}

TEST_F(NoCard, IsTheReasonWhereTheServiceHasStoppedSinceTheModuleListedASlot) {
  (void)script.addSlot("Reader A", withKeys);
  script.failCallOf("C_GetSlotInfo", 0, CKR_GENERAL_ERROR, Times::kFromThenOn);
  const struct {
    CardServiceView service;
    FailureKind kind;
    const char* why;
  } rows[] = {
      {{State::kSilent, "no pcscd", {}}, FailureKind::kNoCard, "the card service does not answer (no pcscd)"},
      {answering({kUnknown}), FailureKind::kCardEnumerationFailed,
       "C_GetSlotInfo answered CKR_GENERAL_ERROR (0x5), "}};
  for (const auto& [view, kind, why] : rows) {
    SCOPED_TRACE(why);
    const Failure failure = failureOf(hostWith(view).insert(Text{}));
    EXPECT_EQ(failure.kind, kind);
    EXPECT_THAT(failure.why, ::testing::StartsWith(why));
    EXPECT_EQ(failure.what, "the card in slot 1 cannot be read");  // it has no name
  }
}

TEST_F(NoCard, IsNotSaidOfANamedReaderThatMayBeTheSlotWhoseNameIsNotKnown) {
  (void)script.addSlot("Reader A", withKeys);
  script.failCallOf("C_GetSlotInfo", 0, CKR_GENERAL_ERROR, Times::kFromThenOn);
  const std::pair<CardServiceView, const char*> rows[] = {
      {{State::kSilent, "no pcscd", {}}, "the card service does not answer (no pcscd)"},
      {{}, "C_GetSlotInfo answered CKR_GENERAL_ERROR (0x5), "}};
  for (const auto& [view, why] : rows) {
    SCOPED_TRACE(why);
    const Failure failure = failureOf(hostWith(view).insert(Text{u"Reader A"}));
    EXPECT_EQ(failure.kind, FailureKind::kNoCard);
    EXPECT_EQ(failure.what, "the reader \"Reader A\" was not found");
    EXPECT_THAT(failure.why,
                ::testing::StartsWith(std::string{"the card in slot 1 cannot be read: "}.append(why)));
  }
}

TEST_F(NoCard, IsNotLookedForWhereTheModuleShowsOne) {
  (void)script.addSlot("Reader A", withKeys);
  Host& asked = hostWith(answering({kUnknown}));
  EXPECT_TRUE(asked.readers());
  EXPECT_TRUE(asked.insert(Text{}));
  EXPECT_EQ(service->looks, 0);
  EXPECT_THAT(script.callTexts("C_GetSlotList"), ::testing::Not(::testing::Contains(HasSubstr("(0"))));
  leavesOpen(script.openSessions());
}

}  // namespace
}  // namespace mirel::test
