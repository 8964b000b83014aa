/// The one lock of the process around each call of a module.

#include "ModuleLock.h"

#include <chrono>
#include <future>
#include <thread>

#include "bridge/BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

/// Whether another thread could take the lock at this moment.
bool isFree() {
  bool taken = false;
  std::thread{[&] {
    taken = moduleLock().try_lock();
    if (taken) moduleLock().unlock();
  }}.join();
  return taken;
}

/// Keeps whether the lock was free whenever it was told something.
class LookingObserver final : public CryptokiObserver {
 public:
  void callStarts(const char*) noexcept override { wasFree.push_back(isFree()); }
  void callReturned(const char*, std::uint64_t) noexcept override { wasFree.push_back(isFree()); }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override { wasFree.push_back(isFree()); }

  std::vector<bool> wasFree;
};

class ModuleLock : public ModuleTest {
 protected:
  /// A bridge with its module open, and that observer.
  std::unique_ptr<P11Bridge> openBridge(const std::shared_ptr<CryptokiObserver>& with) {
    PlatformServices used = services();
    used.observer = with;
    auto bridge = std::make_unique<P11Bridge>(used);
    EXPECT_TRUE(bridge->pkcs11_Load(Text{}));
    EXPECT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
    return bridge;
  }

  /// Has C_GetInfo and C_GetFunctionList look whether the lock is free.
  void lookInCalls() {
    script.hook<&CK_FUNCTION_LIST::C_GetInfo>([this](auto real, CK_INFO* info) {
      wasFree.push_back(isFree());
      return real(info);
    });
    script.hook<&CK_FUNCTION_LIST::C_GetFunctionList>([this](auto real, CK_FUNCTION_LIST** list) {
      wasFree.push_back(isFree());
      return real(list);
    });
  }

  std::vector<bool> wasFree;
};

TEST_F(ModuleLock, IsHeldInEveryCallWithAnObserverAndWithout) {
  lookInCalls();
  for (const std::shared_ptr<CryptokiObserver>& with :
       {std::shared_ptr<CryptokiObserver>{}, std::shared_ptr<CryptokiObserver>{observer}}) {
    wasFree.clear();
    script.setInitialised(false);
    CK_INFO info{};
    EXPECT_EQ(openBridge(with)->pkcs11_GetInfo(&info), CKR_OK);
    EXPECT_THAT(wasFree, ElementsAre(false, false));
  }
}

TEST_F(ModuleLock, IsNotHeldWhileTheObserverIsTold) {
  const auto looking = std::make_shared<LookingObserver>();
  const auto bridge = openBridge(looking);
  CK_INFO info{};
  EXPECT_EQ(bridge->pkcs11_GetInfo(&info), CKR_OK);
  // Three calls, and two operations that have results: loading has none.
  EXPECT_THAT(looking->wasFree, SizeIs(8));
  EXPECT_THAT(looking->wasFree, Each(true));
}

TEST_F(ModuleLock, IsFreeAfterACallThatFails) {
  const auto bridge = openBridge(nullptr);
  script.failCall(0, kSomeFailure);
  CK_INFO info{};
  EXPECT_EQ(bridge->pkcs11_GetInfo(&info), kSomeFailure);
  EXPECT_TRUE(isFree());
}

TEST_F(ModuleLock, IsNotWaitedForWhereTheModuleLacksTheFunction) {
  const auto bridge = openBridge(nullptr);
  script.removeEntry("C_GetInfo");
  CK_INFO info{};
  std::future<CK_RV> result;
  {
    const std::lock_guard busy{moduleLock()};
    result = std::async(std::launch::async, [&] { return bridge->pkcs11_GetInfo(&info); });
    EXPECT_EQ(result.wait_for(std::chrono::seconds{10}), std::future_status::ready);
  }
  EXPECT_EQ(result.get(), CKR_FUNCTION_NOT_SUPPORTED);
}

}  // namespace
}  // namespace mirel::test
