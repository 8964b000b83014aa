#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>

namespace mirel {

/// What a program gets of the operating system that is another thing each time. Behind one class, so that a
/// run can be recorded and repeated. Secrets are not drawn here, see platform/Random.h.
class TimeAndChance {
 public:
  TimeAndChance() = default;
  TimeAndChance(const TimeAndChance&) = delete;
  TimeAndChance& operator=(const TimeAndChance&) = delete;
  virtual ~TimeAndChance() = default;

  /// The date and the time of the day.
  [[nodiscard]] virtual std::chrono::system_clock::time_point date() noexcept = 0;
  /// For measuring.
  [[nodiscard]] virtual std::chrono::steady_clock::time_point clock() noexcept = 0;
  /// Fills `out` (256 bytes at most) with the salt of a signature, which everybody may know. False when the
  /// system has no random bytes.
  [[nodiscard]] virtual bool drawSalt(std::span<std::uint8_t> out) noexcept = 0;
  /// The same with a text to be encrypted and decrypted as a trial. It is not recorded.
  [[nodiscard]] virtual bool drawTrialText(std::span<std::uint8_t> out) noexcept = 0;
};

/// Those of the running system.
[[nodiscard]] std::shared_ptr<TimeAndChance> systemTimeAndChance();

/// `given`, or those of the running system where it is null.
[[nodiscard]] std::shared_ptr<TimeAndChance> givenOrSystem(std::shared_ptr<TimeAndChance> given);

}  // namespace mirel
