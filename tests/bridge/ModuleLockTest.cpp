/// The one lock of the process around each call of a module.

#include "ModuleLock.h"

#include <chrono>
#include <future>

#include "bridge/BridgeTest.h"
#include "support/Threads.h"

namespace mirel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

class ModuleLock : public ModuleTest {
 protected:
  /// Keeps whether the lock was free whenever it was told something.
  struct LookingObserver final : CryptokiObserver {
    void callStarts(const char*) noexcept override { look(); }
    void callReturned(const char*, std::uint64_t) noexcept override { look(); }
    void operationReturned(BridgeOperation, std::uint64_t) noexcept override { look(); }
    void look() { wasFree.push_back(isFree(moduleLock())); }

    std::vector<bool> wasFree;
  };

  /// A bridge with its module open, and that observer.
  std::unique_ptr<P11Bridge> openBridge(const std::shared_ptr<CryptokiObserver>& with) {
    PlatformServices used = services();
    used.observer = with;
    auto bridge = std::make_unique<P11Bridge>(used);
    EXPECT_TRUE(bridge->pkcs11_Load(Text{}));
    EXPECT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
    return bridge;
  }

  CK_INFO info{};
};

TEST_F(ModuleLock, IsHeldInEveryCallWithAnObserverAndWithout) {
  std::vector<bool> wasFree;
  const auto look = [&](auto real, auto* out) {
    wasFree.push_back(isFree(moduleLock()));
    return real(out);
  };
  script.hook<&CK_FUNCTION_LIST::C_GetInfo>(look);
  script.hook<&CK_FUNCTION_LIST::C_GetFunctionList>(look);
  for (const bool isObserved : {false, true}) {
    wasFree.clear();
    script.setInitialised(false);
    EXPECT_EQ(openBridge(isObserved ? observer : nullptr)->pkcs11_GetInfo(&info), CKR_OK);
    EXPECT_THAT(wasFree, ElementsAre(false, false));
  }
}

TEST_F(ModuleLock, IsNotHeldWhileTheObserverIsTold) {
  const auto looking = std::make_shared<LookingObserver>();
  const auto bridge = openBridge(looking);
  EXPECT_EQ(bridge->pkcs11_GetInfo(&info), CKR_OK);
  // Three calls, and two operations that have results: loading has none.
  EXPECT_THAT(looking->wasFree, SizeIs(8));
  EXPECT_THAT(looking->wasFree, Each(true));
}

TEST_F(ModuleLock, IsFreeAfterACallThatFails) {
  const auto bridge = openBridge(nullptr);
  script.failCall(0, kSomeFailure);
  EXPECT_EQ(bridge->pkcs11_GetInfo(&info), kSomeFailure);
  EXPECT_TRUE(isFree(moduleLock()));
}

TEST_F(ModuleLock, IsNotWaitedForWhereTheModuleLacksTheFunction) {
  const auto bridge = openBridge(nullptr);
  script.removeEntry("C_GetInfo");
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
