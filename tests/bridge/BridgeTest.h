#pragma once

#include "bridge/P11Bridge.h"
#include "support/ModuleTest.h"

namespace mirel::test {

inline constexpr CK_ULONG kAllOnes = ~CK_ULONG{0};

/// What a module answers here whenever a call is made to fail: no operation has a use for this code.
inline constexpr CK_RV kSomeFailure = CKR_DEVICE_ERROR;

/// A test of a bridge that has not loaded its module yet.
class UnloadedBridgeTest : public ModuleTest {
 protected:
  P11Bridge bridge{services()};
};

/// A test of a bridge whose module is loaded and initialised. The record of calls starts after that.
class BridgeTest : public UnloadedBridgeTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
    ASSERT_EQ(bridge.pkcs11_Initial(nullptr), CKR_OK);
    forgetAll();
  }

  /// What a reset of the script undoes.
  void initialiseAgain() { script.setInitialised(true); }

  void forgetAll() {
    script.forgetCalls();
    memory->reset();
    observer->events.clear();
    log->allLines.clear();
  }
};

/// A test of a bridge on an open session, which stays open.
class SessionTest : public BridgeTest {
 protected:
  void SetUp() override {
    BridgeTest::SetUp();
    openAgain();
    leavesOpen({session});
  }

  /// What a reset of the script undoes. The session has the same number each time.
  void openAgain() {
    initialiseAgain();
    session = script.openSession(kSlot, CKF_SERIAL_SESSION);
  }

  CK_SESSION_HANDLE session = 0;
};

}  // namespace mirel::test
