/// The scripted module itself: that it is hostile exactly as told. All other tests need it to be honest else.

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

  void open() {
    EXPECT_EQ(module->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
  }
  CK_RV login(std::string_view pin) {
    Value bytes = bytesOf(pin);
    return module->C_Login(session, CKU_USER, bytes.data(), bytes.size());
  }
  std::vector<CK_OBJECT_HANDLE> findAll() {
    EXPECT_EQ(module->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    std::vector<CK_OBJECT_HANDLE> found(50);
    CK_ULONG count = 0;
    EXPECT_EQ(module->C_FindObjects(session, found.data(), found.size(), &count), CKR_OK);
    EXPECT_EQ(module->C_FindObjectsFinal(session), CKR_OK);
    found.resize(count);
    return found;
  }

  /// Begins to sign with a session that is logged in.
  void signInit() {
    CK_MECHANISM mechanism{CKM_RSA_X_509, nullptr, 0};
    script.card().loggedIn = true;
    EXPECT_EQ(module->C_SignInit(session, &mechanism, kPrivateKey), CKR_OK);
  }
  CK_RV sign() { return module->C_Sign(session, data.data(), data.size(), output.data(), &length); }

  Script& script = scriptedModule();
  CK_FUNCTION_LIST* module = scriptedFunctions();
  CK_SESSION_HANDLE session = 0;
  Value data = patternValue(32, 1);
  std::array<CK_BYTE, 600> output{};
  CK_ULONG length = 600;
};

TEST_F(ScriptedModuleTest, ReadsAttributesAsTheStandardSays) {
  open();
  (void)login("123456");
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

TEST_F(ScriptedModuleTest, FailsTheCallItIsToldTo) {
  script.failCall(1, CKR_DEVICE_ERROR);
  open();
  EXPECT_EQ(login("123456"), CKR_DEVICE_ERROR);
  EXPECT_TRUE(script.fired());
  EXPECT_FALSE(script.card().loggedIn);
  EXPECT_EQ(login("123456"), CKR_OK);
}

TEST_F(ScriptedModuleTest, FailsFromThenOn) {
  script.failCallOf("C_GetInfo", 1, CKR_DEVICE_ERROR, Times::kFromThenOn);
  CK_INFO info{};
  EXPECT_EQ(module->C_GetInfo(&info), CKR_OK);
  EXPECT_FALSE(script.fired());
  open();
  EXPECT_EQ(module->C_GetInfo(&info), CKR_DEVICE_ERROR);
  EXPECT_EQ(module->C_GetInfo(&info), CKR_DEVICE_ERROR);
}

TEST_F(ScriptedModuleTest, ClaimsLengthsButStaysInTheRoom) {
  open();
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

  open();
  script.deviations.foundPerCall = 5;
  EXPECT_EQ(module->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
  std::array<CK_OBJECT_HANDLE, 2> found{};
  EXPECT_EQ(module->C_FindObjects(session, found.data(), 1, &count), CKR_OK);
  EXPECT_EQ(count, 5U);
  EXPECT_THAT(found, ElementsAre(kPublicKey, 0U));
}

TEST_F(ScriptedModuleTest, SearchesWithoutEnd) {
  open();
  script.deviations.endlessSearches = true;
  EXPECT_THAT(findAll(), ::testing::SizeIs(50));
  script.card().objects.clear();
  EXPECT_THAT(findAll(), ::testing::Each(999U));
}

TEST_F(ScriptedModuleTest, StaysSilent) {
  script.deviations.silent = {"C_GetInfo"};
  CK_INFO info{};
  EXPECT_EQ(module->C_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 0);
}

TEST_F(ScriptedModuleTest, EndsAnOperationThatIsMadeToFail) {
  open();
  signInit();
  script.failCall(0, CKR_DEVICE_ERROR);
  EXPECT_EQ(sign(), CKR_DEVICE_ERROR);
  EXPECT_EQ(length, 600U);
  EXPECT_EQ(sign(), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(ScriptedModuleTest, ClaimsLengthsOfResultsButStaysInTheRoomAnnounced) {
  open();
  const struct {
    const char* name;
    Deviations::ClaimedResult claim;
    std::size_t written;
  } rows[] = {
      {"short", {3, std::nullopt}, 3},         {"nothing", {0, std::nullopt}, 0},
      {"beyond the room", {600, 301}, 300},    {"beyond any room", {1UL << 40U, std::nullopt}, 300},
      {"long, little written", {300, 10}, 10}, {"all-ones", {~CK_ULONG{0}, 0}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.deviations.claimedResults["C_Sign"] = row.claim;
    signInit();
    output.fill(0x11);
    length = 300;
    EXPECT_EQ(sign(), CKR_OK);
    EXPECT_EQ(length, row.claim.length);
    Value expected = resultOf(CKM_RSA_X_509, data, std::min<std::size_t>(row.written, 256));
    expected.resize(row.written, 0xEE);
    expected.resize(output.size(), 0x11);
    EXPECT_EQ(Value(output.begin(), output.end()), expected);
    EXPECT_TRUE(script.openOperations().empty());
  }
}

TEST_F(ScriptedModuleTest, OverwritesTheLengthWhenItFails) {
  open();
  script.deviations.lengthsOnFailure = {{"C_Sign", 1024}, {"C_Decrypt", 5000}};
  EXPECT_EQ(sign(), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(length, 1024U);
  script.failCall(0, CKR_DEVICE_ERROR);
  EXPECT_EQ(module->C_Decrypt(session, data.data(), data.size(), output.data(), &length), CKR_DEVICE_ERROR);
  EXPECT_EQ(length, 5000U);
  length = 600;
  signInit();
  EXPECT_EQ(sign(), CKR_OK);
  EXPECT_EQ(length, 256U);
}

}  // namespace
}  // namespace mirel::test
