#include <malloc.h>

#include <filesystem>
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

  /// A refused PIN, a login and a signature.
  void use() {
    script.card().loggedIn = false;
    script.card().triesLeft = 3;
    std::optional<TKError> error;
    ASSERT_FALSE(client->login(u"000000", &error));
    ASSERT_TRUE(error);
    ASSERT_TRUE(client->login());
    ASSERT_EQ(client->sign(data), signature);
    ASSERT_EQ(memory->outstanding(), 0U);
    forgetAll();
  }
  void useOften(int rounds) {
    for (int i = 0; i < rounds && !HasFailure(); ++i) use();
  }

  const Value data = patternValue(256, 1);
  const Bytes signature{resultOf(CKM_RSA_X_509, data, 256)};
};

TEST_F(LongUse, LeavesOneSessionOfTheModuleBehindEachPinAndNothingElse) {
  useOften(kFirstRounds);
  const std::size_t files = openFiles();
  const std::size_t heap = heapInUse();
  const std::size_t sessionsBefore = script.openSessions().size();
  EXPECT_EQ(sessionsBefore, 2 + 2 * kFirstRounds);
  useOften(kRounds);
  EXPECT_EQ(openFiles(), files);
  EXPECT_EQ(script.openSessions().size(), sessionsBefore + 2 * kRounds);
  // They are the module's; without them nothing is left.
  while (script.openSessions().size() > sessionsBefore) script.closeSession(script.openSessions().back());
  EXPECT_LE(heapInUse(), heap + kHeapNoise);
  EXPECT_TRUE(script.openOperations().empty());
  leavesOpen(script.openSessions());
}

}  // namespace
}  // namespace mirel::test
