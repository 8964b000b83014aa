#include "support/ModuleTest.h"

#include "platform/Certificate.h"
#include "platform/Memory.h"
#include "support/QuietLog.h"

namespace mirel::test {
namespace {

/// No operation makes as many calls.
constexpr std::size_t kMostRounds = 5000;

void forEachRound(const std::function<FailPoint(std::size_t n, Times times)>& makePoint,
                  const std::function<void(FailPoint&)>& round) {
  for (const Times times : {Times::kOnce, Times::kFromThenOn}) {
    SCOPED_TRACE(times == Times::kOnce ? "failing once" : "failing from then on");
    for (std::size_t n = 0;; ++n) {
      SCOPED_TRACE(n);
      FailPoint point = makePoint(n, times);
      round(point);
      ASSERT_TRUE(point.armed());
      if (!point.fired()) break;
      ASSERT_LT(n, kMostRounds);
    }
  }
}

}  // namespace

ModuleTest::ModuleTest()
    : script{scriptedModule()},
      user{std::make_shared<FakeUserDirectory>("alice", home.home())},
      loader{std::make_shared<RecordingLoader>(systemDynamicLoader())} {
  script.reset();
}

void ModuleTest::TearDown() {
  EXPECT_EQ(script.openSessions(), leftOpen_);
  EXPECT_THAT(script.openSearches(), ::testing::IsEmpty());
  EXPECT_EQ(memory->outstanding(), 0U);
  // Hooks may refer to what ends with the test.
  script.reset();
}

PlatformServices ModuleTest::services() const {
  PlatformServices services;
  services.loader = loader;
  services.user = user;
  services.log = log;
  services.notifications = notifications;
  services.certificates = systemCertificateParser();
  services.memory = memory;
  services.strings = strings;
  services.observer = observer;
  return services;
}

PlatformServices ModuleTest::servicesForAThread() const {
  PlatformServices services;
  services.loader = systemDynamicLoader();
  services.user = std::make_shared<FakeUserDirectory>("alice", home.home());
  services.log = std::make_shared<QuietLog>();
  services.notifications = std::make_shared<RecordingNotificationCenter>();
  services.certificates = systemCertificateParser();
  services.memory = systemMemory();
  services.strings = std::make_shared<FakeLocalizedStrings>();
  return services;
}

void forEachFailingCall(Script& script, CK_RV code, const std::function<void(FailPoint&)>& round) {
  forEachRound(
      [&](std::size_t n, Times times) {
        script.reset();
        return FailPoint{n, times, [&script, n, times, code] { script.failCall(n, code, times); },
                         [&script] { return script.fired(); }};
      },
      round);
}

void forEachFailingAllocation(Script& script, FailingMemory& memory,
                              const std::function<void(FailPoint&)>& round) {
  forEachRound(
      [&](std::size_t n, Times times) {
        script.reset();
        memory.reset();
        return FailPoint{n, times, [&memory, n, times] { memory.failAllocation(n, times); },
                         [&memory] { return memory.fired(); }};
      },
      round);
}

}  // namespace mirel::test
