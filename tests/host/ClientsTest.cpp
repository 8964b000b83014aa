#include "host/KeyClient.h"

#include "host/HostTest.h"

namespace mirel::test {
namespace {

class Clients : public InsertedCardTest {};

TEST_F(Clients, AreNewEachTime) {
  const InsertedCard card = inserted();
  const auto first = host.newClient(card);
  const auto second = host.newClient(card);
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  EXPECT_TRUE(*first);
  EXPECT_NE(*first, *second);
}

TEST_F(Clients, AreMadeWithoutTheCard) {
  const InsertedCard card = inserted();
  script.forgetCalls();
  EXPECT_TRUE(host.newClient(card));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(Clients, AreMadeForCardsWithoutKeys) {
  script.card().objects.clear();
  const InsertedCard card = inserted();
  EXPECT_TRUE(host.newClient(card));
}

// ---- What the flags say about the PIN ----

using Tries = mirel::PinState::Tries;

struct Flags {
  CK_FLAGS set;
  const char* state;
  Tries tries;
};

constexpr Flags kFlags[] = {
    {0, "", Tries::kNoWord},
    {CKF_USER_PIN_COUNT_LOW, "a wrong PIN was entered since the last right one", Tries::kFewer},
    {CKF_USER_PIN_FINAL_TRY, "one more wrong PIN locks the card", Tries::kLast},
    {CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY, "one more wrong PIN locks the card", Tries::kLast},
    {CKF_USER_PIN_LOCKED, "the PIN is locked", Tries::kNone},
    {CKF_USER_PIN_LOCKED | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_COUNT_LOW, "the PIN is locked",
     Tries::kNone},
    // Those of the other PIN say nothing.
    {CKF_SO_PIN_COUNT_LOW | CKF_SO_PIN_FINAL_TRY | CKF_SO_PIN_LOCKED, "", Tries::kNoWord},
};

class PinState : public Clients {};

TEST_F(PinState, IsWhatTheTokensFlagsSay) {
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  const CK_FLAGS before = script.card().info.flags;
  for (const Flags& row : kFlags) {
    SCOPED_TRACE(row.set);
    script.card().info.flags = before | row.set;
    EXPECT_EQ(host.pinState(found.front())->text, row.state);
    EXPECT_EQ(host.pinState(found.front())->tries, row.tries);
    EXPECT_FALSE(host.pinState(found.front())->enteredAtReader);
  }
}

TEST_F(PinState, IsThatOfTheReader) {
  Card other = emptyCard("OTHER", "2");
  other.info.flags |= CKF_USER_PIN_LOCKED;
  script.addSlot("Reader B 00", other);
  const auto found = readers();
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(host.pinState(found[0])->text, "");
  EXPECT_EQ(host.pinState(found[1])->text, "the PIN is locked");
}

TEST_F(PinState, IsReadAnewEachTime) {
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(host.pinState(found.front())->text, "");
  script.card().triesLeft = 1;
  EXPECT_EQ(host.pinState(found.front())->text, "one more wrong PIN locks the card");
}

TEST_F(PinState, IsUnknownWhenTheTokenCannotBeRead) {
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  script.card().triesLeft = 0;
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  const auto unknown = host.pinState(found.front());
  EXPECT_EQ(failureOf(unknown).why, "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)");
  EXPECT_EQ(host.pinState(found.front())->text, "the PIN is locked");
  script.pullCard();
  EXPECT_EQ(failureOf(host.pinState(found.front())).kind, FailureKind::kCardGone);
}

TEST_F(PinState, IsUnknownBeforeTheModuleIsLoaded) { EXPECT_FALSE(host.pinState(Reader{})); }

TEST_F(PinState, TellsOfAPinThatIsEnteredAtTheReader) {
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  script.card().info.flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  EXPECT_TRUE(host.pinState(found.front())->enteredAtReader);
}

}  // namespace
}  // namespace mirel::test
