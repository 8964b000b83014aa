#include <functional>
#include <utility>

#include "host/ConformanceTest.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ConformanceGone : public ConformanceTest {
 protected:
  /// On a system with that card service.
  [[nodiscard]] Conformance testedWith(CardServiceView view) {
    PlatformServices mine = services();
    const auto service = std::make_shared<FakeCardService>();
    service->view = std::move(view);
    mine.cardService = service;
    return testConformance(mine, Examination{{module, true}, reader});
  }
  [[nodiscard]] static std::string evidenceOf(std::string_view number, const Conformance& conformance) {
    for (const RuleResult& result : conformance.results) {
      if (result.rule.number == number) return result.evidence;
    }
    return {};
  }
};

TEST_F(ConformanceGone, SaysWhyThereIsNoCardAndGivesNoGrade) {
  using InReader = ServiceReader::Card;
  using State = CardServiceView::State;
  const auto holding = [](ServiceReader one) {
    one.name = "Reader A";
    return CardServiceView{State::kAnswers, {}, {std::move(one)}};
  };
  enum class Slot { kNone, kEmpty, kFailing };
  const struct {
    CardServiceView service;
    Slot slot;
    RuleVerdict verdict;
    const char* why;
  } rows[] = {
      {holding({"", InReader::kNone}), Slot::kEmpty, RuleVerdict::kFail,
       "0 of 1 slots hold a token: no reader holds a card"},
      {{State::kSilent, "no pcscd", {}},
       Slot::kNone,
       RuleVerdict::kUnknown,
       "0 of 0 slots hold a token: the card service does not answer (no pcscd)"},
      {holding({"", InReader::kPresent, false, false, "3B00"}), Slot::kEmpty, RuleVerdict::kUnknown,
       "0 of 1 slots hold a token: there is a card, and this module does not know it"},
      {holding({"", InReader::kPresent, true, true, "3B00"}), Slot::kFailing, RuleVerdict::kUnknown,
       "0 of 1 slots hold a token: another program holds the card"},
      {holding({"", InReader::kMute}), Slot::kFailing, RuleVerdict::kUnknown,
       "0 of 1 slots hold a token: the card does not answer"},
  };
  for (const auto& [service, slot, verdict, why] : rows) {
    SCOPED_TRACE(why);
    makeGood();
    setField(script.slot().info.slotDescription, "Reader A");
    script.pullCard();
    if (slot == Slot::kNone) script.slots().clear();
    if (slot == Slot::kFailing) script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
    const Conformance found = testedWith(service);
    EXPECT_EQ(verdictsOf(found).at("CR-11"), verdict);
    EXPECT_THAT(evidenceOf("CR-11", found), ::testing::StartsWith(why));
    EXPECT_EQ(found.grade.letter, "-");
  }
}

TEST_F(ConformanceGone, IsNoTestWithWarningsWhereTheReaderThatWasNamedIsNotReached) {
  script.pullCard();
  reader = Text{u"Reader A 00"};
  const CardServiceView holds{CardServiceView::State::kAnswers,
                              {},
                              {{"Reader A 00", ServiceReader::Card::kPresent, false, false, "3B00"}}};
  const Conformance found = testedWith(holds);
  EXPECT_THAT(numbersWith(RuleVerdict::kUnknown, found), ElementsAre("CR-11"));
  ASSERT_TRUE(found.notReached);
  EXPECT_EQ(found.notReached->kind, FailureKind::kNoCard);
  EXPECT_THAT(found.notReached->why, HasSubstr("this module does not know it"));
  reader = {};
  EXPECT_FALSE(testedWith(holds).notReached);
}

TEST_F(ConformanceGone, DoesNotSayThatACardIsEmptyWhichTheModuleDoesNotKnow) {
  script.card().objects.clear();
  script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED, Times::kFromThenOn);
  const Conformance found = tested(false);
  EXPECT_THAT(numbersWith(RuleVerdict::kFail, found), IsEmpty());
  EXPECT_THAT(evidenceOf("CR-12", found), HasSubstr("the module does not know this card"));
  EXPECT_EQ(found.grade.letter, "-");
}

TEST_F(ConformanceGone, GivesNoGradeAndNoPinWhereTheCardHasLeftSinceItsObjectsWereTested) {
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"no card", [this] { script.pullCard(); }},
      {"another card",
       [this] {
         Card other = script.card();
         setField(other.info.label, "OTHER");
         script.pullCard();
         script.insertCard(other);
       }},
      {"the card of a reader with a longer name",
       [this] {
         (void)script.addSlot("Reader A 00 and more", script.card());
         script.pullCard();
       }},
  };
  for (const auto& [name, leave] : rows) {
    SCOPED_TRACE(name);
    makeGood();
    bool hasLeft = false;
    script.hook<&CK_FUNCTION_LIST::C_CloseSession>([&, run = leave](auto real, auto session) {
      const CK_RV rv = real(session);
      // The third one that is closed is that in which the objects were read.
      if (script.countOf("C_CloseSession") == 3 && !std::exchange(hasLeft, true)) run();
      return rv;
    });
    const Conformance found = tested();
    EXPECT_TRUE(hasLeft);
    EXPECT_EQ(found.grade.letter, "-");
    EXPECT_THAT(numbersWith(RuleVerdict::kFail, found), IsEmpty());
    EXPECT_EQ(script.countOf("C_Login"), 0U);
  }
}

TEST_F(ConformanceGone, SendsNoPinToACardThatCameIntoAnEarlierReader) {
  script.slots()[kSlot + 1] = script.slot();
  setField(script.slot().info.slotDescription, "Earlier");
  const Card own = script.card();
  script.pullCard();
  script.hook<&CK_FUNCTION_LIST::C_CloseSession>([&](auto real, auto session) {
    if (!script.slot().card) script.insertCard(own);
    return real(session);
  });
  const Conformance found = tested();
  EXPECT_EQ(found.card->name, Text{u"Reader A 00"});
  EXPECT_FALSE(script.card().loggedIn);
}

TEST_F(ConformanceGone, SendsNoPinToACardThatIsReadInPlaceOfOneThatIsNotInitialised) {
  script.slots()[kSlot + 1] = script.slot();
  setField(script.slot().info.slotDescription, "Earlier");
  script.card().info.flags &= ~CKF_TOKEN_INITIALIZED;
  script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([this](auto real, auto slot, auto* info) {
    const bool fails = slot != kSlot && script.countOf("C_FindObjectsInit") == 0;
    return fails ? CK_RV{CKR_DEVICE_ERROR} : real(slot, info);
  });
  const Conformance found = tested();
  EXPECT_EQ(found.card->name, Text{u"Earlier"});
  EXPECT_EQ(script.countOf("C_Login"), 0U);
}

TEST_F(ConformanceGone, TestsACardThatCouldNotBeReadAtFirst) {
  script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([this](auto real, auto slot, auto* info) {
    return script.countOf("C_FindObjectsInit") == 0 ? CK_RV{CKR_DEVICE_ERROR} : real(slot, info);
  });
  EXPECT_NE(tested().grade.letter, "-");
  EXPECT_GT(script.countOf("C_Login"), 0U);
}

TEST_F(ConformanceGone, SaysOfNoCardThatItWentWhereTheModuleWasEnded) {
  for (std::size_t n = 0;; n += 5) {
    SCOPED_TRACE(n);
    makeGood();
    script.failCall(n, CKR_CRYPTOKI_NOT_INITIALIZED, Times::kFromThenOn);
    const Conformance found = tested();
    if (!script.fired()) break;
    for (const RuleResult& result : found.results) {
      EXPECT_THAT(result.evidence, ::testing::AllOf(::testing::Not(::testing::HasSubstr("did not stay")),
                                                    ::testing::Not(::testing::HasSubstr("any more"))));
    }
  }
}

TEST_F(ConformanceGone, BlamesNoCardForWhatIsSeenWithoutTheLoginThatItHasLost) {
  Card own = script.card();
  script.hook<&CK_FUNCTION_LIST::C_Login>([&](auto real, auto session, auto user, auto* pin, auto size) {
    own = script.card();
    return real(session, user, pin, size);
  });
  // It is put back before the host has looked at its objects once more.
  bool wasAway = false;
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [&](auto real, auto slot, auto flags, auto* application, auto notify, auto* session) {
        if (script.card().loggedIn && !std::exchange(wasAway, true)) {
          script.pullCard();
          script.insertCard(own);
        }
        return real(slot, flags, application, notify, session);
      });
  const Conformance found = tested();
  EXPECT_TRUE(wasAway);
  EXPECT_THAT(numbersWith(RuleVerdict::kFail, found), IsEmpty());
  EXPECT_THAT(numbersWith(RuleVerdict::kUnknown, found), Contains("CR-38"));
}

}  // namespace
}  // namespace mirel::test
