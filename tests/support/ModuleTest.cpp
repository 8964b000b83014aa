#include "support/ModuleTest.h"

#include "platform/Certificate.h"
#include "platform/Memory.h"
#include "support/QuietLog.h"

namespace mirel::test {

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

void ModuleTest::failEachCall(std::size_t numCalls, const Round& round) {
  EXPECT_EQ(forEachFailingCall(script, CKR_DEVICE_ERROR, round, [this] { expectUsableAgain(); }), numCalls);
}

void ModuleTest::failEachAllocation(std::size_t numAllocations, const Round& round) {
  EXPECT_EQ(forEachFailingAllocation(script, *memory, round, [this] { expectUsableAgain(); }),
            numAllocations);
}

void ModuleTest::useModule(const char* path) {
  otherHomes_.push_back(std::make_unique<ModuleHome>(path));
  user = std::make_shared<FakeUserDirectory>("alice", otherHomes_.back()->home());
}

}  // namespace mirel::test
