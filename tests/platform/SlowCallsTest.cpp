#include "platform/SlowCalls.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "support/Threads.h"

namespace mirel {
namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 20ms;
constexpr const char* kRest =
    " for 0 s: the card, its reader or the service behind it does not answer; take the card out and put it "
    "back";

/// Keeps lines that come from any thread.
class SharedLog final : public Log {
 public:
  void systemDefault(std::string_view) noexcept override { ADD_FAILURE(); }
  void systemError(std::string_view line) noexcept override {
    const std::lock_guard lock{mutex_};
    lines_.emplace_back(line);
  }
  void process(std::string_view) noexcept override { ADD_FAILURE(); }

  [[nodiscard]] std::vector<std::string> lines() const {
    const std::lock_guard lock{mutex_};
    return lines_;
  }
  /// Waits until there are so many, and a while longer: there are to be no more.
  [[nodiscard]] std::vector<std::string> linesAfter(std::size_t number) const {
    for (int i = 0; i < 2000 && lines().size() < number; ++i) std::this_thread::sleep_for(10ms);
    std::this_thread::sleep_for(5 * kLimit);
    return lines();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class SlowCalls : public ::testing::Test {
 protected:
  [[nodiscard]] static std::string lineOf(const std::string& calls) {
    return "the module has not returned from " + calls + kRest;
  }

  std::shared_ptr<SharedLog> log = std::make_shared<SharedLog>();
  std::shared_ptr<CryptokiObserver> observer = slowCallObserver(log, kLimit);
};

TEST_F(SlowCalls, AreToldOnceAndWhileTheyLast) {
  observer->callStarts("C_Sign");
  EXPECT_EQ(log->linesAfter(1), std::vector{lineOf("C_Sign")});
  observer->callReturned("C_Sign", 0);
  EXPECT_EQ(log->linesAfter(1).size(), 1U);
}

TEST_F(SlowCalls, AreEachToldAnew) {
  for (const char* call : {"C_Login", "C_Sign"}) {
    const std::size_t before = log->lines().size();
    observer->callStarts(call);
    EXPECT_EQ(log->linesAfter(before + 1).size(), before + 1);
    observer->callReturned(call, 0);
  }
  EXPECT_EQ(log->lines(), (std::vector{lineOf("C_Login"), lineOf("C_Sign")}));
}

TEST_F(SlowCalls, AreNotManyShortOnes) {
  observer = slowCallObserver(log, 500ms);
  const auto end = std::chrono::steady_clock::now() + 800ms;
  while (std::chrono::steady_clock::now() < end) {
    observer->callStarts("C_GetSlotList");
    std::this_thread::sleep_for(1ms);
    observer->callReturned("C_GetSlotList", 0);
  }
  EXPECT_EQ(log->lines(), std::vector<std::string>{});
}

TEST_F(SlowCalls, AreAllThatWaitForTheModule) {
  observer->callStarts("C_Sign");
  std::thread{[this] { observer->callStarts("C_Login"); }}.join();
  EXPECT_EQ(log->linesAfter(1), std::vector{lineOf("C_Sign, C_Login")});
  // The other one has the module now.
  observer->callReturned("C_Sign", 0);
  EXPECT_EQ(log->linesAfter(2).back(), lineOf("C_Login"));
}

TEST_F(SlowCalls, DoNotKeepTheObserverFromEnding) {
  observer->callStarts("C_Sign");
  observer.reset();
}

TEST_F(SlowCalls, ComeFromManyThreadsAtOnce) {
  const auto callOften = [this] {
    for (int call = 0; call < 500; ++call) {
      observer->callStarts("C_Sign");
      observer->callReturned("C_Sign", 0);
    }
  };
  test::runAtOnce({callOften, callOften, callOften, callOften});
  observer->callStarts("C_Login");
  EXPECT_EQ(log->linesAfter(log->lines().size() + 1).back(), lineOf("C_Login"));
}

}  // namespace
}  // namespace mirel
