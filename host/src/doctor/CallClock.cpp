#include "doctor/CallClock.h"

#include <algorithm>

namespace mirel {

void CallClock::callStarts(const char* function) noexcept {
  if (next_) next_->callStarts(function);
  const Clock::time_point now = time_->clock();
  const std::lock_guard lock{mutex_};
  running_[std::this_thread::get_id()] = now;
}

void CallClock::callReturned(const char* function, std::uint64_t result) noexcept {
  const Clock::time_point now = time_->clock();
  {
    const std::lock_guard lock{mutex_};
    Clock::duration& longest = longest_[function];
    longest = std::max(longest, now - running_[std::this_thread::get_id()]);
    ++numCalls_;
  }
  if (next_) next_->callReturned(function, result);
}

void CallClock::operationReturned(BridgeOperation operation, std::uint64_t result) noexcept {
  if (next_) next_->operationReturned(operation, result);
}

std::map<std::string_view, CallClock::Clock::duration> CallClock::longest() const {
  const std::lock_guard lock{mutex_};
  return longest_;
}

std::size_t CallClock::numCalls() const {
  const std::lock_guard lock{mutex_};
  return numCalls_;
}

}  // namespace mirel
