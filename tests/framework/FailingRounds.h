#pragma once

#include <cstddef>
#include <functional>

#include "support/ModuleTest.h"

namespace mirel::test {

/// Runs `round` for each of the `numSteps` steps of an operation, that step failing, and once with none
/// failing; first with that step failing alone, then with all later ones failing too. After each round
/// `afterwards` may bring the module back to its senses, which makes it forget that a step has failed.
inline void forEachFailingStep(std::size_t numSteps,
                               const std::function<FailPoint(std::size_t n, Times times)>& makePoint,
                               const std::function<void(FailPoint&)>& round,
                               const std::function<void()>& afterwards) {
  for (const Times times : {Times::kOnce, Times::kFromThenOn}) {
    SCOPED_TRACE(times == Times::kOnce ? "failing once" : "failing from then on");
    for (std::size_t n = 0; n <= numSteps; ++n) {
      SCOPED_TRACE(n);
      FailPoint point = makePoint(n, times);
      round(point);
      ASSERT_TRUE(point.armed());
      ASSERT_EQ(point.fired(), n < numSteps) << "the operation has " << numSteps << " steps";
      SCOPED_TRACE("afterwards");
      afterwards();
    }
  }
}

/// The steps are the calls of the module, each failing with `code`. The script is reset before each
/// round.
inline void forEachFailingCall(Script& script, CK_RV code, std::size_t numCalls,
                               const std::function<void(FailPoint&)>& round,
                               const std::function<void()>& afterwards) {
  const auto makePoint = [&](std::size_t n, Times times) {
    script.reset();
    return FailPoint{n, times, [&script, n, times, code] { script.failCall(n, code, times); },
                     [&script] { return script.fired(); }};
  };
  forEachFailingStep(numCalls, makePoint, round, afterwards);
}

/// The steps are requests of memory. Script and memory are reset before each round, the memory also
/// after it.
inline void forEachFailingAllocation(Script& script, FailingMemory& memory, std::size_t numAllocations,
                                     const std::function<void(FailPoint&)>& round,
                                     const std::function<void()>& afterwards) {
  const auto makePoint = [&](std::size_t n, Times times) {
    script.reset();
    memory.reset();
    return FailPoint{n, times, [&memory, n, times] { memory.failAllocation(n, times); },
                     [&memory] { return memory.fired(); }};
  };
  forEachFailingStep(numAllocations, makePoint, round, [&] {
    memory.reset();
    afterwards();
  });
}

}  // namespace mirel::test
