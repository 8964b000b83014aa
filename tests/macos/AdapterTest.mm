#import "AdapterTest.h"

#import "CoreHolder.h"
#include "ExtensionPropertyList.h"

namespace mirel::test {
namespace {

constexpr unsigned kDigitalSignature = 1U << 0U;

}  // namespace

AdapterTest::AdapterTest() {
  setKeyUsage(kDigitalSignature);
  PlatformServices all = extensionServices();
  all.user = user;
  services_ = std::make_unique<ScopedExtensionServices>(std::move(all));
  system.emplace(driverClassInPropertyList());
}

AdapterTest::~AdapterTest() = default;

void AdapterTest::TearDown() {
  system.reset();
  EXPECT_THAT(livingObjects(), ::testing::IsEmpty());
  leavesOpen(script.openSessions());
  ModuleTest::TearDown();
}

void AdapterTest::setKeyUsage(unsigned usage) {
  script.object(kCertificate).attributes[CKA_VALUE] =
      testCertificate({.key = TestKey::kRsa2048, .keyUsage = usage});
}

void AdapterTest::insertAndOpen() {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded) << ::testing::PrintToString(recorder.texts());
  ASSERT_TRUE(system->openSession().succeeded);
}

Outcome AdapterTest::logIn(const std::optional<std::string>& pin, SessionNumber session,
                           ErrorPointer pointer) {
  EXPECT_TRUE(system->beginAuth(session, kSign, "01").succeeded);
  system->enterPin(pin);
  return system->finishAuth(pointer);
}

SystemError platformError(long code) { return {"CryptoTokenKit", code, {}}; }

}  // namespace mirel::test
