#include "platform/ProcessTie.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace mirel {
namespace {

constexpr int kLongTime = 20'000;  // milliseconds
constexpr int kShortTime = 200;

/// A process with a child that is tied to it, and writes a letter when it is.
class TiedFamily {
 public:
  TiedFamily() {
    EXPECT_EQ(pipe(life_.data()), 0);
    parent_ = fork();
    if (parent_ == 0) beParent();
    (void)close(life_[1]);
    char letter = 0;
    EXPECT_EQ(read(life_[0], &letter, 1), 1);
  }
  TiedFamily(const TiedFamily&) = delete;
  TiedFamily& operator=(const TiedFamily&) = delete;
  ~TiedFamily() {
    (void)kill(parent_, SIGKILL);
    (void)waitpid(parent_, nullptr, 0);
    (void)close(life_[0]);
  }

  [[nodiscard]] pid_t parent() const { return parent_; }

  /// Whether no process of the family is left after that time.
  [[nodiscard]] bool isGoneWithin(int milliseconds) const {
    pollfd life{life_[0], POLLIN, 0};
    return poll(&life, 1, milliseconds) == 1;
  }

 private:
  [[noreturn]] void beParent() const {
    const auto tie = newProcessTie();
    if (fork() == 0) {
      tie->wear();
      if (write(life_[1], "x", 1) != 1) _exit(1);
    } else {
      tie->hold();
      (void)close(life_[1]);
    }
    while (true) (void)pause();
  }

  std::array<int, 2> life_{};
  pid_t parent_ = -1;
};

TEST(ProcessTie, EndsTheProcessWhenTheOneThatStartedItIsKilled) {
  const TiedFamily family;
  ASSERT_EQ(kill(family.parent(), SIGKILL), 0);
  EXPECT_TRUE(family.isGoneWithin(kLongTime));
}

TEST(ProcessTie, LetsTheProcessBeWhileTheOneThatStartedItGoesOn) {
  const TiedFamily family;
  EXPECT_FALSE(family.isGoneWithin(kShortTime));
}

}  // namespace
}  // namespace mirel
