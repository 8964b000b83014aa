#include <functional>
#include <utility>

#include "host/ConformanceTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;

class ConformanceGone : public ConformanceTest {};

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
