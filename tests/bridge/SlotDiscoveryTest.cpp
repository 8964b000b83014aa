#include <algorithm>
#include <array>
#include <cstring>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What the module is told, whatever the caller's room is.
constexpr CK_ULONG kToldRoom = 10;

Text latin1(std::string_view bytes) {
  return Text::fromBytes({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

class GetSlotListUnloaded : public UnloadedBridgeTest {};

TEST_F(GetSlotListUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, nullptr), CK_RV{0x190});
}

class GetSlotList : public BridgeTest {};

TEST_F(GetSlotList, RefusesANullCountWithoutACall) {
  std::array<CK_SLOT_ID, kToldRoom> list{};
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, list.data(), nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(GetSlotList, TellsTheModuleOfRoomForTenWhateverTheCountHolds) {
  for (const CK_ULONG given : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{30}, kAllOnes}) {
    SCOPED_TRACE(given);
    script.forgetCalls();
    std::array<CK_SLOT_ID, kToldRoom> list{};
    CK_ULONG count = given;
    EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, list.data(), &count), CKR_OK);
    EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, list, 10)"));
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(list[0], kSlot);
  }
}

TEST_F(GetSlotList, CountsWithoutAList) {
  CK_ULONG count = 0;
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)"));
  EXPECT_EQ(count, 1U);
}

TEST_F(GetSlotList, HandsTokenPresentOn) {
  script.addSlot("Reader without a card");
  CK_ULONG count = 0;
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_FALSE, nullptr, &count), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(0, null, 10)"));
  EXPECT_EQ(count, 2U);
}

TEST_F(GetSlotList, AnswersAFailureUnchangedAndLeavesTheCount) {
  script.failCall(0, kSomeFailure);
  CK_ULONG count = 30;
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, &count), kSomeFailure);
  EXPECT_EQ(count, 30U);
}

TEST_F(GetSlotList, AnswersThreeForNoSlotsAndLeavesTheCount) {
  script.pullCard();
  CK_ULONG count = 30;
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, &count), CK_RV{3});
  EXPECT_EQ(count, 30U);

  std::array<CK_SLOT_ID, kToldRoom> list{};
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, list.data(), &count), CK_RV{3});
  EXPECT_EQ(count, 30U);
}

TEST_F(GetSlotList, AnswersThreeWhenTheFirstEntryIsAllOnes) {
  std::array<CK_SLOT_ID, kToldRoom> list;
  list.fill(kAllOnes);
  script.deviations.silent = {"C_GetSlotList"};
  CK_ULONG count = 30;
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, list.data(), &count), CK_RV{3});
  EXPECT_EQ(count, 30U);
}

TEST_F(GetSlotList, PassesOnACountAboveTheRoom) {
  script.deviations.slotCountOnList = 12;
  std::array<CK_SLOT_ID, kToldRoom> list{};
  CK_ULONG count = 0;
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, list.data(), &count), CKR_OK);
  EXPECT_EQ(count, 12U);
}

class FindSlotUnloaded : public UnloadedBridgeTest {};

TEST_F(FindSlotUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_FindSlot(Text{}, nullptr), CK_RV{0x190});
  CK_SLOT_ID slot = 4;
  EXPECT_EQ(bridge.pkcs11_FindSlot(Text{}, &slot), CK_RV{0x190});
}

class FindSlot : public BridgeTest {
 protected:
  /// Readers in the slots 1, 2, ..., each with a card and the description given.
  void readers(std::initializer_list<std::string_view> descriptions) {
    script.slots().clear();
    for (const std::string_view description : descriptions) {
      script.addSlot(description, emptyCard("TESTCARD", "1234567890ABCDEF"));
    }
  }

  /// Expects the search to end with `code` and, on success, with that slot, else with none.
  void expectFound(const Text& description, CK_RV code, CK_SLOT_ID expected = kAllOnes) {
    CK_SLOT_ID slot = 77;
    EXPECT_EQ(bridge.pkcs11_FindSlot(description, &slot), code);
    EXPECT_EQ(slot, expected);
  }
};

TEST_F(FindSlot, RefusesANullOutputWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_FindSlot(Text{u"Reader"}, nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(FindSlot, CountsThenListsThenAsksEachSlot) {
  readers({"Reader A 00", "Reader B 01", "Reader C 02"});
  expectFound(Text{u"Reader B"}, CKR_OK, 2);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)",
                                              "C_GetSlotInfo(1)", "C_GetSlotInfo(2)"));
}

TEST_F(FindSlot, ChoosesTheFirstSlotWhoseDescriptionStartsWithTheText) {
  const struct {
    const char* name;
    Text text;
    CK_RV code;
    CK_SLOT_ID slot;
  } rows[] = {
      {"start of the second", Text{u"Reader B"}, CKR_OK, 2},
      {"start of both", Text{u"Reader"}, CKR_OK, 1},
      {"all of the second", Text{u"Reader B 01"}, CKR_OK, 2},
      {"with some of the padding", Text{u"Reader B 01   "}, CKR_OK, 2},
      {"empty", Text{u""}, CKR_OK, 1},
      {"null", Text{}, CKR_OK, 1},
      // No match.
      {"another reader", Text{u"Reader C"}, CK_RV{3}, kAllOnes},
      {"other case", Text{u"reader b"}, CK_RV{3}, kAllOnes},
      {"not from the start", Text{u"B 01"}, CK_RV{3}, kAllOnes},
      {"longer than the description", Text{u"Reader B 012"}, CK_RV{3}, kAllOnes},
      {"a code unit whose low byte would match", Text{u"\u0152eader"}, CK_RV{3}, kAllOnes},
      {"a NUL", Text{std::u16string_view{u"Reader\0B", 8}}, CK_RV{3}, kAllOnes},
  };
  readers({"Reader A 00", "Reader B 01"});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    expectFound(row.text, row.code, row.slot);
  }
}

TEST_F(FindSlot, ComparesBytesAsUnsignedNumbers) {
  readers({"Reader \xC9t\xE9"});
  expectFound(Text{u"Reader \u00C9t\u00E9"}, CKR_OK, 1);
  expectFound(Text{u"Reader \u00C9t\uFFE9"}, CK_RV{3});
}

TEST_F(FindSlot, TakesTheModulesOrder) {
  readers({"Reader", "Reader"});
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>(
      [](auto real, CK_BBOOL present, CK_SLOT_ID* list, CK_ULONG* count) {
        const CK_RV rv = real(present, list, count);
        if (list) std::swap(list[0], list[1]);
        return rv;
      });
  expectFound(Text{u"Reader"}, CKR_OK, 2);
}

TEST_F(FindSlot, SeesOnlySlotsWithAToken) {
  script.slots().clear();
  script.addSlot("Reader A 00");
  script.addSlot("Reader A 01", emptyCard("TESTCARD", "1"));
  expectFound(Text{u"Reader A"}, CKR_OK, 2);
}

TEST_F(FindSlot, NeverChoosesASlotWhoseInformationCannotBeRead) {
  for (const Text& text : {Text{}, Text{u""}, Text{u"Reader"}}) {
    script.reset();
    initialiseAgain();
    readers({"Reader A 00", "Reader B 01"});
    script.failCallOf("C_GetSlotInfo", 0, kSomeFailure);
    expectFound(text, CKR_OK, 2);
    EXPECT_TRUE(script.fired());
  }
}

TEST_F(FindSlot, AnswersThreeWhenNoSlotCanBeRead) {
  readers({"Reader A 00", "Reader B 01"});
  script.failCallOf("C_GetSlotInfo", 0, kSomeFailure, Times::kFromThenOn);
  expectFound(Text{}, CK_RV{3});
}

TEST_F(FindSlot, AnswersThreeWithoutSlots) {
  script.pullCard();
  expectFound(Text{}, CK_RV{3});
}

TEST_F(FindSlot, ComparesNoMoreThanTheDescription) {
  const std::string description(64, 'R');
  readers({description});
  setField(script.slot().info.manufacturerID, "RRRR");
  expectFound(latin1(description), CKR_OK, 1);
  expectFound(latin1(description + "R"), CK_RV{3});
  expectFound(latin1(description + "RRRR"), CK_RV{3});
}

TEST_F(FindSlot, NeverMatchesANameThatContinuesBehindTheStructure) {
  readers({std::string(64, 'R')});
  const Slot& slot = script.slot();
  std::string name(sizeof(CK_SLOT_INFO) + 16, '\0');
  std::memcpy(name.data(), &slot.info, sizeof slot.info);
  expectFound(latin1(name), CK_RV{3});
}

TEST_F(FindSlot, FindsTheTenthOfTenSlots) {
  readers({"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7", "R8", "R9"});
  expectFound(Text{u"R9"}, CKR_OK, 10);
}

TEST_F(FindSlot, HandsOnTheRefusalOfAModuleWithMoreThanTenSlots) {
  readers({"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7", "R8", "R9", "R10"});
  expectFound(Text{u"R0"}, CKR_BUFFER_TOO_SMALL);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)"));
}

TEST_F(FindSlot, HasRoomForTheTenThatItTellsTheModuleOf) {
  readers({"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7", "R8", "R9"});
  script.deviations.slotCountOnQuery = 1;
  expectFound(Text{u"R9"}, CKR_OK, 10);
  EXPECT_GE(memory->largestRequest(), kToldRoom * sizeof(CK_SLOT_ID));
}

TEST_F(FindSlot, WalksAllThatItHasRoomForWhereTheModuleListsMoreThanItWasToldOf) {
  readers({"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7", "R8", "R9", "R10", "R11"});
  for (const CK_ULONG claimed : {CK_ULONG{12}, CK_ULONG{13}, CK_ULONG{1} << 60U, kAllOnes}) {
    SCOPED_TRACE(claimed);
    // It counted 12, so there is room for them, which this module uses whatever it was told.
    script.hook<&CK_FUNCTION_LIST::C_GetSlotList>(
        [claimed](auto, CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count) -> CK_RV {
          for (CK_SLOT_ID id = 1; list && id <= 12; ++id) list[id - 1] = id;
          *count = list ? claimed : 12;
          return CKR_OK;
        });
    script.forgetCalls();
    expectFound(Text{u"R11"}, CKR_OK, 12);
    script.forgetCalls();
    expectFound(Text{u"Reader"}, CK_RV{3});
    EXPECT_EQ(script.countOf("C_GetSlotInfo"), 12U);
  }
}

TEST_F(FindSlot, WalksNoFurtherThanItsRoom) {
  for (const CK_ULONG claimed : {CK_ULONG{12}, CK_ULONG{1} << 60U, kAllOnes}) {
    SCOPED_TRACE(claimed);
    script.reset();
    initialiseAgain();
    readers({"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7", "R8", "R9"});
    script.deviations.slotCountOnList = claimed;
    expectFound(Text{u"Reader"}, CK_RV{3});
    EXPECT_EQ(script.countOf("C_GetSlotInfo"), 10U);
  }
}

TEST_F(FindSlot, TakesAnEntryThatTheModuleDidNotWriteForNone) {
  readers({"R0"});
  script.deviations.slotCountOnList = 12;
  // Whatever it is asked about, this module has information.
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto, CK_SLOT_ID id, CK_SLOT_INFO* info) {
    setField(info->slotDescription, id == 1 ? "R0" : "Other");
    return CKR_OK;
  });
  CK_SLOT_ID slot = 77;
  (void)bridge.pkcs11_FindSlot(Text{u"Other"}, &slot);  // such a module may answer anything
  EXPECT_EQ(slot, kAllOnes);
}

TEST_F(FindSlot, FindsASlotAmongAnAbsurdButAffordableNumber) {
  script.deviations.slotCountOnQuery = 4096;
  expectFound(Text{u"Reader A"}, CKR_OK, kSlot);
}

TEST_F(FindSlot, AnswersHostMemoryForAnAbsurdNumberOfSlotsWithoutTrying) {
  for (const CK_ULONG claimed :
       {CK_ULONG{4097}, CK_ULONG{1} << 32U, CK_ULONG{1} << 60U, CK_ULONG{1} << 61U, kAllOnes - 1, kAllOnes}) {
    SCOPED_TRACE(claimed);
    script.forgetCalls();
    memory->reset();
    script.deviations.slotCountOnQuery = claimed;
    expectFound(Text{u"Reader A"}, CK_RV{2});
    EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)"));
    EXPECT_THAT(memory->requests(), IsEmpty());
  }
}

TEST_F(FindSlot, AnswersHostMemoryWhenThereIsNone) {
  bool failed = false;
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    initialiseAgain();
    point.arm();
    CK_SLOT_ID slot = 77;
    const CK_RV rv = bridge.pkcs11_FindSlot(Text{u"Reader"}, &slot);
    EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
    EXPECT_EQ(slot, point.fired() ? kAllOnes : kSlot);
    EXPECT_EQ(memory->outstanding(), 0U);
    failed = failed || point.fired();
  });
  EXPECT_TRUE(failed);
}

TEST_F(FindSlot, FindsNothingWhenTheModuleListsWithoutWriting) {
  script.deviations.silent = {"C_GetSlotList"};
  expectFound(Text{}, CK_RV{3});
}

TEST_F(FindSlot, SeesZerosWhereTheModuleDescribesNothing) {
  readers({"Reader A 00", "Reader B 01"});
  // The second slot does not get what a failing call left of the first one.
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto real, CK_SLOT_ID id, CK_SLOT_INFO* info) {
    if (id == 2) return CKR_OK;
    (void)real(id, info);
    return kSomeFailure;
  });
  expectFound(Text{u"Reader A"}, CK_RV{3});
}

TEST_F(FindSlot, SurvivesEveryFailingCall) {
  forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
    initialiseAgain();
    readers({"Reader A 00", "Reader B 01"});
    script.forgetCalls();
    point.arm();
    CK_SLOT_ID slot = 77;
    const CK_RV rv = bridge.pkcs11_FindSlot(Text{u"Reader"}, &slot);
    EXPECT_EQ(memory->outstanding(), 0U);
    if (!point.fired()) {
      EXPECT_EQ(rv, CKR_OK);
      EXPECT_EQ(slot, 1U);
      EXPECT_EQ(script.calls().size(), 3U);
    } else if (point.n() <= 1) {  // the two lists
      EXPECT_EQ(rv, kSomeFailure);
      EXPECT_EQ(slot, kAllOnes);
      EXPECT_EQ(script.calls().size(), point.n() + 1);
    } else {  // a slot is skipped
      const bool once = point.times() == Times::kOnce;
      EXPECT_EQ(rv, once ? CKR_OK : CK_RV{3});
      EXPECT_EQ(slot, once ? CK_SLOT_ID{2} : kAllOnes);
    }
  });
}

class GetTokenInfoUnloaded : public UnloadedBridgeTest {};

TEST_F(GetTokenInfoUnloaded, TestsTheFunctionListFirst) {
  memory->failAllocation(0, Times::kFromThenOn);
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, nullptr), CK_RV{0x190});
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CK_RV{0x190});
  EXPECT_EQ(record, nullptr);
}

class GetTokenInfo : public BridgeTest {
 protected:
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

std::string fieldText(const CK_BYTE* field, std::size_t size) { return {field, field + size}; }

TEST_F(GetTokenInfo, RefusesANullRecordPointerBeforeItLooksAtTheSlot) {
  memory->failAllocation(0, Times::kFromThenOn);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, nullptr), CK_RV{7});
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(GetTokenInfo, RefusesTheSlotNoneWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, &record), CK_RV{3});
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(record, nullptr);
}

TEST_F(GetTokenInfo, AnswersHostMemoryWhenNoRecordCanBeMadeBeforeItLooksAtTheSlot) {
  memory->failAllocation(0, Times::kFromThenOn);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kAllOnes, &record), CK_RV{2});
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CK_RV{2});
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(record, nullptr);
}

TEST_F(GetTokenInfo, SurvivesEveryFailingAllocation) {
  for (const bool existing : {false, true}) {
    SCOPED_TRACE(existing ? "existing record" : "new record");
    forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
      initialiseAgain();
      const auto given = existing ? std::make_shared<PKCS11_SERVICE_INFO>() : nullptr;
      auto current = given;
      point.arm();
      const CK_RV rv = bridge.pkcs11_GetTokenInfo(kSlot, &current);
      EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
      if (point.fired()) {
        EXPECT_EQ(current, given);
      }
      if (point.fired() && given) {
        EXPECT_EQ(given->tokenInfo().flags, 0U);
      }
      EXPECT_THAT(script.openSessions(), IsEmpty());
    });
  }
}

TEST_F(GetTokenInfo, ReadsSlotAndTokenWithASessionForItsTime) {
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)",
                                              "C_GetTokenInfo(1)", "C_CloseSession(5)"));
}

TEST_F(GetTokenInfo, MakesANewRecordWhereThereIsNone) {
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->slotID(), kSlot);
  EXPECT_EQ(fieldText(record->slotInfo().slotDescription, 64), "Reader A 00" + std::string(53, ' '));
  EXPECT_EQ(record->slotInfo().flags, CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT);
  EXPECT_EQ(fieldText(record->tokenInfo().label, 32), "TESTCARD" + std::string(24, ' '));
  EXPECT_EQ(fieldText(record->tokenInfo().serialNumber, 16), "1234567890ABCDEF");
  EXPECT_EQ(record->tokenInfo().flags, 0x40DU);
  EXPECT_EQ(record->tokenInfo().ulMaxPinLen, 16U);
  EXPECT_EQ(record->hSession(), 0U);
  EXPECT_EQ(record->hSessionInfo().flags, 0U);
  EXPECT_EQ(record->m_keyIndex(), 0);
  EXPECT_EQ(record->m_certIndex(), 0);
  EXPECT_EQ(record->pAsymKeys(), nullptr);
  EXPECT_EQ(record->pCerts(), nullptr);
}

TEST_F(GetTokenInfo, RefreshesOnlySlotAndTokenInformationOfARecordGiven) {
  const auto given = std::make_shared<PKCS11_SERVICE_INFO>();
  given->setSlotID(99);
  given->setHSession(88);
  given->setHSessionInfo({1, 2, 3, 4});
  given->setM_keyIndex(6);
  given->setM_certIndex(7);
  given->setPAsymKeys(std::make_shared<KeyRecords>());
  const auto keys = given->pAsymKeys();
  record = given;

  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);

  EXPECT_EQ(record, given);
  EXPECT_EQ(fieldText(given->slotInfo().slotDescription, 11), "Reader A 00");
  EXPECT_EQ(fieldText(given->tokenInfo().label, 8), "TESTCARD");
  EXPECT_EQ(given->slotID(), 99U);
  EXPECT_EQ(given->hSession(), 88U);
  EXPECT_EQ(given->hSessionInfo().ulDeviceError, 4U);
  EXPECT_EQ(given->m_keyIndex(), 6);
  EXPECT_EQ(given->m_certIndex(), 7);
  EXPECT_EQ(given->pAsymKeys(), keys);
  EXPECT_EQ(given->pCerts(), nullptr);
}

TEST_F(GetTokenInfo, TriesAgainOnceAfterDeviceRemoved) {
  script.failCallOf("C_GetTokenInfo", 0, CK_RV{0x32});
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 2U);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(fieldText(record->tokenInfo().label, 8), "TESTCARD");
}

TEST_F(GetTokenInfo, AnswersASecondDeviceRemoved) {
  script.failCallOf("C_GetTokenInfo", 0, CK_RV{0x32}, Times::kFromThenOn);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CK_RV{0x32});
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 2U);
  EXPECT_EQ(record, nullptr);
}

TEST_F(GetTokenInfo, AnswersWhatTheSecondTryAnswers) {
  script.failCallOf("C_GetTokenInfo", 0, CK_RV{0x32});
  script.failCallOf("C_GetTokenInfo", 1, CKR_TOKEN_NOT_RECOGNIZED);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_TOKEN_NOT_RECOGNIZED);
}

TEST_F(GetTokenInfo, TriesNoOtherFailureAgain) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_TOKEN_NOT_PRESENT, CKR_DEVICE_MEMORY}) {
    SCOPED_TRACE(code);
    script.forgetCalls();
    script.failCallOf("C_GetTokenInfo", 0, code);
    EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), code);
    EXPECT_EQ(script.countOf("C_GetTokenInfo"), 1U);
  }
}

TEST_F(GetTokenInfo, DoesNotNeedTheSession) {
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_NE(record, nullptr);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(GetTokenInfo, ClosesNothingWhenOpeningFails) {
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) {
        *session = 4711;
        return kSomeFailure;
      });
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(GetTokenInfo, ClosesNoSessionThatTheModuleDidNotName) {
  script.deviations.silent = {"C_OpenSession"};
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(GetTokenInfo, IgnoresAFailureToCloseTheSession) {
  script.failCallOf("C_CloseSession", 0, kSomeFailure);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_NE(record, nullptr);
  leavesOpen({kFirstSession});
}

TEST_F(GetTokenInfo, DoesNotEndALogin) {
  const CK_SESSION_HANDLE loggedIn = script.openSession(kSlot, CKF_SERIAL_SESSION);
  script.card().loggedIn = true;
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({loggedIn});
}

TEST_F(GetTokenInfo, GivesZerosWhereTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetSlotInfo", "C_GetTokenInfo"};
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(kSlot, &record), CKR_OK);
  ASSERT_NE(record, nullptr);
  const CK_SLOT_INFO slotInfo = record->slotInfo();
  const CK_TOKEN_INFO tokenInfo = record->tokenInfo();
  EXPECT_EQ(fieldText(slotInfo.slotDescription, 64), std::string(64, '\0'));
  EXPECT_EQ(slotInfo.flags, 0U);
  EXPECT_EQ(fieldText(tokenInfo.label, 32), std::string(32, '\0'));
  EXPECT_EQ(tokenInfo.flags, 0U);
  EXPECT_EQ(fieldText(tokenInfo.utcTime, 16), std::string(16, '\0'));
}

TEST_F(GetTokenInfo, AnswersWhatAModuleWithoutTheSlotAnswers) {
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(9, &record), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(bridge.pkcs11_GetTokenInfo(0, &record), CKR_SLOT_ID_INVALID);
}

TEST_F(GetTokenInfo, SurvivesEveryFailingCall) {
  for (const bool existing : {false, true}) {
    SCOPED_TRACE(existing ? "existing record" : "new record");
    forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
      initialiseAgain();
      const auto given = existing ? std::make_shared<PKCS11_SERVICE_INFO>() : nullptr;
      auto current = given;
      point.arm();
      const CK_RV rv = bridge.pkcs11_GetTokenInfo(kSlot, &current);

      // C_GetSlotInfo, C_OpenSession (needless), C_GetTokenInfo, C_CloseSession (ignored).
      const bool ignored =
          !point.fired() || point.n() == 3 || (point.n() == 1 && point.times() == Times::kOnce);
      EXPECT_EQ(rv, ignored ? CKR_OK : kSomeFailure);
      const bool closed = !point.fired() || point.n() != 3;
      const bool neverOpened = point.fired() && point.n() <= 1;
      const bool closeFails = point.fired() && point.times() == Times::kFromThenOn && point.n() >= 2;
      EXPECT_EQ(script.openSessions().empty(), neverOpened || (closed && !closeFails));
      EXPECT_EQ(script.countOf("C_CloseSession"), neverOpened ? 0U : 1U);
      if (rv == CKR_OK) {
        ASSERT_NE(current, nullptr);
        EXPECT_EQ(current->tokenInfo().flags, 0x40DU);
        if (existing) {
          EXPECT_EQ(current, given);
        }
      } else {
        EXPECT_EQ(current, given);
        if (given) {
          EXPECT_EQ(given->slotInfo().flags, 0U);
        }
        if (given) {
          EXPECT_EQ(given->tokenInfo().flags, 0U);
        }
      }
    });
  }
}

}  // namespace
}  // namespace mirel::test
