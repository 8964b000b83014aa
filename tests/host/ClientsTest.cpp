#include "host/KeyClient.h"

#include "host/HostTest.h"

namespace mirel::test {
namespace {

class Clients : public InsertedCardTest {};

TEST_F(Clients, AreNewEachTimeAndMadeWithoutTheCard) {
  const InsertedCard card = inserted();
  script.forgetCalls();
  const auto first = host.newClient(card);
  const auto second = host.newClient(card);
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(*first);
  EXPECT_NE(*first, *second);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(Clients, AreMadeForCardsWithoutKeys) {
  script.card().objects.clear();
  EXPECT_TRUE(host.newClient(inserted()));
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

class PinState : public Clients {
 protected:
  /// As the reader says it that is the only one.
  [[nodiscard]] Result<mirel::PinState> state() { return host.pinState(reader); }

  const Reader reader = readers().at(0);
};

TEST_F(PinState, IsWhatTheTokensFlagsSay) {
  const CK_FLAGS before = script.card().info.flags;
  for (const Flags& row : kFlags) {
    SCOPED_TRACE(row.set);
    script.card().info.flags = before | row.set;
    EXPECT_EQ(state()->text, row.state);
    EXPECT_EQ(state()->tries, row.tries);
    EXPECT_FALSE(state()->enteredAtReader);
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
  EXPECT_EQ(state()->text, "");
  script.card().triesLeft = 1;
  EXPECT_EQ(state()->text, "one more wrong PIN locks the card");
}

TEST_F(PinState, IsUnknownWhenTheTokenCannotBeRead) {
  script.card().triesLeft = 0;
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  const auto unknown = state();
  EXPECT_EQ(failureOf(unknown).why, "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)");
  EXPECT_EQ(state()->text, "the PIN is locked");
  script.pullCard();
  EXPECT_EQ(failureOf(state()).kind, FailureKind::kCardGone);
}

TEST_F(PinState, IsNotThatOfAnotherCard) {
  Card other = script.card();
  setField(other.info.serialNumber, "0000000000000002");
  other.info.flags |= CKF_USER_PIN_LOCKED;
  script.pullCard();
  script.insertCard(other);
  const Failure failure = failureOf(state());
  EXPECT_EQ(failure.kind, FailureKind::kAnotherCard);
  EXPECT_THAT(failure.why, HasSubstr("now \"TESTCARD\" with serial number \"0000000000000002\" is there"));
}

TEST_F(PinState, IsUnknownBeforeTheModuleIsLoaded) {
  Host unused{services()};
  EXPECT_FALSE(unused.pinState(reader));
}

TEST_F(PinState, TellsOfAPinThatIsEnteredAtTheReader) {
  script.card().info.flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  EXPECT_TRUE(state()->enteredAtReader);
  EXPECT_EQ(state()->obstacle, "the card takes it from the keys of the reader");
}

TEST_F(PinState, TellsOfAPinThatIsTooLongToBeSent) {
  const std::pair<CK_ULONG, const char*> rows[] = {
      {0, ""},
      {8, ""},
      {9, "it has 9 characters at least, and 8 are the most that is sent"},
      {CK_UNAVAILABLE_INFORMATION, ""}};
  for (const auto& [shortest, obstacle] : rows) {
    SCOPED_TRACE(shortest);
    script.card().info.ulMinPinLen = shortest;
    EXPECT_EQ(state()->obstacle, obstacle);
  }
}

}  // namespace
}  // namespace mirel::test
