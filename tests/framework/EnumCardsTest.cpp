/// Selecting the card of a named reader.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using List = CK_FUNCTION_LIST;

class EnumCards : public FrameworkTest {
 protected:
  EnumCards() { openService(); }

  /// Opens a session, lists key and certificate and keeps that record.
  RetainedRecord enumeratedRecord() {
    EXPECT_TRUE(framework->OpenCardSession(reader(), nullptr));
    EXPECT_TRUE(framework->EnumCardKeys(reader()));
    script.forgetCalls();
    return RetainedRecord{framework->p11ServiceInfo()};
  }

  void expectReleased(const RetainedRecord& retained) const {
    EXPECT_FALSE(framework->p11ServiceInfo());
    expectEmptied(retained);
    expectMembersReleased(retained);
  }
};

// ---- What it does ----

TEST_F(EnumCards, MakesExactlyTheseCalls) {
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
}

TEST_F(EnumCards, StoresSlotSlotInformationAndTokenInformation) {
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("OTHER", "0000000000000002"));
  EXPECT_TRUE(framework->EnumCards(Text{u"Reader B 01"}));
  EXPECT_EQ(record().slotID(), second);
  expectSlotInfo(record().slotInfo(), script.slot(second));
  expectTokenInfo(record().tokenInfo(), script.card(second).info);
}

TEST_F(EnumCards, StoresARecordWithoutSessionAndLists) {
  const RetainedRecord retained = enumeratedRecord();
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(record().hSession(), 0U);
  expectSessionInfo(record().hSessionInfo(), {});
  EXPECT_FALSE(record().pAsymKeys());
  EXPECT_FALSE(record().pCerts());
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_EQ(record().m_certIndex(), 0);
  leavesOpen({kFirstSession});
}

TEST_F(EnumCards, ReplacesTheRecordAndLeavesTheOldOneToItsHolder) {
  const RetainedRecord retained = enumeratedRecord();
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_NE(framework->p11ServiceInfo(), retained.record);
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  expectUntouched(retained);
  leavesOpen({kFirstSession});
}

TEST_F(EnumCards, LogsNothing) {
  log->allLines.clear();
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_FALSE(framework->EnumCards(Text{u"No such reader"}));
  EXPECT_THAT(log->allLines, IsEmpty());
}

// ---- The name ----

TEST_F(EnumCards, MatchesTheNameWithTheStartOfTheSlotDescription) {
  // A description that is full: 64 characters, then the manufacturer ("Scripted readers").
  const std::string full = "Reader F " + std::string(54, 'x') + "!";
  ASSERT_EQ(full.size(), 64U);
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("B", "2"));
  const CK_SLOT_ID third = script.addSlot(full, emptyCard("F", "3"));
  const CK_SLOT_ID fourth = script.addSlot("Lecteur \xE9 00", emptyCard("E", "4"));
  script.addSlot("Reader without a card");
  const std::u16string fullName{full.begin(), full.end()};

  const struct {
    const char* what;
    Text name;
    CK_SLOT_ID slot;
  } kFound[] = {
      {"the whole name", Text{u"Reader A 00"}, kSlot},
      {"with padding", Text{u"Reader A 00     "}, kSlot},
      {"a prefix of several", Text{u"Reader "}, kSlot},
      {"a prefix of the second", Text{u"Reader B"}, second},
      {"an empty name", Text{u""}, kSlot},
      {"no name", Text{}, kSlot},
      {"all 64 characters", Text{fullName}, third},
      {"a character above 0x7F", Text{u"Lecteur \u00E9 00"}, fourth},
  };
  for (const auto& row : kFound) {
    SCOPED_TRACE(row.what);
    EXPECT_TRUE(framework->EnumCards(row.name));
    EXPECT_EQ(record().slotID(), row.slot);
  }

  const struct {
    const char* what;
    Text name;
  } kNotFound[] = {
      {"another reader", Text{u"Reader C"}},
      {"another case", Text{u"reader A 00"}},
      {"a reader without a card", Text{u"Reader without"}},
      {"one character too many", Text{u"Reader A 00!"}},
      {"NUL where the padding is", Text{u"Reader A 00\0"sv}},
      {"65 characters that go on as the manufacturer does", Text{fullName + u"S"}},
      {"the description and the whole manufacturer", Text{fullName + u"Scripted readers                "}},
      {"only the low bytes are alike", Text{u"Reader \u0141 00"}},
      {"only the low byte of the high character is alike", Text{u"Lecteur \u01E9 00"}},
  };
  for (const auto& row : kNotFound) {
    SCOPED_TRACE(row.what);
    EXPECT_FALSE(framework->EnumCards(row.name));
    EXPECT_FALSE(framework->p11ServiceInfo());
  }
}

TEST_F(EnumCards, PassesOverASlotWhoseInformationCannotBeRead) {
  const CK_SLOT_ID second = script.addSlot("Reader A 00", emptyCard("SECOND", "2"));
  script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(record().slotID(), second);
}

// ---- Failures ----

TEST_F(EnumCards, ReleasesTheRecordForAnUnknownReader) {
  const RetainedRecord retained = enumeratedRecord();
  EXPECT_FALSE(framework->EnumCards(Text{u"Reader C"}));
  expectReleased(retained);
  leavesOpen({kFirstSession});
}

TEST_F(EnumCards, ReleasesTheRecordWhenNoSlotHoldsACard) {
  const RetainedRecord retained = enumeratedRecord();
  script.pullCard();
  EXPECT_FALSE(framework->EnumCards(reader()));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, list, 10)"));
  expectReleased(retained);
}

TEST_F(EnumCards, FailsWithoutARecordToRelease) {
  ASSERT_FALSE(framework->EnumCards(Text{u"Reader C"}));
  ASSERT_FALSE(framework->p11ServiceInfo());
  EXPECT_FALSE(framework->EnumCards(Text{u"Reader C"}));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectUsable();
}

/// The calls of a selection, in their order, and what failing each means.
TEST_F(EnumCards, FailsWithAnyCallButThoseForTheSession) {
  constexpr std::size_t kOpenSession = 5;
  constexpr std::size_t kTokenInfo = 6;
  constexpr std::size_t kCloseSession = 7;
  constexpr std::size_t kNumCalls = 8;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newFramework();
    openService();
    const RetainedRecord retained = enumeratedRecord();
    point.arm();
    const bool selected = framework->EnumCards(reader());

    const bool once = point.times() == Times::kOnce;
    const bool harmless = point.n() >= kCloseSession || (point.n() == kOpenSession && once);
    EXPECT_EQ(selected, harmless);
    if (harmless) {
      EXPECT_EQ(record().slotID(), kSlot);
      expectUntouched(retained);
    } else {
      expectReleased(retained);
    }

    // The session for the token information is closed, unless that is the call that fails. The one
    // that the old record holds is not.
    const bool left = point.n() == kCloseSession || (point.n() == kTokenInfo && !once);
    std::vector<CK_SESSION_HANDLE> expected{kFirstSession};
    if (left) expected.push_back(kFirstSession + 1);
    EXPECT_EQ(script.openSessions(), expected);
    const bool wasOpened = point.n() > kOpenSession;
    EXPECT_EQ(script.callTexts("C_CloseSession"),
              wasOpened ? std::vector<std::string>{"C_CloseSession(6)"} : std::vector<std::string>{});
  });
}

TEST_F(EnumCards, FailsWithoutMemoryForSlotsOrTokenInformation) {
  failEachAllocation(2, [&](FailPoint& point) {
    newFramework();
    openService();
    const RetainedRecord retained = enumeratedRecord();
    point.arm();
    const bool succeeded = framework->EnumCards(reader());
    EXPECT_EQ(succeeded, !point.fired());
    if (point.fired()) expectReleased(retained);
    EXPECT_EQ(script.openSessions(), only(kFirstSession));
  });
}

TEST_F(EnumCards, AsksOnceMoreAfterTheDeviceWasRemoved) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED);
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 2U);
  expectTokenInfo(record().tokenInfo(), script.card().info);
}

TEST_F(EnumCards, AsksNoThirdTimeAfterTheDeviceWasRemoved) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  EXPECT_FALSE(framework->EnumCards(reader()));
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 2U);
  EXPECT_FALSE(framework->p11ServiceInfo());
}

// ---- Sessions and logins ----

TEST_F(EnumCards, KeepsALogin) {
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  const Value pin = bytesOf("123456");
  ASSERT_EQ(framework->p11Bridge()->pkcs11_UserLogin(record().hSession(), pin.data(), pin.size()), CKR_OK);
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({kFirstSession});
}

TEST_F(EnumCards, KeepsALoginWhenItFails) {
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  const Value pin = bytesOf("123456");
  ASSERT_EQ(framework->p11Bridge()->pkcs11_UserLogin(record().hSession(), pin.data(), pin.size()), CKR_OK);
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(framework->EnumCards(reader()));
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({kFirstSession});
}

TEST_F(EnumCards, LeavesNoSessionOpenHoweverOftenItRuns) {
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(script.countOf("C_OpenSession"), 5U);
  EXPECT_THAT(script.openSessions(), IsEmpty());
}

// ---- Many slots ----

TEST_F(EnumCards, FindsTheTenthOfTenCards) {
  CK_SLOT_ID last = kSlot;
  for (int i = 2; i <= 10; ++i) last = script.addSlot("Reader N " + std::to_string(i), emptyCard("N", "N"));
  EXPECT_TRUE(framework->EnumCards(Text{u"Reader N 10"}));
  EXPECT_EQ(record().slotID(), last);
}

TEST_F(EnumCards, FailsWithMoreThanTenCards) {
  for (const int numCards : {11, 30, 31, 100}) {
    SCOPED_TRACE(numCards);
    script.reset();
    script.setInitialised(true);
    for (int i = 2; i <= numCards; ++i) script.addSlot("Reader N " + std::to_string(i), emptyCard("N", "N"));
    EXPECT_FALSE(framework->EnumCards(reader()));
    EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, list, 10)"));
    EXPECT_FALSE(framework->p11ServiceInfo());
  }
}

TEST_F(EnumCards, CountsOnlySlotsWithACard) {
  for (int i = 0; i < 40; ++i) script.addSlot("Empty reader " + std::to_string(i));
  const CK_SLOT_ID last = script.addSlot("Reader Z", emptyCard("Z", "Z"));
  EXPECT_TRUE(framework->EnumCards(Text{u"Reader Z"}));
  EXPECT_EQ(record().slotID(), last);
}

// ---- Hostile and clumsy modules ----

TEST_F(EnumCards, HasRoomForTenSlotsWhenTheModuleCountedOne) {
  for (int i = 2; i <= 10; ++i) script.addSlot("Reader N " + std::to_string(i), emptyCard("N", "N"));
  script.deviations.slotCountOnQuery = 1;
  EXPECT_TRUE(framework->EnumCards(Text{u"Reader N 10"}));
  EXPECT_EQ(record().slotID(), 10U);
}

TEST_F(EnumCards, WalksNoMoreSlotsThanThereIsRoomFor) {
  for (const CK_ULONG reported : {CK_ULONG{12}, CK_ULONG{1} << 32U, CK_ULONG{1} << 60U, ~CK_ULONG{0}}) {
    SCOPED_TRACE(reported);
    script.deviations.slotCountOnList = reported;
    EXPECT_TRUE(framework->EnumCards(reader()));
    EXPECT_EQ(record().slotID(), kSlot);
    script.forgetCalls();
    EXPECT_FALSE(framework->EnumCards(Text{u"Reader C"}));
    EXPECT_LE(script.countOf("C_GetSlotInfo"), 10U);
  }
}

TEST_F(EnumCards, FailsWithAnAbsurdNumberOfSlots) {
  for (const CK_ULONG reported :
       {CK_ULONG{1} << 32U, CK_ULONG{1} << 61U, (CK_ULONG{1} << 61U) + 1, ~CK_ULONG{0}}) {
    SCOPED_TRACE(reported);
    script.deviations.slotCountOnQuery = reported;
    EXPECT_FALSE(framework->EnumCards(reader()));
    EXPECT_FALSE(framework->p11ServiceInfo());
    EXPECT_LT(memory->largestRequest(), FailingMemory::kMostBytes);
  }
  expectUsable();
}

TEST_F(EnumCards, FailsWithACountOfZero) {
  for (const bool onQuery : {true, false}) {
    SCOPED_TRACE(onQuery);
    script.deviations.slotCountOnQuery = onQuery ? std::optional<CK_ULONG>{0} : std::nullopt;
    script.deviations.slotCountOnList = onQuery ? std::nullopt : std::optional<CK_ULONG>{0};
    EXPECT_FALSE(framework->EnumCards(reader()));
    EXPECT_FALSE(framework->p11ServiceInfo());
  }
}

TEST_F(EnumCards, NeverSelectsTheSlotThatMeansNone) {
  script.hook<&List::C_GetSlotList>([](auto, CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count) -> CK_RV {
    *count = 2;
    if (list) list[0] = kSlot, list[1] = kNoHandle;
    return CKR_OK;
  });
  script.hook<&List::C_GetSlotInfo>([](auto real, CK_SLOT_ID slot, CK_SLOT_INFO* info) -> CK_RV {
    if (slot != kNoHandle) return real(slot, info);
    setField(info->slotDescription, "Reader Z");
    return CKR_OK;
  });
  EXPECT_FALSE(framework->EnumCards(Text{u"Reader Z"}));
  EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
  EXPECT_FALSE(framework->p11ServiceInfo());
}

/// A function that answers CKR_OK and has written nothing.
TEST_F(EnumCards, TakesNothingThatWasNotWritten) {
  script.deviations.silent = {"C_GetSlotList"};
  EXPECT_FALSE(framework->EnumCards(reader()));
  EXPECT_EQ(script.countOf("C_GetSlotInfo"), 0U);

  script.deviations.silent = {"C_GetSlotInfo"};
  EXPECT_FALSE(framework->EnumCards(reader()));

  script.deviations.silent = {"C_GetTokenInfo"};
  ASSERT_TRUE(framework->EnumCards(reader()));
  expectTokenInfo(record().tokenInfo(), {});

  script.deviations.silent = {"C_OpenSession"};
  script.forgetCalls();
  EXPECT_TRUE(framework->EnumCards(reader()));
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(EnumCards, FailsWithAModuleThatLacksAFunctionItNeeds) {
  constexpr struct {
    const char* function;
    bool needed;
  } kRows[] = {
      {"C_GetSlotList", true},  {"C_GetSlotInfo", true},     {"C_GetTokenInfo", true},
      {"C_OpenSession", false}, {"C_GetSessionInfo", false}, {"C_FindObjectsInit", false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.function);
    script.reset();
    script.setInitialised(true);
    script.removeEntry(row.function);
    EXPECT_EQ(framework->EnumCards(reader()), !row.needed);
  }
}

TEST_F(EnumCards, LeavesTheSessionToAModuleThatCannotCloseOne) {
  script.removeEntry("C_CloseSession");
  EXPECT_TRUE(framework->EnumCards(reader()));
  leavesOpen({kFirstSession});
}

}  // namespace
}  // namespace mirel::test
