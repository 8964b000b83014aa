#include "HelperProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "WatchSignals.h"

namespace mirel::cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;

std::unique_ptr<HelperProcess> started(const std::function<void(HelperLine&)>& work, bool endsAtOnce = true) {
  auto helper = HelperProcess::start(work, {seconds{20}, false, milliseconds{300}}, endsAtOnce);
  EXPECT_TRUE(helper);
  return *std::move(helper);
}

bool endsInTime(HelperProcess& helper) {
  for (int i = 0; i < 2000 && !helper.hasEnded(); ++i) std::this_thread::sleep_for(milliseconds{10});
  return helper.hasEnded();
}

TEST(HelperProcess, GivesTheTextsThatItSent) {
  const auto helper = started([](HelperLine& line) {
    line.send("one");
    line.send("two");
  });
  EXPECT_TRUE(endsInTime(*helper));
  EXPECT_THAT(helper->takeTexts(), ElementsAre("one", "two"));
  EXPECT_FALSE(helper->failure());
}

TEST(HelperProcess, TellsWhatItsWorkHasThrownAndLeavesTheOthersAlone) {
  const auto other = started([](HelperLine& line) { line.waitForEnd(); }, false);
  const auto helper = started([](HelperLine&) { throw std::runtime_error{"no memory"}; });
  EXPECT_TRUE(endsInTime(*helper));
  EXPECT_TRUE(helper->takeTexts().empty());
  ASSERT_TRUE(helper->failure());
  EXPECT_EQ(helper->failure()->why, "no memory");
  EXPECT_FALSE(other->hasEnded());
}

TEST(HelperProcess, EndsAlsoWhenItIsJustWriting) {
  const auto helper = started(
      [](HelperLine& line) {
        while (true) line.send(std::string(1000, 'x'));
      },
      false);
  std::this_thread::sleep_for(milliseconds{50});
  helper->end();
  EXPECT_TRUE(endsInTime(*helper));
}

TEST(HelperProcess, IsNotStoppedWhereItMayNotWriteToTheTerminal) {
  const auto helper = started([](HelperLine& line) {
    struct sigaction action {};
    (void)sigaction(SIGTTOU, nullptr, &action);
    line.send(action.sa_handler == SIG_IGN ? "ignored" : "stops");
  });
  EXPECT_TRUE(endsInTime(*helper));
  EXPECT_THAT(helper->takeTexts(), ElementsAre("ignored"));
}

TEST(HelperProcess, IsNotStartedWithoutRoomForItsPipesAndLeavesNoneOpen) {
  const int next = dup(STDERR_FILENO);
  (void)close(next);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  for (rlim_t room = 0; room < 4; ++room) {
    SCOPED_TRACE(room);
    const rlimit less{static_cast<rlim_t>(next) + room, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &less), 0);
    const auto helper = HelperProcess::start([](HelperLine&) {}, {}, true);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_FALSE(helper);
    EXPECT_EQ(helper.failure().what, "no process can be started");
    EXPECT_EQ(helper.failure().why, std::strerror(EMFILE));
    const int nextAfter = dup(STDERR_FILENO);
    EXPECT_EQ(nextAfter, next);
    (void)close(nextAfter);
  }
}

TEST(WatchSignals, EndAProgramThatDoesNotReact) {
  const auto ask = [](int times) {
    const WatchSignals signals;
    for (int i = 0; i < times; ++i) (void)raise(SIGINT);
    _exit(signals.numRequests());
  };
  EXPECT_EXIT(ask(WatchSignals::kMostRequests), ::testing::ExitedWithCode(WatchSignals::kMostRequests), "");
  EXPECT_EXIT(ask(WatchSignals::kMostRequests + 1), ::testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace mirel::cli
