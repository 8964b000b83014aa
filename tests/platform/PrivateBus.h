#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>

struct sd_bus;

namespace mirel {

/// A message bus of our own, run by a dbus-daemon that nobody else uses.
class PrivateBus {
 public:
  /// Null when the program dbus-daemon is not installed or does not start.
  [[nodiscard]] static std::unique_ptr<PrivateBus> start();

  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus();

  [[nodiscard]] const std::string& address() const noexcept { return address_; }

  /// Halts the daemon: its socket still takes connections, and nothing answers on them.
  void freeze();

 private:
  PrivateBus(std::string folder, pid_t daemon, std::string address);

  std::string folder_;
  pid_t daemon_;
  std::string address_;
};

/// A signal with the arguments "ssbb".
struct ReceivedSignal {
  std::string path;
  std::string name;
  std::string object;
  bool hasObject = false;
  bool deliverImmediately = false;
};

/// Listens on a bus for the signal org.mireltoken.DistributedNotification.Posted.
class SignalReceiver {
 public:
  /// Null when the library libsystemd.so.0 is not installed or the bus does not take the connection.
  [[nodiscard]] static std::unique_ptr<SignalReceiver> connect(const std::string& address);

  SignalReceiver(const SignalReceiver&) = delete;
  SignalReceiver& operator=(const SignalReceiver&) = delete;
  ~SignalReceiver();

  /// The next signal; nothing when none comes in that time.
  [[nodiscard]] std::optional<ReceivedSignal> next(std::chrono::milliseconds limit);

 private:
  SignalReceiver() = default;

  sd_bus* bus_ = nullptr;
  std::deque<ReceivedSignal> received_;
};

}  // namespace mirel
