/// Listing slots and choosing the one of a named reader. What begins with a name is in
/// SlotDescriptionTest.cpp.

#include <array>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What the module is told, whatever the caller's room is.
constexpr CK_ULONG kToldRoom = 10;

class GetSlotList : public BridgeTest {
 protected:
  CK_RV list(CK_SLOT_ID* into) { return bridge.pkcs11_C_GetSlotList(CK_TRUE, into, &count); }

  std::array<CK_SLOT_ID, kToldRoom> slots{};
  CK_ULONG count = 30;
};

TEST_F(GetSlotList, NeedsACountAndTellsTheModuleOfRoomForTenWhateverItHolds) {
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_TRUE, slots.data(), nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  for (const CK_ULONG given : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{30}, kAllOnes}) {
    SCOPED_TRACE(given);
    script.forgetCalls();
    count = given;
    EXPECT_EQ(list(slots.data()), CKR_OK);
    EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, list, 10)"));
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(slots[0], kSlot);
  }
}

TEST_F(GetSlotList, CountsWithoutAListAndHandsTokenPresentOn) {
  script.addSlot("Reader without a card");
  EXPECT_EQ(list(nullptr), CKR_OK);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(bridge.pkcs11_C_GetSlotList(CK_FALSE, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 2U);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(0, null, 10)"));
}

TEST_F(GetSlotList, LeavesTheCountWhereThereIsNoSlotOrTheModuleFailsAndPassesOnOneAboveTheRoom) {
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(list(nullptr), kSomeFailure);
  slots.fill(kAllOnes);
  script.deviations.silent = {"C_GetSlotList"};
  EXPECT_EQ(list(slots.data()), CKR_SLOT_ID_INVALID) << "the first entry is none";
  startAnew();
  script.pullCard();
  EXPECT_EQ(list(nullptr), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(list(slots.data()), CKR_SLOT_ID_INVALID);
  EXPECT_EQ(count, 30U);
  startAnew();
  script.deviations.slotCountOnList = 12;
  EXPECT_EQ(list(slots.data()), CKR_OK);
  EXPECT_EQ(count, 12U);
}

// ---- pkcs11_FindSlot ----

class FindSlot : public BridgeTest {
 protected:
  /// Readers in the slots 1, 2, ..., each with a card and the description given.
  void readers(std::initializer_list<std::string_view> descriptions) {
    script.slots().clear();
    for (const std::string_view description : descriptions) {
      script.addSlot(description, emptyCard("TESTCARD", "1234567890ABCDEF"));
    }
  }
  void tenReaders() { readers({"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7", "R8", "R9"}); }

  /// Expects the search to find that slot, or none because of `code`.
  void expectFound(const Text& description, CK_SLOT_ID expected) { expectEnd(description, CKR_OK, expected); }
  void expectEnd(const Text& description, CK_RV code, CK_SLOT_ID expected = kAllOnes) {
    CK_SLOT_ID slot = 77;
    EXPECT_EQ(bridge.pkcs11_FindSlot(description, &slot), code);
    EXPECT_EQ(slot, expected);
  }
};

TEST_F(FindSlot, NeedsAnOutputAndGivesNoSlotWhenTheListsCannotBeHad) {
  EXPECT_EQ(bridge.pkcs11_FindSlot(Text{u"Reader"}, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  for (const std::size_t n : {0U, 1U}) {
    script.failCall(n, kSomeFailure);
    expectEnd(Text{}, kSomeFailure);
  }
  memory->failAllocation(0);
  expectEnd(Text{}, CKR_HOST_MEMORY);
}

TEST_F(FindSlot, ChoosesTheFirstSlotWhoseDescriptionStartsWithTheText) {
  readers({"Reader A 00", "Reader B 01", "Reader \xC9t\xE9", std::string(64, 'R')});
  setField(script.slot(4).info.manufacturerID, "RRRR");
  const struct {
    const char* what;
    Text text;
    CK_SLOT_ID slot = kAllOnes;
  } rows[] = {
      {"start of the second", Text{u"Reader B"}, 2},
      {"start of several", Text{u"Reader"}, 1},
      {"all of the second", Text{u"Reader B 01"}, 2},
      {"empty", Text{u""}, 1},
      {"null", Text{}, 1},
      {"bytes above 0x7F, as unsigned numbers", Text{u"Reader \u00C9t\u00E9"}, 3},
      {"all 64 characters", Text{std::u16string(64, u'R')}, 4},
      {"65 characters that go on as the manufacturer does", Text{std::u16string(65, u'R')}},
      {"another reader", Text{u"Reader C"}},
      {"a code unit whose low byte would match", Text{u"\u0152eader"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    expectEnd(row.text, row.slot == kAllOnes ? CKR_SLOT_ID_INVALID : CKR_OK, row.slot);
  }
}

TEST_F(FindSlot, TakesTheModulesOrderOfSlotsWithAToken) {
  readers({"Reader", "Reader"});
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>(
      [](auto real, CK_BBOOL present, CK_SLOT_ID* list, CK_ULONG* count) {
        const CK_RV rv = real(present, list, count);
        if (list) std::swap(list[0], list[1]);
        return rv;
      });
  expectFound(Text{u"Reader"}, 2);
  startAnew();
  script.slot().card.reset();
  expectEnd(Text{}, CKR_SLOT_ID_INVALID);
  script.addSlot("Reader A 01", emptyCard("TESTCARD", "1"));
  expectFound(Text{u"Reader A"}, 2);
}

TEST_F(FindSlot, NeverChoosesASlotWhoseInformationCannotBeReadNorByWhatWasReadOfTheOneBefore) {
  readers({"Reader A 00", "Reader B 01"});
  for (const Text& text : {Text{}, Text{u""}, Text{u"Reader"}}) {
    script.failCallOf("C_GetSlotInfo", 0, kSomeFailure);
    expectFound(text, 2);
  }
  script.failCallOf("C_GetSlotInfo", 0, kSomeFailure, Times::kFromThenOn);
  expectEnd(Text{}, CKR_SLOT_ID_INVALID);
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto real, CK_SLOT_ID id, CK_SLOT_INFO* info) {
    if (id == 2) return CKR_OK;
    (void)real(id, info);
    return kSomeFailure;
  });
  expectEnd(Text{u"Reader A"}, CKR_SLOT_ID_INVALID);
}

TEST_F(FindSlot, FindsTheTenthOfTenSlotsEvenWhenTheModuleCountedOne) {
  tenReaders();
  expectFound(Text{u"R9"}, 10);
  script.deviations.slotCountOnQuery = 1;
  expectFound(Text{u"R9"}, 10);
  EXPECT_GE(memory->largestRequest(), kToldRoom * sizeof(CK_SLOT_ID));
}

TEST_F(FindSlot, HandsOnTheRefusalOfAModuleWithMoreThanTenSlots) {
  tenReaders();
  script.addSlot("R10", emptyCard("TESTCARD", "1"));
  expectEnd(Text{u"R0"}, CKR_BUFFER_TOO_SMALL);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)"));
}

TEST_F(FindSlot, WalksAllThatItHasRoomForAndNoFurther) {
  // A module that lists as many as it counted, whatever it was told, and then claims more.
  for (const CK_ULONG counted : {1UL, 10UL, 12UL}) {
    for (const CK_ULONG claimed : {counted, 13UL, 1UL << 60U, kAllOnes}) {
      SCOPED_TRACE(::testing::Message() << counted << " counted, " << claimed << " claimed");
      tenReaders();
      for (const char* more : {"R10", "R11", "R12"}) script.addSlot(more, emptyCard("TESTCARD", "1"));
      script.hook<&CK_FUNCTION_LIST::C_GetSlotList>(
          [&](auto, CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count) -> CK_RV {
            const CK_ULONG room = std::max(counted, kToldRoom);
            for (CK_SLOT_ID id = 1; list && id <= room; ++id) list[id - 1] = id;
            *count = list ? claimed : counted;
            return CKR_OK;
          });
      script.forgetCalls();
      expectEnd(Text{u"Reader"}, CKR_SLOT_ID_INVALID);
      EXPECT_EQ(script.countOf("C_GetSlotInfo"), std::min(claimed, std::max(counted, kToldRoom)));
    }
  }
}

TEST_F(FindSlot, TakesAnEntryThatTheModuleDidNotWriteForNone) {
  script.deviations.slotCountOnList = 12;
  // Whatever it is asked about, this module has information.
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto, CK_SLOT_ID id, CK_SLOT_INFO* info) {
    setField(info->slotDescription, id == 1 ? "R0" : "Other");
    return CKR_OK;
  });
  CK_SLOT_ID slot = 77;
  (void)bridge.pkcs11_FindSlot(Text{u"Other"}, &slot);  // such a module may answer anything
  EXPECT_EQ(slot, kAllOnes);
  script.deviations.silent = {"C_GetSlotList"};
  expectEnd(Text{}, CKR_SLOT_ID_INVALID);
}

TEST_F(FindSlot, AnswersHostMemoryForAnAbsurdNumberOfSlotsWithoutTrying) {
  script.deviations.slotCountOnQuery = 4096;
  expectFound(Text{u"Reader A"}, kSlot);
  for (const CK_ULONG claimed : {CK_ULONG{4097}, CK_ULONG{1} << 32U, CK_ULONG{1} << 61U, kAllOnes}) {
    SCOPED_TRACE(claimed);
    forgetAll();
    script.deviations.slotCountOnQuery = claimed;
    expectEnd(Text{u"Reader A"}, CKR_HOST_MEMORY);
    EXPECT_THAT(script.callTexts(), ElementsAre("C_GetSlotList(1, null, 10)"));
    EXPECT_THAT(memory->requests(), IsEmpty());
  }
}

}  // namespace
}  // namespace mirel::test
