// A notification travels as a signal on the session D-Bus:
//
//   object path  /org/mireltoken/DistributedNotification
//   interface    org.mireltoken.DistributedNotification
//   member       Posted
//   arguments    "ssbb": the notification's name, its object ("" for none), whether it has an object,
//                whether immediate delivery was asked for
//
// `dbus-monitor "interface='org.mireltoken.DistributedNotification'"` shows them.

#include "platform/DistributedNotificationCenter.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace mirel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kLibrary = "libsystemd.so.0";
constexpr const char* kObjectPath = "/org/mireltoken/DistributedNotification";
constexpr const char* kInterface = "org.mireltoken.DistributedNotification";
constexpr const char* kMember = "Posted";

/// How long a post may take, whatever the bus does. A working bus needs a few milliseconds.
constexpr std::chrono::milliseconds kPostLimit{1000};

/// The functions of sd-bus that a post needs.
struct SdBus {
  decltype(&sd_bus_open_user) openUser = nullptr;
  decltype(&sd_bus_emit_signal) emitSignal = nullptr;
  decltype(&sd_bus_is_ready) isReady = nullptr;
  decltype(&sd_bus_get_n_queued_write) queuedWrites = nullptr;
  decltype(&sd_bus_process) process = nullptr;
  decltype(&sd_bus_wait) wait = nullptr;
  decltype(&sd_bus_close_unref) closeUnref = nullptr;
};

template <typename Function>
bool resolve(void* library, const char* name, Function& outFunction) noexcept {
  outFunction = reinterpret_cast<Function>(dlsym(library, name));
  return outFunction != nullptr;
}

std::optional<SdBus> loadSdBus() noexcept {
  void* library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (!library) return std::nullopt;
  SdBus functions;
  const bool complete = resolve(library, "sd_bus_open_user", functions.openUser) &&
                        resolve(library, "sd_bus_emit_signal", functions.emitSignal) &&
                        resolve(library, "sd_bus_is_ready", functions.isReady) &&
                        resolve(library, "sd_bus_get_n_queued_write", functions.queuedWrites) &&
                        resolve(library, "sd_bus_process", functions.process) &&
                        resolve(library, "sd_bus_wait", functions.wait) &&
                        resolve(library, "sd_bus_close_unref", functions.closeUnref);
  if (complete) return functions;
  (void)dlclose(library);  // An unused handle that stays open does no harm.
  return std::nullopt;
}

/// Loads the library at the first call and keeps it. Linking it would make every process pay for it,
/// also the many that never post.
const std::optional<SdBus>& sdBus() noexcept {
  static const std::optional<SdBus> functions = loadSdBus();
  return functions;
}

/// True when each address of the list ("address;address") names a local socket.
bool areLocalSockets(std::string_view addresses) noexcept {
  while (!addresses.empty()) {
    const std::string_view address = addresses.substr(0, addresses.find(';'));
    if (!address.empty() && address.substr(0, 5) != "unix:") return false;
    addresses.remove_prefix(std::min(address.size() + 1, addresses.size()));
  }
  return true;
}

/// True when the environment names a session bus that can be reached without waiting. Addresses of
/// other kinds than a local socket start a program ("unixexec:") or ask a name server ("tcp:"), neither
/// of which can be bounded in time.
bool hasReachableBus() noexcept {
  if (const char* addresses = secure_getenv("DBUS_SESSION_BUS_ADDRESS")) {
    return *addresses != '\0' && areLocalSockets(addresses);
  }
  return secure_getenv("XDG_RUNTIME_DIR") != nullptr;
}

/// A D-Bus string holds neither NUL nor an unpaired surrogate: each becomes U+FFFD.
std::string busText(const Text& text) {
  std::string utf8;
  for (const char c : text.toUtf8()) {
    if (c == '\0') {
      utf8 += "\xEF\xBF\xBD";
    } else {
      utf8 += c;
    }
  }
  return utf8;
}

/// One connection to the session bus, for one signal. A connection that lived longer would have to be
/// served between posts.
class BusConnection {
 public:
  explicit BusConnection(const SdBus& functions) noexcept : sdBus_{functions} {
    if (sdBus_.openUser(&bus_) < 0) bus_ = nullptr;
  }
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;
  ~BusConnection() { (void)sdBus_.closeUnref(bus_); }  // Always null; takes a null bus.

  /// Hands the signal to the bus. Returns when it has left this process, when it cannot be sent, or at
  /// the deadline.
  void send(const Text& name, const Text& object, bool deliverImmediately, Clock::time_point deadline) {
    if (!bus_) return;
    const int queued =
        sdBus_.emitSignal(bus_, kObjectPath, kInterface, kMember, "ssbb", busText(name).c_str(),
                          busText(object).c_str(), object.isNull() ? 0 : 1, deliverImmediately ? 1 : 0);
    if (queued >= 0) flush(deadline);
  }

 private:
  /// The signal waits behind the handshake; sd_bus_flush would wait for that without a limit.
  void flush(Clock::time_point deadline) noexcept {
    while (!hasLeft()) {
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
      if (left.count() <= 0) return;
      const int processed = sdBus_.process(bus_, nullptr);
      if (processed < 0) return;
      if (processed > 0) continue;
      const int waited = sdBus_.wait(bus_, static_cast<std::uint64_t>(left.count()));
      if (waited < 0 && waited != -EINTR) return;
    }
  }

  [[nodiscard]] bool hasLeft() const noexcept {
    std::uint64_t queued = 0;
    return sdBus_.isReady(bus_) > 0 && sdBus_.queuedWrites(bus_, &queued) >= 0 && queued == 0;
  }

  const SdBus& sdBus_;
  sd_bus* bus_ = nullptr;
};

class SessionBusNotificationCenter final : public DistributedNotificationCenter {
 public:
  void postNotificationName(const Text& name, const Text& object, bool deliverImmediately) noexcept override {
    const Clock::time_point deadline = Clock::now() + kPostLimit;
    if (name.isNull() || !hasReachableBus()) return;
    const std::optional<SdBus>& functions = sdBus();
    if (!functions) return;
    BusConnection{*functions}.send(name, object, deliverImmediately, deadline);
  }
};

}  // namespace

std::shared_ptr<DistributedNotificationCenter> systemDistributedNotificationCenter() {
  return std::make_shared<SessionBusNotificationCenter>();
}

}  // namespace mirel
