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
#include <deque>
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

/// sd-bus by name: linked, it would be in the process before the code under test could load it.
struct ReceiverFunctions {
  decltype(&sd_bus_new) create = nullptr;
  decltype(&sd_bus_set_address) setAddress = nullptr;
  decltype(&sd_bus_set_bus_client) setBusClient = nullptr;
  decltype(&sd_bus_start) start = nullptr;
  decltype(&sd_bus_match_signal) matchSignal = nullptr;
  decltype(&sd_bus_process) process = nullptr;
  decltype(&sd_bus_wait) wait = nullptr;
  decltype(&sd_bus_message_get_path) messagePath = nullptr;
  decltype(&sd_bus_message_read) readMessage = nullptr;
  decltype(&sd_bus_close_unref) closeUnref = nullptr;
};

template <typename Function>
bool resolve(void* library, const char* name, Function& outFunction) {
  outFunction = reinterpret_cast<Function>(dlsym(library, name));
  return outFunction != nullptr;
}

const ReceiverFunctions* receiverFunctions() {
  static ReceiverFunctions functions;
  static const bool complete = [] {
    void* library = dlopen("libsystemd.so.0", RTLD_NOW);
    return library && resolve(library, "sd_bus_new", functions.create) &&
           resolve(library, "sd_bus_set_address", functions.setAddress) &&
           resolve(library, "sd_bus_set_bus_client", functions.setBusClient) &&
           resolve(library, "sd_bus_start", functions.start) &&
           resolve(library, "sd_bus_match_signal", functions.matchSignal) &&
           resolve(library, "sd_bus_process", functions.process) &&
           resolve(library, "sd_bus_wait", functions.wait) &&
           resolve(library, "sd_bus_message_get_path", functions.messagePath) &&
           resolve(library, "sd_bus_message_read", functions.readMessage) &&
           resolve(library, "sd_bus_close_unref", functions.closeUnref);
  }();
  return complete ? &functions : nullptr;
}

class BusSignalReceiver final : public SignalReceiver {
 public:
  explicit BusSignalReceiver(const ReceiverFunctions& functions) : sdBus_{functions} {}
  ~BusSignalReceiver() override { sdBus_.closeUnref(bus_); }

  bool open(const std::string& address) {
    return sdBus_.create(&bus_) >= 0 && sdBus_.setAddress(bus_, address.c_str()) >= 0 &&
           sdBus_.setBusClient(bus_, 1) >= 0 && sdBus_.start(bus_) >= 0 &&
           sdBus_.matchSignal(bus_, nullptr, nullptr, nullptr, "org.mireltoken.DistributedNotification",
                              "Posted", &BusSignalReceiver::keep, this) >= 0;
  }

  std::optional<ReceivedSignal> next(std::chrono::milliseconds limit) override {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (received_.empty()) {
      const auto left =
          std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      const int processed = sdBus_.process(bus_, nullptr);
      if (processed < 0) return std::nullopt;
      if (processed == 0) sdBus_.wait(bus_, static_cast<std::uint64_t>(left.count()));
    }
    ReceivedSignal signal = received_.front();
    received_.pop_front();
    return signal;
  }

 private:
  static int keep(sd_bus_message* message, void* receiver, sd_bus_error*) {
    auto* self = static_cast<BusSignalReceiver*>(receiver);
    const char* name = nullptr;
    const char* object = nullptr;
    int hasObject = 0;
    int deliverImmediately = 0;
    if (self->sdBus_.readMessage(message, "ssbb", &name, &object, &hasObject, &deliverImmediately) > 0) {
      self->received_.push_back(
          {self->sdBus_.messagePath(message), name, object, hasObject != 0, deliverImmediately != 0});
    }
    return 0;
  }

  const ReceiverFunctions& sdBus_;
  sd_bus* bus_ = nullptr;
  std::deque<ReceivedSignal> received_;
};

}  // namespace

std::unique_ptr<SignalReceiver> SignalReceiver::connect(const std::string& address) {
  const ReceiverFunctions* functions = receiverFunctions();
  if (!functions) return nullptr;
  auto receiver = std::make_unique<BusSignalReceiver>(*functions);
  if (!receiver->open(address)) return nullptr;
  return receiver;
}

}  // namespace mirel
