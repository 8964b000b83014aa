/// Selecting the card of a named reader.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class EnumCards : public FrameworkTest {
 protected:
  void expectFails(const Text& readerName = reader()) {
    EXPECT_FALSE(framework->EnumCards(readerName));
    EXPECT_FALSE(framework->p11ServiceInfo());
  }
};

TEST_F(EnumCards, MakesExactlyTheseCallsAndLogsNothing) {
  openService();
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_THAT(
      script.callTexts(),
      ElementsAre(
          // Is there a card at all?
          "C_GetSlotList(1, list, 10)",
          // Which slot is the reader's?
          "C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)",
          // What is in it? The session that it takes is given back.
          "C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetTokenInfo(1)", "C_CloseSession(5)"));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(EnumCards, StoresTheCardOfTheReaderNamedWithoutSessionAndLists) {
  const RetainedRecord retained = openAndList();
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("OTHER", "0000000000000002"));
  EXPECT_TRUE(framework->EnumCards(Text{u"Reader B"}));
  expectNewRecord(second, 0, {});
  // The old record is left to its holder.
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  expectUntouched(retained);
}

TEST_F(EnumCards, ReleasesTheRecordForAnUnknownReader) {
  const RetainedRecord retained = openAndList();
  expectFails(Text{u"Reader C"});
  expectReleased(retained);
  expectFails(Text{u"Reader C"});  // nor does it need a record to release
  expectUsableAgain();
}

TEST_F(EnumCards, AsksNoFurtherWhereTheFirstListFailsAndHasRoomForWhatAHostileModuleLists) {
  openService();
  for (int i = 2; i <= 11; ++i) script.addSlot("Reader N", emptyCard("N", "N"));
  expectFails();  // it has room for ten
  script.slots().clear();
  expectFails();
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, list, 10)", "C_GetSlotList(1, list, 10)"));
  startAnew();
  script.deviations.slotCountOnList = ~CK_ULONG{0};
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(record().slotID(), kSlot);
  script.deviations.slotCountOnList = 0;
  expectFails();
}

TEST_F(EnumCards, FailsWithAnyCallButThoseForTheSession) {
  constexpr std::size_t kOpenSession = 5;
  constexpr std::size_t kTokenInfo = 6;
  constexpr std::size_t kCloseSession = 7;
  failEachCall(8, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    const bool harmless = point.n() >= kCloseSession || (point.n() == kOpenSession && point.once());
    EXPECT_EQ(framework->EnumCards(reader()), harmless);
    EXPECT_EQ(framework->p11ServiceInfo() != nullptr, harmless);
    harmless ? expectUntouched(retained) : expectReleased(retained);
    // The session for the token information is closed, unless that fails. The one that the old record holds
    // is not.
    const bool left = point.n() == kCloseSession || (point.n() == kTokenInfo && !point.once());
    EXPECT_EQ(script.openSessions().size(), left ? 2U : 1U);
    EXPECT_EQ(script.openSessions().front(), kFirstSession);
  });
}

TEST_F(EnumCards, KeepsALoginEvenWhenItFails) {
  openSession();
  script.card().loggedIn = true;
  EXPECT_TRUE(framework->EnumCards(reader()));
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  expectFails();
  EXPECT_TRUE(script.card().loggedIn);
}

}  // namespace
}  // namespace mirel::test
