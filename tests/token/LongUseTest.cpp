#include <malloc.h>

#include <filesystem>
#include <functional>
#include <iterator>

#include "token/TokenTest.h"

namespace mirel::test {
namespace {

constexpr int kRounds = 1000;
constexpr int kFirstRounds = 20;  // until every buffer has got its size

/// Less than anything that stays behind in each round.
constexpr std::size_t kHeapNoise = 16 * kRounds;  // bytes

[[nodiscard]] std::size_t openFiles() {
  const std::filesystem::directory_iterator files{"/proc/self/fd"};
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

/// Bytes of the heap that are in use. (Always 0 where the address sanitizer has its own heap; there its
/// search for leaks tells.)
[[nodiscard]] std::size_t heapInUse() { return mallinfo2().uordblks; }

/// What stays in the process after many operations, without what the fakes keep of each.
class LongUse : public LoggedInTest {
 protected:
  void forgetAll() {
    script.forgetCalls();
    calls.clear();
    calls.shrink_to_fit();
    memory->reset();
    loader->calls.clear();
    observer->events.clear();
    strings->askedFor.clear();
    for (auto* const lines :
         {&log->allLines, &log->processLines, &log->systemDefaultLines, &log->systemErrorLines}) {
      lines->clear();
      lines->shrink_to_fit();
    }
  }

  void repeat(int rounds, const std::function<void()>& round) {
    for (int i = 0; i < rounds && !HasFailure(); ++i) {
      round();
      ASSERT_EQ(memory->outstanding(), 0U);
      forgetAll();
    }
  }

  /// Nothing stays behind but that many sessions of each round.
  void expectNothingBehind(const std::function<void()>& round, std::size_t sessionsOfEach) {
    repeat(kFirstRounds, round);
    const std::size_t files = openFiles();
    const std::size_t heap = heapInUse();
    const std::size_t sessionsBefore = script.openSessions().size();
    EXPECT_EQ(sessionsBefore, 2 + kFirstRounds * sessionsOfEach);
    repeat(kRounds, round);
    EXPECT_EQ(openFiles(), files);
    const auto sessions = script.openSessions();
    EXPECT_EQ(sessions.size(), sessionsBefore + kRounds * sessionsOfEach);
    // They are the module's; without them nothing is left.
    for (std::size_t i = sessionsBefore; i < sessions.size(); ++i) script.closeSession(sessions[i]);
    EXPECT_LE(heapInUse(), heap + kHeapNoise);
    EXPECT_TRUE(script.openOperations().empty());
    leavesOpen(script.openSessions());
  }
  void expectOneSessionBehindEach(const std::function<void()>& login) {
    const auto round = [&] {
      script.card().loggedIn = false;
      script.card().triesLeft = 3;
      login();
    };
    expectNothingBehind(round, 1);
  }
};

TEST_F(LongUse, OfOneLoginForAThousandSignaturesLeavesNothingBehind) {
  const Value data = patternValue(256, 1);
  const Bytes signature{resultOf(CKM_RSA_X_509, data, 256)};
  const auto round = [&] {
    std::optional<TKError> error;
    ASSERT_EQ(client->sign(data, &error), signature);
    ASSERT_EQ(error, std::nullopt);
  };
  expectNothingBehind(round, 0);
}

TEST_F(LongUse, OfAThousandLoginsLeavesOneSessionOfTheModuleBehindEach) {
  expectOneSessionBehindEach([&] { ASSERT_TRUE(client->login()); });
}

TEST_F(LongUse, OfAThousandRefusedPinsLeavesOneSessionOfTheModuleBehindEach) {
  expectOneSessionBehindEach([&] {
    std::optional<TKError> error;
    ASSERT_FALSE(client->login(u"000000", &error));
    ASSERT_TRUE(error);
  });
}

}  // namespace
}  // namespace mirel::test
