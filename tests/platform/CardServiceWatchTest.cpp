#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <thread>

#include "ScopedVariable.h"
#include "platform/CardService.h"
#include "posix/PcscWatch.h"
#include "support/TemporaryFolder.h"

namespace mirel {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::SizeIs;
using enum CardServiceView::State;
using Card = ServiceReader::Card;
using Clock = std::chrono::steady_clock;

constexpr seconds kLong{20};
constexpr milliseconds kShort{20};

/// Follows a service whose readers stand in a file, in each form of the library.
class CardServiceWatching
    : public ::testing::TestWithParam<std::function<std::unique_ptr<CardServiceWatch>()>> {
 protected:
  void tell(const std::string& readers) const {
    const std::string next = folder_.path() / "next";
    std::ofstream{next} << readers;
    std::filesystem::rename(next, file_);
  }
  void stop() const { std::filesystem::remove(file_); }
  void tellSoon(std::string readers) {
    later_ = std::thread{[this, readers = std::move(readers)] {
      std::this_thread::sleep_for(kShort);
      tell(readers);
    }};
  }
  /// The next change, which must come.
  [[nodiscard]] CardServiceView change() {
    CardServiceView view = watch_->next(kLong);
    if (later_.joinable()) later_.join();
    return view;
  }

  test::TemporaryFolder folder_;
  std::string file_ = folder_.path() / "readers";
  ScopedVariable variable_{"MIREL_PCSC_FILE", file_.c_str()};
  std::unique_ptr<CardServiceWatch> watch_ = GetParam()();
  std::thread later_;
};

TEST_P(CardServiceWatching, TellsAtOnceWhatThereIs) {
  tell("Reader A=10022:3B");
  const CardServiceView view = watch_->next(kLong);
  EXPECT_EQ(view.state, kAnswers);
  ASSERT_THAT(view.readers, SizeIs(1));
  EXPECT_EQ(view.readers[0].card, Card::kPresent);
  EXPECT_EQ(view.readers[0].changes, 1U);
}

TEST_P(CardServiceWatching, TellsTheSameAgainWhenTheTimeIsOver) {
  tell("Reader A=12");
  const CardServiceView first = watch_->next(kLong);
  EXPECT_EQ(watch_->next(kShort), first);
}

TEST_P(CardServiceWatching, WaitsForAChange) {
  const struct {
    const char* name;
    const char* before;
    const char* after;
    bool knowsComing = true;
  } rows[] = {{"card comes", "Reader A=10", "Reader A=10022:3B"},
              {"card was swapped for one of its kind", "Reader A=10022:3B", "Reader A=30022:3B"},
              {"reader comes", "Reader A=10", "Reader A=10;Reader B=10"},
              {"first reader comes", "", "Reader A=10"},
              {"first reader comes, polled", "", "Reader A=10", false},
              {"reader comes, polled", "Reader A=10", "Reader A=10;Reader B=10", false},
              {"reader goes", "Reader A=10;Reader B=10", "Reader A=10"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::optional<ScopedVariable> notKnown;
    if (!row.knowsComing) notKnown.emplace("MIREL_PCSC_NO_COMING", "1");
    watch_ = GetParam()();
    tell(row.before);
    const CardServiceView before = watch_->next(kLong);
    tellSoon(row.after);
    const CardServiceView after = change();
    EXPECT_NE(after, before);
    EXPECT_EQ(after.readers, GetParam()()->next(kLong).readers);
  }
}

TEST_P(CardServiceWatching, GoesOnWhenTheServiceWasStopped) {
  tell("Reader A=10022:3B");
  const CardServiceView before = watch_->next(kLong);
  stop();
  EXPECT_EQ(change().state, kSilent);
  tellSoon("Reader A=10022:3B");
  const CardServiceView after = change();
  EXPECT_EQ(after.readers, before.readers);
  EXPECT_NE(after.connection, before.connection);
}

TEST_P(CardServiceWatching, TakesAReaderThatGoesForNoEndOfTheService) {
  // Unknown, unavailable, and no readers left.
  for (const char* code : {"80100009", "80100017", "8010002E"}) {
    SCOPED_TRACE(code);
    const ScopedVariable answer{"MIREL_PCSC_GONE_CODE", code};
    watch_ = GetParam()();
    tell("Reader A=10020:3B;Reader B=10");
    const CardServiceView before = watch_->next(kLong);
    tellSoon("Reader A=10020:3B");
    const CardServiceView after = change();
    EXPECT_THAT(after.readers, SizeIs(1));
    EXPECT_EQ(after.connection, before.connection);
  }
}

TEST_P(CardServiceWatching, IsEndedByAnotherThread) {
  for (const char* readers : {"Reader A=10", "-"}) {  // with a service to wait for, and without
    SCOPED_TRACE(readers);
    watch_ = GetParam()();
    tell(readers);
    if (*readers == '-') stop();
    (void)watch_->next(kLong);
    const auto begin = Clock::now();
    std::atomic<bool> ended{false};
    std::thread other{[&] {
      while (!ended) {
        std::this_thread::sleep_for(kShort);
        watch_->cancel();
      }
    }};
    (void)watch_->next(kLong);
    ended = true;
    other.join();
    EXPECT_LT(Clock::now() - begin, kLong);
  }
}

INSTANTIATE_TEST_SUITE_P(OfLinux, CardServiceWatching, ::testing::Values([] {
                           return cardServiceOf(MIREL_FAKE_PCSC, kCardServiceLimit)->watch();
                         }));
INSTANTIATE_TEST_SUITE_P(OfMacOS, CardServiceWatching,
                         ::testing::Values([]() -> std::unique_ptr<CardServiceWatch> {
                           return std::make_unique<pcsc::Watch<pcsc::AppleForm>>(MIREL_FAKE_PCSC_APPLE);
                         }));

}  // namespace
}  // namespace mirel
