#include "host/HostTest.h"

namespace mirel::test {
namespace {

class Readers : public HostTest {
 protected:
  /// The only one; several or none fail the test.
  [[nodiscard]] Reader theReader() {
    const auto found = readers();
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? Reader{} : found.front();
  }
};

// ---- What is told of a reader ----

TEST_F(Readers, TellTheirCardWithItsFlagsSpelledOut) {
  const Reader found = theReader();
  EXPECT_EQ(found.name, Text{u"Reader A 00"});
  EXPECT_EQ(found.slotID, kSlot);
  EXPECT_EQ(found.tokenLabel, Text{u"TESTCARD"});
  EXPECT_EQ(found.serialNumber, Text{u"1234567890ABCDEF"});
  EXPECT_EQ(found.manufacturer, Text{u"Scripted cards"});
  EXPECT_EQ(found.model, Text{u"Script 1"});
  EXPECT_TRUE(found.tokenInitialised);
  EXPECT_FALSE(found.unreadable);
  EXPECT_THAT(found.slotFlags, ElementsAre("TOKEN_PRESENT", "REMOVABLE_DEVICE", "HW_SLOT"));
  EXPECT_THAT(found.tokenFlags,
              ElementsAre("RNG", "LOGIN_REQUIRED", "USER_PIN_INITIALIZED", "TOKEN_INITIALIZED"));
}

TEST_F(Readers, LoseBlanksAndZerosAtTheEndOfTexts) {
  setField(script.slot().info.slotDescription, "Reader with  blanks");
  script.slot().info.slotDescription[19] = 0;
  Card& card = script.card();
  setField(card.info.label, "");
  setField(card.info.model, " front");
  setField(card.info.manufacturerID, "A full field of thirty-two bytes");
  for (std::size_t i = 4; i < sizeof card.info.serialNumber; ++i) card.info.serialNumber[i] = 0;
  const Reader found = theReader();
  EXPECT_EQ(found.name, Text{u"Reader with  blanks"});
  EXPECT_EQ(found.tokenLabel, Text{u""});
  EXPECT_EQ(found.model, Text{u" front"});
  EXPECT_EQ(found.manufacturer, Text{u"A full field of thirty-two bytes"});
  EXPECT_EQ(found.serialNumber, Text{u"1234"});
}

TEST_F(Readers, KeepEveryOtherByteOfATextAsACharacter) {
  setField(script.slot().info.slotDescription, "L\xE4ser \x01");
  script.slot().info.slotDescription[2] = 0;
  const Reader found = theReader();
  using namespace std::string_view_literals;
  EXPECT_EQ(found.name.units(), u"L\u00E4\0er \u0001"sv);
}

TEST_F(Readers, TellACardThatIsNotInitialised) {
  script.card().info.flags = CKF_RNG;
  const Reader found = theReader();
  EXPECT_FALSE(found.tokenInitialised);
  EXPECT_FALSE(found.unreadable);
}

// ---- Which readers there are ----

TEST_F(Readers, AreThoseWithACardInTheModulesOrder) {
  script.addSlot("Empty");
  script.addSlot("Reader C", emptyCard("C", "3"));
  script.addSlot("Reader B", emptyCard("B", "2"));
  EXPECT_THAT(namesOf(readers()), ElementsAre(Text{u"Reader A 00"}, Text{u"Reader C"}, Text{u"Reader B"}));
}

TEST_F(Readers, MayBeNoneOrMoreThanTen) {
  script.pullCard();
  EXPECT_THAT(readers(), IsEmpty());
  for (int i = 0; i < 15; ++i) script.addSlot("Reader " + std::to_string(i), emptyCard("C", "1"));
  const auto found = readers();
  ASSERT_EQ(found.size(), 15U);
  EXPECT_EQ(found.back().name, Text{u"Reader 14"});
}

TEST_F(Readers, CanBeAskedForTwiceAndOpenNoSession) {
  EXPECT_EQ(readers().size(), 1U);
  EXPECT_EQ(readers().size(), 1U);
  EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
}

TEST_F(Readers, CanBeNarrowedDownToOne) {
  script.addSlot("Reader B", emptyCard("B", "2"));
  EXPECT_THAT(namesOf(readers(Text{u"Reader B"})), ElementsAre(Text{u"Reader B"}));
  EXPECT_EQ(failureOf(host.readers(Text{u"Reader Z"})).kind, FailureKind::kNoCard);
}

TEST_F(Readers, AreListedAgainWhenOneAppearsWhileTheyAreCounted) {
  int calls = 0;
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>([&](auto real, auto present, auto* list, auto* count) {
    if (++calls == 2) script.addSlot("Reader B", emptyCard("B", "2"));
    return real(present, list, count);
  });
  EXPECT_THAT(namesOf(readers()), ElementsAre(Text{u"Reader A 00"}, Text{u"Reader B"}));
}

// ---- Readers that are not all right ----

TEST_F(Readers, AreListedWithAProblemWhenTheirInformationCannotBeRead) {
  script.addSlot("Reader B", emptyCard("B", "2"));
  script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR);
  const auto found = readers();
  ASSERT_EQ(found.size(), 2U);
  ASSERT_TRUE(found[0].unreadable);
  EXPECT_THAT(found[0].unreadable->why, StartsWith("C_GetSlotInfo answered CKR_DEVICE_ERROR (0x30)"));
  EXPECT_FALSE(found[0].tokenInitialised);
  EXPECT_EQ(found[1].name, Text{u"Reader B"});
  EXPECT_FALSE(found[1].unreadable);
}

TEST_F(Readers, AreListedWithAProblemWhenTheirCardCannotBeRead) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED);
  const Reader found = theReader();
  EXPECT_EQ(found.name, Text{u"Reader A 00"});
  ASSERT_TRUE(found.unreadable);
  EXPECT_THAT(found.unreadable->why, StartsWith("C_GetTokenInfo answered CKR_TOKEN_NOT_RECOGNIZED (0xE1)"));
  EXPECT_FALSE(found.tokenInitialised);
}

TEST_F(Readers, SurviveInformationThatIsNotWritten) {
  script.deviations.silent = {"C_GetSlotInfo", "C_GetTokenInfo"};
  const Reader found = theReader();
  EXPECT_EQ(found.name, Text{u""});
  EXPECT_FALSE(found.tokenInitialised);
}

// ---- Modules that cannot count ----

TEST_F(Readers, SurviveAnAbsurdCount) {
  script.deviations.slotCountOnQuery = CK_ULONG{1} << 60U;
  const Failure failure = failureOf(host.readers());
  EXPECT_EQ(failure.kind, FailureKind::kModuleRefuses);
  EXPECT_THAT(failure.why, HasSubstr("C_GetSlotList"));
}

TEST_F(Readers, SurviveAListThatIsSaidToBeAbsurdlyLong) {
  for (const CK_ULONG claimed : {CK_ULONG{2}, CK_ULONG{12}, CK_ULONG{1} << 60U, ~CK_ULONG{0}}) {
    SCOPED_TRACE(claimed);
    script.deviations.slotCountOnList = claimed;
    EXPECT_THAT(namesOf(readers()), ElementsAre(Text{u"Reader A 00"}));
  }
}

TEST_F(Readers, SurviveAListThatIsShorterThanCounted) {
  script.addSlot("Reader B", emptyCard("B", "2"));
  script.deviations.slotCountOnList = 1;
  EXPECT_THAT(namesOf(readers()), ElementsAre(Text{u"Reader A 00"}));
}

TEST_F(Readers, SurviveAListThatIsNotWritten) {
  script.deviations.slotCountOnQuery = 3;
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>([](auto real, auto present, auto* list, auto* count) {
    return list ? CKR_OK : real(present, list, count);
  });
  for (const Reader& reader : readers()) EXPECT_FALSE(reader.tokenInitialised);
}

TEST_F(Readers, GiveUpWhenTheListKeepsGrowing) {
  script.failCallOf("C_GetSlotList", 1, CKR_BUFFER_TOO_SMALL, Times::kFromThenOn);
  const Failure failure = failureOf(host.readers());
  EXPECT_EQ(failure.kind, FailureKind::kModuleRefuses);
  EXPECT_THAT(failure.why, StartsWith("C_GetSlotList answered CKR_BUFFER_TOO_SMALL (0x150)"));
  script.setInitialised(true);
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>([](auto real, auto present, auto* list, auto* count) {
    return list ? CKR_BUFFER_TOO_SMALL : real(present, list, count);
  });
  EXPECT_THAT(failureOf(host.readers()).why,
              StartsWith("C_GetSlotList answered CKR_BUFFER_TOO_SMALL (0x150)"));
}

}  // namespace
}  // namespace mirel::test
