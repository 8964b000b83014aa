#pragma once

#include <cstddef>
#include <functional>
#include <utility>

#include "module/Script.h"
#include "support/FailingMemory.h"

namespace mirel::test {

/// One round of `forEachFailingCall` or `forEachFailingAllocation`.
class FailPoint {
 public:
  FailPoint(std::size_t n, Times times, std::function<void()> arm, std::function<bool()> fired)
      : n_{n}, times_{times}, arm_{std::move(arm)}, fired_{std::move(fired)} {}

  /// To be called when all is ready and the calls begin that are to fail.
  void arm() { arm_(), armed_ = true; }
  [[nodiscard]] bool armed() const { return armed_; }

  /// Whether a call did fail. Not so in the last round, which must go as if nothing were wrong.
  [[nodiscard]] bool fired() const { return fired_(); }

  /// Which call fails (from 0), and whether all later ones do too.
  [[nodiscard]] std::size_t n() const { return n_; }
  [[nodiscard]] Times times() const { return times_; }
  [[nodiscard]] bool once() const { return times_ == Times::kOnce; }

 private:
  std::size_t n_;
  Times times_;
  std::function<void()> arm_;
  std::function<bool()> fired_;
  bool armed_ = false;
};

using Round = std::function<void(FailPoint&)>;

/// Runs `round` with its first call of the module failing with `code`, then its second, and so on until a
/// round made fewer calls; first with that call failing alone, then with all later ones failing too. The
/// script is reset before each round. After each round `afterwards` may have the module behave again.
/// Returns how many calls a round makes when none fails.
std::size_t forEachFailingCall(Script& script, CK_RV code, const Round& round,
                               const std::function<void()>& afterwards = {});

/// The same for requests of memory.
std::size_t forEachFailingAllocation(Script& script, FailingMemory& memory, const Round& round,
                                     const std::function<void()>& afterwards = {});

}  // namespace mirel::test
