#include "FailureDiary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

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

/// What the diary is told: a call, or an operation, that ended so.
struct Event {
  Event(const char* function, std::uint64_t answer) : name{function}, result{answer} {}
  Event(BridgeOperation ended, std::uint64_t code)
      : name{operationName(ended)}, operation{ended}, result{code} {}

  const char* name;
  std::optional<BridgeOperation> operation;
  std::uint64_t result;
};

class Diary : public ::testing::Test {
 protected:
  void tell(const std::vector<Event>& events) {
    for (const auto& [name, operation, result] : events) {
      if (operation) {
        diary->operationReturned(*operation, result);
      } else {
        diary->callStarts(name);
        diary->callReturned(name, result);
      }
    }
  }

  const std::shared_ptr<RecordingObserver> next = std::make_shared<RecordingObserver>();
  const std::shared_ptr<FailureDiary> diary = std::make_shared<FailureDiary>(next);
};

TEST_F(Diary, KeepsTheFirstFailureAndWhatItComesFrom) {
  using enum BridgeOperation;
  const struct {
    const char* what;
    std::vector<Event> events;
    std::pair<int, int> failed{-1, -1};  ///< which of them is the operation that failed, and which its call
    std::optional<std::string> reason{};
  } rows[] = {
      {"nothing has happened", {}},
      {"the operation fails with its call",
       {{"C_GetTokenInfo", kDeviceError}, {pkcs11_GetTokenInfo, kDeviceError}},
       {1, 0},
       "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)"},
      {"operations within each other",
       {{"C_GetSlotList", kDeviceError},
        {pkcs11_C_GetSlotList, kDeviceError},
        {pkcs11_FindSlot, kDeviceError}},
       {1, 0},
       "C_GetSlotList answered CKR_DEVICE_ERROR (0x30)"},
      {"the bridge itself is not content",
       {{"C_GetAttributeValue", kOk}, {pkcs11_getObjsAttriValue, 0x13}},
       {1, -1},
       "pkcs11_getObjsAttriValue ended with CKR_ATTRIBUTE_VALUE_INVALID (0x13)"},
      {"a call whose failure did not matter",
       {{"C_OpenSession", kSessionCount}, {"C_GetTokenInfo", kOk}, {pkcs11_GetTokenInfo, kFunctionFailed}},
       {2, -1},
       "pkcs11_GetTokenInfo ended with CKR_FUNCTION_FAILED (0x6)"},
      {"the code of a second read",
       {{"C_GetAttributeValue", kOk},
        {"C_GetAttributeValue", kDeviceError},
        {pkcs11_getObjsAttriValue, kReadAgain | kDeviceError}},
       {2, 1},
       "C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)"},
      {"an operation that succeeds later",
       {{"C_GetTokenInfo", kDeviceError}, {pkcs11_GetTokenInfo, kDeviceError}, {pkcs11_FindSlot, kOk}}},
      {"an operation that succeeds all the same",
       {{"C_CloseSession", kDeviceError}, {pkcs11_GetTokenInfo, kOk}}},
      {"a second failure",
       {{"C_OpenSession", kSessionCount},
        {pkcs11_OpenReadOnlySession, kSessionCount},
        {"C_FindObjectsInit", kSessionHandleInvalid},
        {pkcs11_FindObjects, kSessionHandleInvalid}},
       {1, 0},
       "C_OpenSession answered CKR_SESSION_COUNT (0xB1)"},
      {"a code that the standard does not know",
       {{"C_Login", 0x80001234}, {pkcs11_UserLogin, 0x80001234}},
       {1, 0},
       "C_Login answered 0x80001234"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    diary->clear();
    tell(row.events);
    const auto expectEvent = [&](const std::optional<FailedCall>& told, int number) {
      ASSERT_EQ(told.has_value(), number >= 0);
      if (!told) return;
      EXPECT_EQ(told->name, row.events[static_cast<std::size_t>(number)].name);
      EXPECT_EQ(told->result, row.events[static_cast<std::size_t>(number)].result);
    };
    expectEvent(diary->failedOperation(), row.failed.first);
    expectEvent(diary->failedCall(), row.failed.second);
    EXPECT_EQ(diary->reason(), row.reason);
  }
}

TEST_F(Diary, NamesACallOutsideOfOperations) {
  tell({{"C_GetFunctionList", kDeviceError}});
  EXPECT_EQ(diary->reason(), "C_GetFunctionList answered CKR_DEVICE_ERROR (0x30)");
}

TEST_F(Diary, CanBeCleared) {
  tell({{"C_GetTokenInfo", kDeviceError}, {BridgeOperation::pkcs11_GetTokenInfo, kDeviceError}});
  diary->loaderFailed("no such file");
  diary->clear();
  EXPECT_FALSE(diary->failedOperation());
  EXPECT_FALSE(diary->failedCall());
  EXPECT_EQ(diary->loaderText(), std::nullopt);
  EXPECT_EQ(diary->reason(), std::nullopt);
  EXPECT_EQ(diary->lastResultOf("C_GetTokenInfo"), std::nullopt);
  EXPECT_EQ(diary->lastResultOf(BridgeOperation::pkcs11_GetTokenInfo), std::nullopt);
}

TEST_F(Diary, HasAPageForEachThread) {
  tell({{"C_GetTokenInfo", kDeviceError}, {BridgeOperation::pkcs11_GetTokenInfo, kDeviceError}});
  std::thread{[this] {
    EXPECT_EQ(diary->reason(), std::nullopt);
    EXPECT_FALSE(diary->lastResultOf("C_GetTokenInfo"));
    tell({{"C_Login", 0xA0}, {BridgeOperation::pkcs11_UserLogin, 0xA0}});
    EXPECT_EQ(diary->reason(), "C_Login answered CKR_PIN_INCORRECT (0xA0)");
    diary->clear();
  }}.join();
  EXPECT_EQ(diary->reason(), "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)");
  EXPECT_FALSE(diary->lastResultOf("C_Login"));
}

// ---- What was answered last ----

TEST_F(Diary, KnowsTheLastAnswerOfEachCallAndOperation) {
  EXPECT_EQ(diary->lastResultOf("C_Login"), std::nullopt);
  diary->callStarts("C_Login");
  EXPECT_EQ(diary->lastResultOf("C_Login"), std::nullopt) << "the call has not ended";
  tell({{"C_Login", kOk}, {"C_Login", kDeviceError}, {BridgeOperation::pkcs11_UserLogin, kOk}});
  EXPECT_EQ(diary->lastResultOf(BridgeOperation::pkcs11_UserLogin), kOk);
  tell({{BridgeOperation::pkcs11_UserLogin, kFunctionFailed},
        {"C_GetSessionInfo", kOk},
        {BridgeOperation::pkcs11_GetSessionInfo, kOk}});
  EXPECT_EQ(diary->lastResultOf("C_Login"), kDeviceError);
  EXPECT_EQ(diary->lastResultOf(BridgeOperation::pkcs11_UserLogin), kFunctionFailed);
}

TEST_F(Diary, PassesEverythingOn) {
  using Kind = RecordingObserver::Event::Kind;
  tell({{"C_Login", kDeviceError}, {BridgeOperation::pkcs11_UserLogin, kDeviceError}});
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

TEST_F(Diary, KeepsTheLoadersWords) {
  const auto loader = loaderWithDiary(std::make_shared<FailingLoader>("bad library"), diary);
  EXPECT_EQ(loader->open("/a/module"), nullptr);
  EXPECT_EQ(diary->loaderText(), "bad library");
  EXPECT_EQ(diary->reason(), "bad library");
  diary->clear();
  EXPECT_EQ(loader->symbol(this, "C_GetFunctionList"), nullptr);
  EXPECT_EQ(diary->loaderText(), "bad library");
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
