/// The scripted module itself: that it is honest when it is left alone, and hostile exactly as told.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "module/Script.h"
#include "support/ScriptedModule.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_ULONG kAllOnes = ~CK_ULONG{0};

class ScriptedModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    script.reset();
    ASSERT_NE(module, nullptr);
    ASSERT_EQ(module->C_Initialize(nullptr), CKR_OK);
    script.forgetCalls();
  }
  void TearDown() override { script.reset(); }

  CK_SESSION_HANDLE open() {
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(module->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    return session;
  }
  CK_RV login(CK_SESSION_HANDLE session, std::string_view pin) {
    Value bytes = bytesOf(pin);
    return module->C_Login(session, CKU_USER, bytes.data(), bytes.size());
  }
  std::vector<CK_OBJECT_HANDLE> findAll(CK_SESSION_HANDLE session) {
    EXPECT_EQ(module->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    std::vector<CK_OBJECT_HANDLE> found(50);
    CK_ULONG count = 0;
    EXPECT_EQ(module->C_FindObjects(session, found.data(), found.size(), &count), CKR_OK);
    EXPECT_EQ(module->C_FindObjectsFinal(session), CKR_OK);
    found.resize(count);
    return found;
  }

  Script& script = scriptedModule();
  CK_FUNCTION_LIST* module = scriptedFunctions();
};

TEST_F(ScriptedModuleTest, HasAnEntryForEveryFunction) {
  std::array<void*, AllFunctions::kCount + 1> words{};
  static_assert(sizeof words == sizeof *module);
  std::copy_n(reinterpret_cast<void* const*>(module), words.size(), words.begin());
  EXPECT_EQ(std::count(words.begin() + 1, words.end(), nullptr), 0);
}

TEST_F(ScriptedModuleTest, NeedsToBeInitialisedAndLosesItsSessionsWhenItIsFinalised) {
  EXPECT_EQ(module->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  (void)open();
  EXPECT_EQ(module->C_Finalize(nullptr), CKR_OK);
  EXPECT_THAT(script.openSessions(), IsEmpty());
  CK_ULONG count = 0;
  EXPECT_EQ(module->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(module->C_CloseSession(5), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(ScriptedModuleTest, ListsSlotsByTheSizeRule) {
  script.addSlot("Empty");
  CK_ULONG count = 0;
  EXPECT_EQ(module->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(module->C_GetSlotList(CK_FALSE, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 2U);
  std::array<CK_SLOT_ID, 2> list{};
  count = 1;
  EXPECT_EQ(module->C_GetSlotList(CK_FALSE, list.data(), &count), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(list[0], 0U);
  EXPECT_EQ(module->C_GetSlotList(CK_FALSE, list.data(), &count), CKR_OK);
  EXPECT_THAT(list, ElementsAre(1U, 2U));
}

TEST_F(ScriptedModuleTest, KnowsItsSessionsAndLogsOutWithTheLast) {
  const CK_SESSION_HANDLE first = open();
  const CK_SESSION_HANDLE second = open();
  EXPECT_EQ(first, kFirstSession);
  EXPECT_EQ(second, kFirstSession + 1);
  EXPECT_EQ(login(first, "123456"), CKR_OK);
  EXPECT_EQ(module->C_CloseSession(first), CKR_OK);
  EXPECT_EQ(module->C_CloseSession(first), CKR_SESSION_HANDLE_INVALID);
  EXPECT_THAT(script.openSessions(), ElementsAre(second));
  CK_SESSION_INFO info{};
  EXPECT_EQ(module->C_GetSessionInfo(second, &info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RO_USER_FUNCTIONS);
  EXPECT_EQ(module->C_CloseSession(second), CKR_OK);
  const CK_SESSION_HANDLE third = open();
  EXPECT_EQ(module->C_GetSessionInfo(third, &info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
}

TEST_F(ScriptedModuleTest, CountsWrongPins) {
  const CK_SESSION_HANDLE session = open();
  const auto flags = [&] {
    CK_TOKEN_INFO info{};
    EXPECT_EQ(module->C_GetTokenInfo(kSlot, &info), CKR_OK);
    return info.flags;
  };
  EXPECT_EQ(flags(), 0x40DU);
  EXPECT_EQ(login(session, "12345"), CKR_PIN_INCORRECT);
  EXPECT_EQ(flags(), 0x40DU | CKF_USER_PIN_COUNT_LOW);
  EXPECT_EQ(login(session, "1234567"), CKR_PIN_INCORRECT);
  EXPECT_EQ(flags(), 0x40DU | CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY);
  EXPECT_EQ(login(session, "000000"), CKR_PIN_INCORRECT);
  EXPECT_EQ(flags(), 0x40DU | CKF_USER_PIN_LOCKED);
  EXPECT_EQ(login(session, "123456"), CKR_PIN_LOCKED);
}

TEST_F(ScriptedModuleTest, ReportsTheTriesLeftWhenToldAndOnlyBeforeTheLogin) {
  const CK_SESSION_HANDLE session = open();
  const auto deviceError = [&] {
    CK_SESSION_INFO info{};
    EXPECT_EQ(module->C_GetSessionInfo(session, &info), CKR_OK);
    return info.ulDeviceError;
  };
  EXPECT_EQ(deviceError(), 0U);
  script.deviations.triesLeftAsDeviceError = true;
  EXPECT_EQ(deviceError(), 3U);
  EXPECT_EQ(login(session, "000000"), CKR_PIN_INCORRECT);
  EXPECT_EQ(deviceError(), 2U);
  EXPECT_EQ(login(session, "123456"), CKR_OK);
  EXPECT_EQ(deviceError(), 0U);
}

TEST_F(ScriptedModuleTest, ShowsPrivateObjectsAfterTheLogin) {
  const CK_SESSION_HANDLE session = open();
  EXPECT_THAT(findAll(session), ElementsAre(kPublicKey, kCertificate));
  CK_ATTRIBUTE id{CKA_ID, nullptr, 0};
  EXPECT_EQ(module->C_GetAttributeValue(session, kPrivateKey, &id, 1), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(login(session, "123456"), CKR_OK);
  EXPECT_THAT(findAll(session), ElementsAre(kPublicKey, kPrivateKey, kCertificate));
  EXPECT_EQ(module->C_GetAttributeValue(session, kPrivateKey, &id, 1), CKR_OK);
}

TEST_F(ScriptedModuleTest, AllowsOneSearchInASession) {
  const CK_SESSION_HANDLE session = open();
  EXPECT_EQ(module->C_FindObjectsFinal(session), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(module->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
  EXPECT_EQ(module->C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
  EXPECT_THAT(script.openSearches(), ElementsAre(session));
  EXPECT_EQ(module->C_FindObjectsFinal(session), CKR_OK);
  EXPECT_THAT(script.openSearches(), IsEmpty());
}

TEST_F(ScriptedModuleTest, ReadsAttributesAsTheStandardSays) {
  const CK_SESSION_HANDLE session = open();
  (void)login(session, "123456");
  CK_BYTE room[300];
  const struct {
    const char* name;
    CK_ATTRIBUTE attribute;
    CK_RV expected;
    CK_ULONG length;
  } rows[] = {
      {"length", {CKA_LABEL, nullptr, 0}, CKR_OK, 5},
      {"value", {CKA_LABEL, room, 5}, CKR_OK, 5},
      {"value in a large room", {CKA_MODULUS, room, 300}, CKR_OK, 256},
      {"too small a room", {CKA_LABEL, room, 4}, CKR_BUFFER_TOO_SMALL, kAllOnes},
      {"missing", {CKA_EC_POINT, room, 300}, CKR_ATTRIBUTE_TYPE_INVALID, kAllOnes},
      {"sensitive", {CKA_PRIVATE_EXPONENT, room, 300}, CKR_ATTRIBUTE_SENSITIVE, kAllOnes},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    CK_ATTRIBUTE attribute = row.attribute;
    EXPECT_EQ(module->C_GetAttributeValue(session, kPrivateKey, &attribute, 1), row.expected);
    EXPECT_EQ(attribute.ulValueLen, row.length);
  }
}

TEST_F(ScriptedModuleTest, ReadsTheOtherAttributesWhenOneFails) {
  const CK_SESSION_HANDLE session = open();
  CK_ATTRIBUTE attributes[] = {{CKA_EC_POINT, nullptr, 0}, {CKA_LABEL, nullptr, 0}};
  EXPECT_EQ(module->C_GetAttributeValue(session, kPublicKey, attributes, 2), CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(attributes[1].ulValueLen, 5U);
}

TEST_F(ScriptedModuleTest, LosesItsSessionsWithTheCard) {
  const CK_SESSION_HANDLE session = open();
  script.pullCard(kSlot, CKR_DEVICE_REMOVED);
  CK_SESSION_INFO info{};
  EXPECT_EQ(module->C_GetSessionInfo(session, &info), CKR_DEVICE_REMOVED);
  CK_TOKEN_INFO token{};
  EXPECT_EQ(module->C_GetTokenInfo(kSlot, &token), CKR_TOKEN_NOT_PRESENT);
  EXPECT_THAT(script.openSessions(), IsEmpty());
  script.insertCard(emptyCard("OTHER", "1"));
  EXPECT_EQ(module->C_GetTokenInfo(kSlot, &token), CKR_OK);
  EXPECT_EQ(token.label[0], 'O');
  EXPECT_EQ(module->C_GetSessionInfo(session, &info), CKR_DEVICE_REMOVED);
}

// ---- What it records ----

TEST_F(ScriptedModuleTest, WritesCallsDownWithTheirArgumentsAndResults) {
  const CK_SESSION_HANDLE session = open();
  CK_BYTE room[33];
  CK_ATTRIBUTE attributes[] = {
      {CKA_ID, nullptr, 0}, {CKA_LABEL, room, sizeof room}, {0x9999, nullptr, kAllOnes}};
  (void)module->C_GetAttributeValue(session, kPublicKey, attributes, 3);
  (void)module->C_VerifyInit(session, nullptr, 22);
  EXPECT_THAT(
      script.callTexts(),
      ElementsAre("C_OpenSession(1, 4, null, null)",
                  "C_GetAttributeValue(5, 21, [CKA_ID null 0, CKA_LABEL room 33, CKA 39321 null none])",
                  "C_VerifyInit(5, null, 22)"));
  EXPECT_EQ(script.calls()[0].result, CKR_OK);
  EXPECT_EQ(script.calls()[1].result, CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(script.calls()[2].result, CKR_FUNCTION_NOT_SUPPORTED);
}

// ---- Faults and deviations ----

TEST_F(ScriptedModuleTest, FailsTheCallItIsToldTo) {
  script.failCall(1, CKR_DEVICE_ERROR);
  EXPECT_EQ(login(open(), "123456"), CKR_DEVICE_ERROR);
  EXPECT_TRUE(script.fired());
  EXPECT_FALSE(script.card().loggedIn);
  EXPECT_EQ(login(kFirstSession, "123456"), CKR_OK);
}

TEST_F(ScriptedModuleTest, FailsFromThenOn) {
  script.failCallOf("C_GetInfo", 1, CKR_DEVICE_ERROR, Times::kFromThenOn);
  CK_INFO info{};
  EXPECT_EQ(module->C_GetInfo(&info), CKR_OK);
  EXPECT_FALSE(script.fired());
  (void)open();
  EXPECT_EQ(module->C_GetInfo(&info), CKR_DEVICE_ERROR);
  EXPECT_EQ(module->C_GetInfo(&info), CKR_DEVICE_ERROR);
}

TEST_F(ScriptedModuleTest, ClaimsLengthsButStaysInTheRoom) {
  const CK_SESSION_HANDLE session = open();
  script.deviations.claimedLengths[CKA_LABEL] = {std::nullopt, 7, 5000, kAllOnes};
  std::array<CK_BYTE, 10> room{};
  const auto read = [&] {
    CK_ATTRIBUTE attribute{CKA_LABEL, room.data(), 9};
    EXPECT_EQ(module->C_GetAttributeValue(session, kPublicKey, &attribute, 1), CKR_OK);
    return attribute.ulValueLen;
  };
  EXPECT_EQ(read(), 5U);
  EXPECT_EQ(read(), 7U);
  EXPECT_THAT(room, ElementsAre('M', 'y', 'K', 'e', 'y', 0xEE, 0xEE, 0, 0, 0));
  EXPECT_EQ(read(), 5000U);
  EXPECT_THAT(room, ElementsAre('M', 'y', 'K', 'e', 'y', 0xEE, 0xEE, 0xEE, 0xEE, 0));
  EXPECT_EQ(read(), kAllOnes);
  EXPECT_EQ(read(), kAllOnes);
}

TEST_F(ScriptedModuleTest, ClaimsSlotsAndHandlesButStaysInTheRoom) {
  script.deviations.slotCountOnQuery = 1UL << 60U;
  script.deviations.slotCountOnList = 12;
  CK_ULONG count = 0;
  EXPECT_EQ(module->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
  EXPECT_EQ(count, 1UL << 60U);
  std::array<CK_SLOT_ID, 2> list{};
  count = 1;
  EXPECT_EQ(module->C_GetSlotList(CK_TRUE, list.data(), &count), CKR_OK);
  EXPECT_EQ(count, 12U);
  EXPECT_THAT(list, ElementsAre(1U, 0U));

  const CK_SESSION_HANDLE session = open();
  script.deviations.foundPerCall = 5;
  EXPECT_EQ(module->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
  std::array<CK_OBJECT_HANDLE, 2> found{};
  EXPECT_EQ(module->C_FindObjects(session, found.data(), 1, &count), CKR_OK);
  EXPECT_EQ(count, 5U);
  EXPECT_THAT(found, ElementsAre(kPublicKey, 0U));
}

TEST_F(ScriptedModuleTest, SearchesWithoutEnd) {
  const CK_SESSION_HANDLE session = open();
  script.deviations.endlessSearches = true;
  EXPECT_THAT(findAll(session), ::testing::SizeIs(50));
  script.card().objects.clear();
  EXPECT_THAT(findAll(session), ::testing::Each(999U));
}

TEST_F(ScriptedModuleTest, LetsHooksDoTheWork) {
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto real, CK_SLOT_ID slot, CK_SLOT_INFO* info) {
    const CK_RV rv = real(slot, info);
    info->flags = 0x77;
    return rv;
  });
  CK_SLOT_INFO info{};
  EXPECT_EQ(module->C_GetSlotInfo(kSlot, &info), CKR_OK);
  EXPECT_EQ(info.flags, 0x77U);
  EXPECT_EQ(info.slotDescription[0], 'R');
}

TEST_F(ScriptedModuleTest, StaysSilent) {
  script.deviations.silent = {"C_GetInfo"};
  CK_INFO info{};
  EXPECT_EQ(module->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 0);
}

TEST_F(ScriptedModuleTest, LosesEntriesUntilTheNextReset) {
  script.removeEntry("C_DeriveKey");
  EXPECT_EQ(module->C_DeriveKey, nullptr);
  EXPECT_NE(module->C_UnwrapKey, nullptr);
  EXPECT_NE(module->C_SeedRandom, nullptr);
  script.reset();
  EXPECT_NE(module->C_DeriveKey, nullptr);
}

TEST_F(ScriptedModuleTest, ForgetsEverythingAtAReset) {
  (void)open();
  script.deviations.endlessSearches = true;
  script.failCall(0, CKR_DEVICE_ERROR);
  script.reset();
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_THAT(script.openSessions(), IsEmpty());
  EXPECT_FALSE(script.isInitialised());
  EXPECT_EQ(module->C_Initialize(nullptr), CKR_OK);
  EXPECT_FALSE(script.fired());
  EXPECT_EQ(open(), kFirstSession);
  EXPECT_THAT(findAll(kFirstSession), ElementsAre(kPublicKey, kCertificate));
}

}  // namespace
}  // namespace mirel::test
