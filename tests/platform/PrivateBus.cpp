#include "PrivateBus.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

namespace mirel {
namespace {

constexpr int kStartLimitInMilliseconds = 20'000;

/// The daemon's configuration, so that nothing of the system's is needed or changed.
std::string configurationFor(const std::string& folder) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig><type>session</type><listen>unix:path=" +
         folder +
         "/bus</listen><auth>EXTERNAL</auth>"
         "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
         "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
}

std::string readLine(int descriptor) {
  std::string line;
  pollfd readable{descriptor, POLLIN, 0};
  char c = '\0';
  while (poll(&readable, 1, kStartLimitInMilliseconds) > 0 && read(descriptor, &c, 1) == 1 && c != '\n') {
    line += c;
  }
  return line;
}

}  // namespace

std::unique_ptr<PrivateBus> PrivateBus::start() {
  // The path of TMPDIR may be too long for a socket, or hold characters that an address does not take.
  std::string folder = "/tmp/mirel-bus-XXXXXX";
  if (!mkdtemp(folder.data())) return nullptr;
  const std::string configuration = folder + "/bus.conf";
  std::ofstream{configuration} << configurationFor(folder);
  const std::string argument = "--config-file=" + configuration;

  std::array<int, 2> output{};
  if (pipe(output.data()) != 0) return nullptr;
  const pid_t daemon = fork();
  if (daemon == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // A test that crashes must not leave it behind.
    dup2(output[1], STDOUT_FILENO);
    close(STDERR_FILENO);  // It complains of limits it cannot raise.
    if (open("/dev/null", O_WRONLY) != STDERR_FILENO) _exit(126);
    close(output[0]);
    close(output[1]);
    execlp("dbus-daemon", "dbus-daemon", argument.c_str(), "--nofork", "--nopidfile", "--print-address=1",
           nullptr);
    _exit(127);
  }
  close(output[1]);
  std::string address = daemon > 0 ? readLine(output[0]) : "";
  close(output[0]);
  const bool started = !address.empty();
  std::unique_ptr<PrivateBus> bus{new PrivateBus{folder, daemon, std::move(address)}};
  return started ? std::move(bus) : nullptr;
}

PrivateBus::PrivateBus(std::string folder, pid_t daemon, std::string address)
    : folder_{std::move(folder)}, daemon_{daemon}, address_{std::move(address)} {}

PrivateBus::~PrivateBus() {
  if (daemon_ > 0) {
    kill(daemon_, SIGKILL);
    waitpid(daemon_, nullptr, 0);
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void PrivateBus::freeze() {
  kill(daemon_, SIGSTOP);
  waitpid(daemon_, nullptr, WUNTRACED);
}

namespace {

/// A function of sd-bus. By name: linked, it would be in the process before the code under test could load
/// it.
struct SdBusFunction {
  const char* name;
  template <typename Function>
  operator Function*() const {  // NOLINT(google-explicit-constructor): takes the type of what it is put into
    return reinterpret_cast<Function*>(dlsym(dlopen("libsystemd.so.0", RTLD_NOW), name));
  }
};

struct SdBus {
  decltype(&sd_bus_new) create = SdBusFunction{"sd_bus_new"};
  decltype(&sd_bus_set_address) setAddress = SdBusFunction{"sd_bus_set_address"};
  decltype(&sd_bus_set_bus_client) setBusClient = SdBusFunction{"sd_bus_set_bus_client"};
  decltype(&sd_bus_start) start = SdBusFunction{"sd_bus_start"};
  decltype(&sd_bus_match_signal) matchSignal = SdBusFunction{"sd_bus_match_signal"};
  decltype(&sd_bus_process) process = SdBusFunction{"sd_bus_process"};
  decltype(&sd_bus_wait) wait = SdBusFunction{"sd_bus_wait"};
  decltype(&sd_bus_message_get_path) messagePath = SdBusFunction{"sd_bus_message_get_path"};
  decltype(&sd_bus_message_read) readMessage = SdBusFunction{"sd_bus_message_read"};
  decltype(&sd_bus_close_unref) closeUnref = SdBusFunction{"sd_bus_close_unref"};
};

const SdBus& sdBus() {
  static const SdBus functions;
  return functions;
}

int keep(sd_bus_message* message, void* received, sd_bus_error*) {
  const char* name = nullptr;
  const char* object = nullptr;
  int hasObject = 0;
  int deliverImmediately = 0;
  if (sdBus().readMessage(message, "ssbb", &name, &object, &hasObject, &deliverImmediately) > 0) {
    static_cast<std::deque<ReceivedSignal>*>(received)->push_back(
        {sdBus().messagePath(message), name, object, hasObject != 0, deliverImmediately != 0});
  }
  return 0;
}

}  // namespace

std::unique_ptr<SignalReceiver> SignalReceiver::connect(const std::string& address) {
  if (!dlopen("libsystemd.so.0", RTLD_NOW)) return nullptr;
  std::unique_ptr<SignalReceiver> receiver{new SignalReceiver};
  sd_bus*& bus = receiver->bus_;
  const bool open =
      sdBus().create(&bus) >= 0 && sdBus().setAddress(bus, address.c_str()) >= 0 &&
      sdBus().setBusClient(bus, 1) >= 0 && sdBus().start(bus) >= 0 &&
      sdBus().matchSignal(bus, nullptr, nullptr, nullptr, "org.mireltoken.DistributedNotification", "Posted",
                          &keep, &receiver->received_) >= 0;
  return open ? std::move(receiver) : nullptr;
}

SignalReceiver::~SignalReceiver() { sdBus().closeUnref(bus_); }

std::optional<ReceivedSignal> SignalReceiver::next(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (received_.empty()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    const int processed = sdBus().process(bus_, nullptr);
    if (processed < 0) return std::nullopt;
    if (processed == 0) sdBus().wait(bus_, static_cast<std::uint64_t>(left.count()));
  }
  ReceivedSignal signal = received_.front();
  received_.pop_front();
  return signal;
}

}  // namespace mirel
