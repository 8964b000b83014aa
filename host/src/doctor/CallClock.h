#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/CryptokiObserver.h"
#include "platform/TimeAndChance.h"

namespace mirel {

/// Measures each call of the module, and passes everything on to another observer (may be null).
class CallClock final : public CryptokiObserver {
 public:
  using Clock = std::chrono::steady_clock;

  CallClock(std::shared_ptr<CryptokiObserver> next, std::shared_ptr<TimeAndChance> time)
      : next_{std::move(next)}, time_{std::move(time)} {}

  void callStarts(const char* function) noexcept override;
  void callReturned(const char* function, std::uint64_t result) noexcept override;
  void operationReturned(BridgeOperation operation, std::uint64_t result) noexcept override;

  /// The longest that each function has taken; the names live as long as the program.
  [[nodiscard]] std::map<std::string_view, Clock::duration> longest() const;
  [[nodiscard]] std::size_t numCalls() const;

 private:
  std::shared_ptr<CryptokiObserver> next_;
  std::shared_ptr<TimeAndChance> time_;
  mutable std::mutex mutex_;
  std::map<std::thread::id, Clock::time_point> running_;
  std::map<std::string_view, Clock::duration> longest_;
  std::size_t numCalls_ = 0;
};

}  // namespace mirel
