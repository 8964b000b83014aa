#include "platform/DistributedNotificationCenter.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "PrivateBus.h"
#include "ScopedVariable.h"

namespace mirel {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A message that is not there by then does not come, even on a busy computer.
constexpr milliseconds kDeliveryLimit{20'000};
/// Long enough for a message that should not be there to come after all.
constexpr milliseconds kSilence{300};
/// A post that takes as long was given up.
constexpr milliseconds kPostLimit{1'000};
/// More than a post may take, with room for a busy computer; far less than "forever".
constexpr milliseconds kReturnLimit{10'000};
/// What "at once" means on a busy computer.
constexpr milliseconds kAtOnce{250};

bool isMapped(const std::string& library) {
  std::ifstream maps{"/proc/self/maps"};
  for (std::string line; std::getline(maps, line);) {
    if (line.find(library) != std::string::npos) return true;
  }
  return false;
}

milliseconds timeOfPost(const Text& name = Text{u"TokenNotify"}, const Text& object = Text{u"object"},
                        bool deliverImmediately = true) {
  const auto start = Clock::now();
  systemDistributedNotificationCenter()->postNotificationName(name, object, deliverImmediately);
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

/// Where a post goes in this process while it lives; null: the variable is not set.
class SessionBus {
 public:
  explicit SessionBus(const char* address, const char* runtimeFolder = nullptr)
      : address_{"DBUS_SESSION_BUS_ADDRESS", address}, runtimeFolder_{"XDG_RUNTIME_DIR", runtimeFolder} {}

 private:
  ScopedVariable address_;
  ScopedVariable runtimeFolder_;
};

class NotificationOnABus : public testing::Test {
 protected:
  void SetUp() override {
    bus_ = PrivateBus::start();
    if (!bus_) GTEST_SKIP() << "dbus-daemon cannot be run: apt-get install dbus-daemon";
    receiver_ = SignalReceiver::connect(bus_->address());
    if (!receiver_) GTEST_SKIP() << "libsystemd.so.0 is missing: apt-get install libsystemd0";
    environment_.emplace(bus_->address().c_str());
  }

  /// Posts again what was given up because the computer is busy.
  static void post(const Text& name, const Text& object, bool deliverImmediately = true) {
    constexpr int kTries = 10;
    for (int i = 0; i < kTries && timeOfPost(name, object, deliverImmediately) >= kPostLimit; ++i) continue;
  }

  /// The next signal, which must come, after those of that name, which a busy computer may have made us post
  /// twice.
  ReceivedSignal next(const std::string& nameBefore = "no name") {
    auto signal = receiver_->next(kDeliveryLimit);
    while (signal && signal->name == nameBefore) signal = receiver_->next(kDeliveryLimit);
    EXPECT_TRUE(signal);
    return signal.value_or(ReceivedSignal{});
  }

  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<SignalReceiver> receiver_;
  std::optional<SessionBus> environment_;
};

TEST_F(NotificationOnABus, ArrivesWithItsArguments) {
  post(Text{u"TokenNotify"}, Text{u"Reader \u00E9 \U0001F511"});
  const ReceivedSignal signal = next();
  EXPECT_EQ(signal.path, "/org/mireltoken/DistributedNotification");
  EXPECT_EQ(signal.name, "TokenNotify");
  EXPECT_EQ(signal.object, "Reader \xC3\xA9 \xF0\x9F\x94\x91");
  EXPECT_TRUE(signal.hasObject);
  EXPECT_TRUE(signal.deliverImmediately);
}

TEST_F(NotificationOnABus, TellsAMissingObjectFromAnEmptyOne) {
  post(Text{u"without"}, Text{});
  post(Text{u"empty"}, Text{u""});
  const ReceivedSignal without = next();
  EXPECT_EQ(without.name, "without");
  EXPECT_EQ(without.object, "");
  EXPECT_FALSE(without.hasObject);
  const ReceivedSignal empty = next("without");
  EXPECT_EQ(empty.name, "empty");
  EXPECT_EQ(empty.object, "");
  EXPECT_TRUE(empty.hasObject);
}

TEST_F(NotificationOnABus, TellsWhenNoImmediateDeliveryWasAskedFor) {
  post(Text{u"TokenNotify"}, Text{u"object"}, false);
  const ReceivedSignal signal = next();
  EXPECT_EQ(signal.name, "TokenNotify");
  EXPECT_FALSE(signal.deliverImmediately);
}

TEST_F(NotificationOnABus, ReplacesWhatABusStringCannotHold) {
  const Text text{std::u16string{u'a', 0x0000, u'b', 0xD800, u'c', 0xDC00}};
  post(text, text);
  const ReceivedSignal signal = next();
  EXPECT_EQ(signal.name,
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD"
            "c\xEF\xBF\xBD");
  EXPECT_EQ(signal.object, signal.name);
}

TEST_F(NotificationOnABus, ArrivesEveryTimeAndInOrder) {
  constexpr int kPosts = 50;
  for (int i = 0; i < kPosts; ++i) {
    post(Text::fromUtf8(std::to_string(i)), Text{});
  }
  for (int i = 0; i < kPosts; ++i) {
    SCOPED_TRACE(i);
    ASSERT_EQ(next(std::to_string(i - 1)).name, std::to_string(i));
  }
  EXPECT_FALSE(receiver_->next(kSilence));
}

TEST_F(NotificationOnABus, ArrivesWholeThoughItIsLarge) {
  const std::u16string text(400'000, u'x');
  post(Text{u"large"}, Text{text});
  EXPECT_EQ(next().object.size(), text.size());
}

TEST_F(NotificationOnABus, IsNotPostedWithoutAName) {
  post(Text{}, Text{u"object"});
  EXPECT_FALSE(receiver_->next(kSilence));
}

TEST_F(NotificationOnABus, IsFoundThroughTheRuntimeFolder) {
  // "unix:path=<folder>/bus,guid=..."
  const std::string path = bus_->address().substr(std::strlen("unix:path="));
  const std::string folder = path.substr(0, path.find("/bus,"));
  const SessionBus environment{nullptr, folder.c_str()};
  post(Text{u"TokenNotify"}, Text{});
  EXPECT_EQ(next().name, "TokenNotify");
}

TEST_F(NotificationOnABus, IsGivenUpWhenTheBusHangs) {
  bus_->freeze();
  EXPECT_LT(timeOfPost(), kReturnLimit);
}

TEST(Notification, IsGivenUpWhenNobodyAnswersTheHandshake) {
  std::string folder = "/tmp/mirel-mute-XXXXXX";  // not in TMPDIR, whose path may be too long for a socket
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string path = folder + "/bus";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  {
    const SessionBus environment{("unix:path=" + path).c_str()};
    EXPECT_LT(timeOfPost(), kReturnLimit);
  }
  close(listener);
  std::filesystem::remove_all(folder);
}

TEST(Notification, IsDroppedAtOnceWhereThereIsNoBus) {
  const struct {
    const char* description;
    const char* address;
    const char* runtimeFolder;
  } rows[] = {
      {"no address at all", nullptr, nullptr},
      {"an empty address", "", nullptr},
      {"a runtime folder without a bus", nullptr, "/nonexistent"},
      {"a socket that is not there", "unix:path=/nonexistent/bus", nullptr},
      {"an address of no known form", "nonsense", nullptr},
      {"a broken escape", "unix:path=%", nullptr},
      {"separators alone", ";;;", nullptr},
      // Would wait for a name server, or start a program.
      {"a bus in the network", "tcp:host=bus.invalid,port=1", nullptr},
      {"a bus in the network behind a socket", "unix:path=/nonexistent/bus;tcp:host=bus.invalid,port=1",
       nullptr},
  };
  (void)timeOfPost();  // Loading the library at the first post takes its own time.
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    const SessionBus environment{row.address, row.runtimeFolder};
    EXPECT_LT(timeOfPost(), kAtOnce);
  }
}

TEST(Notification, NeverStartsAProgramToReachABus) {
  std::string folder = "/tmp/mirel-exec-XXXXXX";  // an address takes not every character of TMPDIR
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string trace = folder + "/started";
  {
    const SessionBus environment{("unixexec:path=/usr/bin/touch,argv1=" + trace).c_str()};
    EXPECT_LT(timeOfPost(), kReturnLimit);
  }
  EXPECT_FALSE(std::filesystem::exists(trace));
  std::filesystem::remove_all(folder);
}

/// Exits with 0 when the library came with a post only.
[[noreturn]] void exitTellingWhenTheLibraryWasLoaded() {
  const std::shared_ptr<DistributedNotificationCenter> center = systemDistributedNotificationCenter();
  const bool early = isMapped("libsystemd.so");
  // Nobody listens there, but that shows only when the library tries.
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  center->postNotificationName(Text{u"TokenNotify"}, Text{}, true);
  const bool late = isMapped("libsystemd.so");
  std::exit(early ? 1 : late ? 0 : 2);
}

TEST(NotificationDeathTest, LoadsTheBusLibraryAtTheFirstPostOnly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, where nothing is loaded yet
  EXPECT_EXIT(exitTellingWhenTheLibraryWasLoaded(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace mirel
