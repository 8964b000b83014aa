#include "FailureDiary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "bridge/BridgeOperation.h"
#include "support/RecordingObserver.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;

constexpr std::uint64_t kOk = 0;
constexpr std::uint64_t kFunctionFailed = 0x6;
constexpr std::uint64_t kDeviceError = 0x30;
constexpr std::uint64_t kSessionCount = 0xB1;
constexpr std::uint64_t kSessionHandleInvalid = 0xB3;
constexpr std::uint64_t kReadAgain = 0x80000000;

class Diary : public ::testing::Test {
 protected:
  void call(const char* function, std::uint64_t result) {
    diary->callStarts(function);
    diary->callReturned(function, result);
  }

  const std::shared_ptr<RecordingObserver> next = std::make_shared<RecordingObserver>();
  const std::shared_ptr<FailureDiary> diary = std::make_shared<FailureDiary>(next);
};

TEST_F(Diary, IsEmptyAtFirst) {
  EXPECT_FALSE(diary->failedOperation());
  EXPECT_FALSE(diary->failedCall());
  EXPECT_EQ(diary->loaderText(), std::nullopt);
  EXPECT_EQ(diary->reason(), std::nullopt);
}

TEST_F(Diary, KeepsTheCallAndTheOperationThatItMadeFail) {
  call("C_GetTokenInfo", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_GetTokenInfo, kDeviceError);
  ASSERT_TRUE(diary->failedOperation());
  EXPECT_EQ(diary->failedOperation()->name, "pkcs11_GetTokenInfo");
  EXPECT_EQ(diary->failedOperation()->result, kDeviceError);
  ASSERT_TRUE(diary->failedCall());
  EXPECT_EQ(diary->failedCall()->name, "C_GetTokenInfo");
  EXPECT_EQ(diary->failedCall()->result, kDeviceError);
  EXPECT_EQ(diary->reason(), "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)");
}

TEST_F(Diary, HasAPageForEachThread) {
  call("C_GetTokenInfo", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_GetTokenInfo, kDeviceError);
  std::thread{[this] {
    EXPECT_EQ(diary->reason(), std::nullopt);
    EXPECT_FALSE(diary->lastResultOf("C_GetTokenInfo"));
    call("C_Login", 0xA0);
    diary->operationReturned(BridgeOperation::pkcs11_UserLogin, 0xA0);
    EXPECT_EQ(diary->reason(), "C_Login answered CKR_PIN_INCORRECT (0xA0)");
    diary->clear();
  }}.join();
  EXPECT_EQ(diary->reason(), "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)");
  EXPECT_FALSE(diary->lastResultOf("C_Login"));
}

TEST_F(Diary, KeepsTheInnermostOperation) {
  call("C_GetSlotList", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_C_GetSlotList, kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_FindSlot, kDeviceError);
  EXPECT_EQ(diary->failedOperation()->name, "pkcs11_C_GetSlotList");
  EXPECT_EQ(diary->reason(), "C_GetSlotList answered CKR_DEVICE_ERROR (0x30)");
}

TEST_F(Diary, NamesTheOperationWhenTheBridgeItselfIsNotContent) {
  call("C_GetAttributeValue", kOk);
  diary->operationReturned(BridgeOperation::pkcs11_getObjsAttriValue, 0x13);
  EXPECT_FALSE(diary->failedCall());
  EXPECT_EQ(diary->reason(), "pkcs11_getObjsAttriValue ended with CKR_ATTRIBUTE_VALUE_INVALID (0x13)");
}

TEST_F(Diary, DoesNotBlameACallWhoseFailureDidNotMatter) {
  call("C_OpenSession", kSessionCount);
  call("C_GetTokenInfo", kOk);
  diary->operationReturned(BridgeOperation::pkcs11_GetTokenInfo, kFunctionFailed);
  EXPECT_FALSE(diary->failedCall());
  EXPECT_EQ(diary->reason(), "pkcs11_GetTokenInfo ended with CKR_FUNCTION_FAILED (0x6)");
}

TEST_F(Diary, KnowsTheCodeOfASecondRead) {
  call("C_GetAttributeValue", kOk);
  call("C_GetAttributeValue", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_getObjsAttriValue, kReadAgain | kDeviceError);
  ASSERT_TRUE(diary->failedCall());
  EXPECT_EQ(diary->failedOperation()->result, kReadAgain | kDeviceError);
  EXPECT_EQ(diary->reason(), "C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)");
}

TEST_F(Diary, ForgetsAFailureWhenAnOperationSucceeds) {
  call("C_GetTokenInfo", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_GetTokenInfo, kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_FindSlot, kOk);
  EXPECT_FALSE(diary->failedOperation());
  EXPECT_FALSE(diary->failedCall());
  EXPECT_EQ(diary->reason(), std::nullopt);
}

TEST_F(Diary, ForgetsACallWhoseOperationSucceedsAllTheSame) {
  call("C_CloseSession", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_GetTokenInfo, kOk);
  EXPECT_EQ(diary->reason(), std::nullopt);
}

TEST_F(Diary, KeepsTheFirstFailureWithItsOwnCall) {
  call("C_OpenSession", kSessionCount);
  diary->operationReturned(BridgeOperation::pkcs11_OpenReadOnlySession, kSessionCount);
  call("C_FindObjectsInit", kSessionHandleInvalid);
  diary->operationReturned(BridgeOperation::pkcs11_FindObjects, kSessionHandleInvalid);
  EXPECT_EQ(diary->failedOperation()->name, "pkcs11_OpenReadOnlySession");
  ASSERT_TRUE(diary->failedCall());
  EXPECT_EQ(diary->failedCall()->name, "C_OpenSession");
  EXPECT_EQ(diary->reason(), "C_OpenSession answered CKR_SESSION_COUNT (0xB1)");
}

TEST_F(Diary, NamesACallOutsideOfOperations) {
  call("C_GetFunctionList", kDeviceError);
  EXPECT_EQ(diary->reason(), "C_GetFunctionList answered CKR_DEVICE_ERROR (0x30)");
}

TEST_F(Diary, NamesACodeThatTheStandardDoesNotKnow) {
  call("C_Login", 0x80001234);
  diary->operationReturned(BridgeOperation::pkcs11_UserLogin, 0x80001234);
  EXPECT_EQ(diary->reason(), "C_Login answered 0x80001234");
}

TEST_F(Diary, CanBeCleared) {
  call("C_GetTokenInfo", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_GetTokenInfo, kDeviceError);
  diary->loaderFailed("no such file");
  diary->clear();
  EXPECT_FALSE(diary->failedOperation());
  EXPECT_FALSE(diary->failedCall());
  EXPECT_EQ(diary->loaderText(), std::nullopt);
  EXPECT_EQ(diary->reason(), std::nullopt);
}

// ---- What was answered last ----

TEST_F(Diary, KnowsNoAnswerOfWhatWasNotCalled) {
  call("C_GetSessionInfo", kOk);
  EXPECT_EQ(diary->lastResultOf("C_Login"), std::nullopt);
  EXPECT_EQ(diary->lastResultOf(""), std::nullopt);
}

TEST_F(Diary, KnowsTheLastAnswerOfAFunction) {
  call("C_Login", kDeviceError);
  EXPECT_EQ(diary->lastResultOf("C_Login"), kDeviceError);
  call("C_Login", kOk);
  EXPECT_EQ(diary->lastResultOf("C_Login"), kOk);
}

TEST_F(Diary, KnowsTheLastAnswerOfAnOperation) {
  diary->operationReturned(BridgeOperation::pkcs11_UserLogin, kOk);
  EXPECT_EQ(diary->lastResultOf(BridgeOperation::pkcs11_UserLogin), kOk);
  diary->operationReturned(BridgeOperation::pkcs11_UserLogin, kFunctionFailed);
  EXPECT_EQ(diary->lastResultOf(BridgeOperation::pkcs11_UserLogin), kFunctionFailed);
}

TEST_F(Diary, KeepsAnAnswerWhenAnOperationSucceedsAfterIt) {
  call("C_Login", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_UserLogin, kDeviceError);
  call("C_GetSessionInfo", kOk);
  diary->operationReturned(BridgeOperation::pkcs11_GetSessionInfo, kOk);
  EXPECT_EQ(diary->lastResultOf("C_Login"), kDeviceError);
}

TEST_F(Diary, KnowsNoAnswerOfACallThatHasNotEnded) {
  diary->callStarts("C_Login");
  EXPECT_EQ(diary->lastResultOf("C_Login"), std::nullopt);
}

TEST_F(Diary, ForgetsAnswersWhenCleared) {
  call("C_Login", kOk);
  diary->operationReturned(BridgeOperation::pkcs11_UserLogin, kOk);
  diary->clear();
  EXPECT_EQ(diary->lastResultOf("C_Login"), std::nullopt);
  EXPECT_EQ(diary->lastResultOf(BridgeOperation::pkcs11_UserLogin), std::nullopt);
}

TEST_F(Diary, PassesEverythingOn) {
  using Kind = RecordingObserver::Event::Kind;
  call("C_Login", kDeviceError);
  diary->operationReturned(BridgeOperation::pkcs11_UserLogin, kDeviceError);
  EXPECT_THAT(
      next->events,
      ElementsAre(RecordingObserver::Event{Kind::kCallStarts, "C_Login", 0},
                  RecordingObserver::Event{Kind::kCallReturned, "C_Login", kDeviceError},
                  RecordingObserver::Event{Kind::kOperationReturned, "pkcs11_UserLogin", kDeviceError}));
}

TEST_F(Diary, DoesWithoutAnotherObserver) {
  FailureDiary alone{nullptr};
  alone.callStarts("C_Login");
  alone.callReturned("C_Login", kDeviceError);
  alone.operationReturned(BridgeOperation::pkcs11_UserLogin, kDeviceError);
  EXPECT_EQ(alone.reason(), "C_Login answered CKR_DEVICE_ERROR (0x30)");
}

// ---- The loader ----

/// A loader that always fails, with words or without.
class FailingLoader final : public DynamicLoader {
 public:
  explicit FailingLoader(std::string text) : text_{std::move(text)} {}
  [[nodiscard]] void* open(const char*) noexcept override { return nullptr; }
  [[nodiscard]] void* symbol(void*, const char*) noexcept override { return nullptr; }
  bool close(void*) noexcept override { return false; }
  [[nodiscard]] std::string errorText() noexcept override { return text_; }

 private:
  std::string text_;
};

TEST_F(Diary, KeepsTheLoadersWordsForALibrary) {
  const auto loader = loaderWithDiary(std::make_shared<FailingLoader>("bad library"), diary);
  EXPECT_EQ(loader->open("/a/module"), nullptr);
  EXPECT_EQ(diary->loaderText(), "bad library");
  EXPECT_EQ(diary->reason(), "bad library");
}

TEST_F(Diary, KeepsTheLoadersWordsForASymbol) {
  const auto loader = loaderWithDiary(std::make_shared<FailingLoader>("bad symbol"), diary);
  EXPECT_EQ(loader->symbol(this, "C_GetFunctionList"), nullptr);
  EXPECT_EQ(diary->loaderText(), "bad symbol");
}

TEST_F(Diary, NamesWhatALoaderWithoutWordsCouldNotFind) {
  const auto loader = loaderWithDiary(std::make_shared<FailingLoader>(""), diary);
  EXPECT_EQ(loader->open("/a/module"), nullptr);
  EXPECT_EQ(diary->loaderText(), "/a/module: not found");
}

TEST_F(Diary, WritesNothingOfALoaderThatSucceeds) {
  const auto loader = loaderWithDiary(systemDynamicLoader(), diary);
  void* const library = loader->open("libc.so.6");
  ASSERT_NE(library, nullptr);
  EXPECT_NE(loader->symbol(library, "strlen"), nullptr);
  EXPECT_TRUE(loader->close(library));
  EXPECT_EQ(diary->loaderText(), std::nullopt);
}

}  // namespace
}  // namespace mirel::test
