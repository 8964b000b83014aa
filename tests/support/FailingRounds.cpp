#include "support/FailingRounds.h"

#include <gtest/gtest.h>

namespace mirel::test {
namespace {

/// No operation makes as many calls.
constexpr std::size_t kMostRounds = 5000;

std::size_t forEachRound(const std::function<FailPoint(std::size_t n, Times times)>& makePoint,
                         const Round& round, const std::function<void()>& afterwards) {
  std::size_t numSteps = 0;
  for (const Times times : {Times::kOnce, Times::kFromThenOn}) {
    SCOPED_TRACE(times == Times::kOnce ? "failing once" : "failing from then on");
    for (std::size_t n = 0; n < kMostRounds; ++n) {
      SCOPED_TRACE(n);
      FailPoint point = makePoint(n, times);
      round(point);
      EXPECT_TRUE(point.armed());
      const bool fired = point.armed() && point.fired();
      numSteps = n;
      if (afterwards) {
        SCOPED_TRACE("afterwards");
        afterwards();
      }
      if (!fired) break;
    }
  }
  EXPECT_LT(numSteps + 1, kMostRounds);
  return numSteps;
}

}  // namespace

std::size_t forEachFailingCall(Script& script, CK_RV code, const Round& round,
                               const std::function<void()>& afterwards) {
  const auto makePoint = [&](std::size_t n, Times times) {
    script.reset();
    return FailPoint{n, times, [&script, n, times, code] { script.failCall(n, code, times); },
                     [&script] { return script.fired(); }};
  };
  return forEachRound(makePoint, round, afterwards);
}

std::size_t forEachFailingAllocation(Script& script, FailingMemory& memory, const Round& round,
                                     const std::function<void()>& afterwards) {
  const auto makePoint = [&](std::size_t n, Times times) {
    script.reset();
    memory.reset();
    return FailPoint{n, times, [&memory, n, times] { memory.failAllocation(n, times); },
                     [&memory] { return memory.fired(); }};
  };
  return forEachRound(makePoint, round, [&] {
    EXPECT_EQ(memory.outstanding(), 0U);
    memory.reset();
    if (afterwards) afterwards();
  });
}

}  // namespace mirel::test
