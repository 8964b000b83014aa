#include "platform/TimeAndChance.h"

#include <utility>

#include "platform/Random.h"

namespace mirel {
namespace {

class SystemTimeAndChance final : public TimeAndChance {
 public:
  std::chrono::system_clock::time_point date() noexcept override { return std::chrono::system_clock::now(); }
  std::chrono::steady_clock::time_point clock() noexcept override { return std::chrono::steady_clock::now(); }
  bool drawSalt(std::span<std::uint8_t> out) noexcept override { return fillWithRandomBytes(out); }
  bool drawTrialText(std::span<std::uint8_t> out) noexcept override { return fillWithRandomBytes(out); }
};

}  // namespace

std::shared_ptr<TimeAndChance> systemTimeAndChance() { return std::make_shared<SystemTimeAndChance>(); }

std::shared_ptr<TimeAndChance> givenOrSystem(std::shared_ptr<TimeAndChance> given) {
  return given ? std::move(given) : systemTimeAndChance();
}

}  // namespace mirel
