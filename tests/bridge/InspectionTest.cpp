/// What stands beside the token's road: the calls by which a host looks at readers and cards.

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// Makes every call once and expects that answer; the objects and the length that the calls have given.
std::pair<std::vector<CK_OBJECT_HANDLE>, CK_ULONG> inspectAll(P11Bridge& bridge, CK_RV answer) {
  std::vector<CK_SLOT_ID> slots;
  std::vector<CK_OBJECT_HANDLE> objects;
  CK_SLOT_INFO slot{};
  CK_TOKEN_INFO token{};
  CK_SESSION_HANDLE opened = 0;
  CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
  EXPECT_EQ(bridge.inspectSlots(true, slots), answer);
  EXPECT_EQ(bridge.inspectSlot(kSlot, slot), answer);
  EXPECT_EQ(bridge.inspectToken(kSlot, token), answer);
  EXPECT_EQ(bridge.openInspection(kSlot, opened), answer);
  EXPECT_EQ(bridge.inspectObjects(opened, CKO_CERTIFICATE, objects).result, answer);
  EXPECT_EQ(bridge.inspectAttributes(opened, kPublicKey, {&attribute, 1}), answer);
  bridge.closeInspection(opened);
  return {objects, attribute.ulValueLen};
}

class InspectionUnloaded : public UnloadedBridgeTest {};

TEST_F(InspectionUnloaded, AnswersThatThereIsNoFunctionList) {
  EXPECT_FALSE(bridge.hasModule());
  EXPECT_EQ(bridge.listVersion().major, 0);
  (void)inspectAll(bridge, CKR_CRYPTOKI_NOT_INITIALIZED);
}

class Inspection : public SessionTest {
 protected:
  std::vector<CK_SLOT_ID> slots;
  std::vector<CK_OBJECT_HANDLE> objects;
};

TEST_F(Inspection, NamesTheFunctionsThatTheListLacks) {
  EXPECT_THAT(bridge.missingEntries(), IsEmpty());
  script.removeEntry("C_Decrypt");
  script.removeEntry("C_DigestInit");  // never called
  EXPECT_THAT(bridge.missingEntries(), ElementsAre(::testing::StrEq("C_Decrypt")));
}

TEST_F(Inspection, HasAnObserverOfItsOwn) {
  PlatformServices mine = services();
  const auto own = std::make_shared<RecordingObserver>();
  mine.inspectionObserver = own;
  P11Bridge other{mine};
  ASSERT_TRUE(other.pkcs11_Load(Text{}));
  const auto before = observer->events;
  EXPECT_EQ(other.inspectSlots(true, slots), CKR_OK);
  EXPECT_EQ(own->events.size(), 4U);  // two calls
  EXPECT_EQ(own->events.front().name, "C_GetSlotList");
  EXPECT_EQ(observer->events, before);
}

TEST_F(Inspection, IsCallsThatTheObserverIsNotToldOf) {
  EXPECT_TRUE(bridge.hasModule());
  EXPECT_EQ(bridge.listVersion().major, 2);
  EXPECT_EQ(bridge.listVersion().minor, 40);
  const auto [found, length] = inspectAll(bridge, CKR_OK);
  EXPECT_THAT(found, ElementsAre(kCertificate));
  EXPECT_EQ(length, 2U);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotList(1, null, 0)", "C_GetSlotList(1, list, 1)", "C_GetSlotInfo(1)",
                          "C_GetTokenInfo(1)", "C_OpenSession(1, 4, null, null)",
                          "C_FindObjectsInit(6, [CKA_CLASS=0100000000000000])", "C_FindObjects(6, 1)",
                          "C_FindObjects(6, 1)", "C_FindObjectsFinal(6)",
                          "C_GetAttributeValue(6, 21, [CKA_ID null 0])", "C_CloseSession(6)"));
  EXPECT_THAT(observer->events, IsEmpty());
}

TEST_F(Inspection, AnswersForAFunctionThatIsMissing) {
  script.removeEntry("C_GetTokenInfo");
  CK_TOKEN_INFO token{};
  EXPECT_EQ(bridge.inspectToken(kSlot, token), CKR_FUNCTION_NOT_SUPPORTED);
}

// ---- Slots ----

TEST_F(Inspection, ListsMoreSlotsThanTheTokensRoadDoes) {
  for (CK_ULONG i = 0; i < kAnnouncedSlots; ++i) script.addSlot("Reader");
  EXPECT_EQ(bridge.inspectSlots(true, slots), CKR_OK);
  EXPECT_THAT(slots, ElementsAre(kSlot));
  EXPECT_EQ(bridge.inspectSlots(false, slots), CKR_OK);
  EXPECT_THAT(slots, SizeIs(kAnnouncedSlots + 1));
}

TEST_F(Inspection, DoesNotBelieveInMoreSlotsThanTheLimit) {
  script.deviations.slotCountOnQuery = kMaxSlots;
  EXPECT_EQ(bridge.inspectSlots(true, slots), CKR_OK);
  script.deviations.slotCountOnQuery = kMaxSlots + 1;
  script.forgetCalls();
  EXPECT_EQ(bridge.inspectSlots(true, slots), CKR_HOST_MEMORY);
  EXPECT_THAT(script.callTexts(), SizeIs(1));
}

TEST_F(Inspection, TakesNoMoreSlotsThanThereIsRoomFor) {
  script.deviations.slotCountOnList = kAllOnes;
  EXPECT_EQ(bridge.inspectSlots(true, slots), CKR_OK);
  EXPECT_THAT(slots, ElementsAre(kSlot));
}

TEST_F(Inspection, ListsTheSlotsThreeTimesAtMost) {
  script.failCallOf("C_GetSlotList", 1, CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(bridge.inspectSlots(true, slots), CKR_OK);
  EXPECT_EQ(script.countOf("C_GetSlotList"), 4U);
  script.hook<&CK_FUNCTION_LIST::C_GetSlotList>([](auto real, auto present, auto* list, auto* count) {
    return list ? CKR_BUFFER_TOO_SMALL : real(present, list, count);
  });
  script.forgetCalls();
  EXPECT_EQ(bridge.inspectSlots(true, slots), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(script.countOf("C_GetSlotList"), 6U);
}

TEST_F(Inspection, LeavesZerosOfASlotThatCannotBeRead) {
  CK_SLOT_INFO slot{};
  slot.flags = kAllOnes;
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto, CK_SLOT_ID, CK_SLOT_INFO* info) {
    info->slotDescription[0] = 'x';
    return kSomeFailure;
  });
  EXPECT_EQ(bridge.inspectSlot(kSlot, slot), kSomeFailure);
  EXPECT_EQ(slot.flags, 0U);
  EXPECT_EQ(slot.slotDescription[0], 0);
}

TEST_F(Inspection, ReadsATokenOnceMoreThatWasJustPutBack) {
  CK_TOKEN_INFO token{};
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED);
  EXPECT_EQ(bridge.inspectToken(kSlot, token), CKR_OK);
  EXPECT_EQ(token.label[0], 'T');
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  script.forgetCalls();
  EXPECT_EQ(bridge.inspectToken(kSlot, token), CKR_DEVICE_REMOVED);
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 2U);
}

// ---- Objects ----

TEST_F(Inspection, FindsAsManyObjectsAsAreListedOfACard) {
  script.deviations.endlessSearches = true;
  EXPECT_EQ(bridge.inspectObjects(session, CKO_CERTIFICATE, objects).result, CKR_OK);
  EXPECT_THAT(objects, SizeIs(kMaxListedObjects));
  EXPECT_EQ(script.countOf("C_FindObjects"), kMaxListedObjects);
}

TEST_F(Inspection, FindsNoMoreObjectsThanWereAskedFor) {
  script.deviations.endlessSearches = true;
  EXPECT_EQ(bridge.inspectObjects(session, CKO_CERTIFICATE, objects, 3).result, CKR_OK);
  EXPECT_THAT(objects, SizeIs(3));
}

TEST_F(Inspection, TellsTheStateOfTheSession) {
  CK_SESSION_INFO info{};
  script.card().loggedIn = true;
  EXPECT_EQ(bridge.inspectSession(session, info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RO_USER_FUNCTIONS);
  script.failCallOf("C_GetSessionInfo", 0, kSomeFailure);
  EXPECT_EQ(bridge.inspectSession(session, info), kSomeFailure);
  EXPECT_EQ(info.state, 0U);
}

TEST_F(Inspection, NamesTheCallByWhichASearchFails) {
  const struct {
    const char* function;
    std::size_t n;  ///< the call of it that fails
  } rows[] = {{"C_FindObjectsInit", 0}, {"C_FindObjects", 1}};
  for (const auto& row : rows) {
    script.failCallOf(row.function, row.n, kSomeFailure);
    const auto answer = bridge.inspectObjects(session, CKO_CERTIFICATE, objects);
    EXPECT_STREQ(answer.function, row.function);
    EXPECT_EQ(answer.result, kSomeFailure);
    EXPECT_EQ(script.countOf("C_FindObjectsFinal"), row.n);
  }
  EXPECT_THAT(objects, ElementsAre(kCertificate));
}

}  // namespace
}  // namespace mirel::test
