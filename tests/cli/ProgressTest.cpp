#include "Progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "PseudoTerminal.h"

namespace mirel::cli {
namespace {

using namespace std::chrono_literals;

/// Work at a terminal, by a clock that a test moves.
class ProgressLine : public ::testing::Test {
 protected:
  ~ProgressLine() override { (void)close(descriptor_); }

  [[nodiscard]] Progress progress(bool wanted = true) {
    return Progress{"reading", wanted, descriptor_, [this] { return now_; }};
  }
  /// What is shown, once `end` was: all that comes before is there then.
  [[nodiscard]] std::string shown() {
    (void)!write(descriptor_, "|", 1);
    EXPECT_TRUE(terminal_.waitFor("|", ++times_));
    return terminal_.shown();
  }

  test::PseudoTerminal terminal_;
  int descriptor_ = open(terminal_.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  Progress::Clock::time_point now_{};
  int times_ = 0;
};

TEST_F(ProgressLine, IsNotShownOfShortWork) {
  Progress work = progress();
  now_ += 1999ms;
  work.doneBytes(1, 2);
  work.clear();
  EXPECT_EQ(shown(), "|");
}

TEST_F(ProgressLine, IsRewrittenNowAndThenAndTakenAwayAtTheEnd) {
  {
    Progress work = progress();
    now_ += 2s;
    work.doneBytes(100, 200);
    now_ += 199ms;
    work.doneBytes(150, 200);
    now_ += 1ms;
    work.doneBytes(400, 200);
    now_ += 1s;
    work.doneBytes(16, 200);
  }
  EXPECT_EQ(shown(),
            "\rreading: 50 %\rreading: 100 %\rreading: 8 % "
            " \r            \r|");
}

TEST_F(ProgressLine, CountsWhatHasNoKnownEndAndSteps) {
  Progress work = progress();
  now_ += 3s;
  work.doneBytes(12'999'999, std::nullopt);
  now_ += 1s;
  work.doneBytes(13'000'000, 0);
  work.clear();
  now_ += 1s;
  work.doneSteps(1, "\x1B[2Jthe card");
  EXPECT_EQ(shown(),
            "\rreading: 12 MB\rreading: 13 MB\r              \r\rreading: 1 done, next \\x1B[2Jthe card|");
}

TEST_F(ProgressLine, StaysOneLine) {
  Progress work = progress();
  now_ += 3s;
  work.doneSteps(1, std::string(200, 'x'));
  EXPECT_EQ(shown().size(), 1U + 79U + 1U);
}

TEST_F(ProgressLine, HasWholeCharactersAndIsTakenAwayByItsColumns) {
  std::string wide;
  for (int i = 0; i < 40; ++i) wide += "\xE7\x8D\xB7";  // two columns each
  {
    Progress work = progress();
    now_ += 3s;
    work.doneSteps(1, wide);
  }
  const std::string line = "reading: 1 done, next ";
  const std::size_t most = (79 - line.size()) / 2;
  const std::size_t columns = line.size() + 2 * most;
  EXPECT_EQ(shown(), "\r" + line + wide.substr(0, 3 * most) + "\r" + std::string(columns, ' ') + "\r|");
}

TEST_F(ProgressLine, IsNotShownWhereItIsNotWantedOrThereIsNoTerminal) {
  int ends[2]{};
  ASSERT_EQ(pipe(ends), 0);
  {
    Progress unwanted = progress(false);
    Progress elsewhere{"reading", true, ends[1], [this] { return now_; }};
    now_ += 3s;
    unwanted.doneBytes(1, 2);
    elsewhere.doneBytes(1, 2);
  }
  EXPECT_EQ(shown(), "|");
  (void)close(ends[1]);
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), 0);
  (void)close(ends[0]);
}

}  // namespace
}  // namespace mirel::cli
