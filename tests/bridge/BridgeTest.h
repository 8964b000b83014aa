#pragma once

#include "bridge/P11Bridge.h"
#include "support/ModuleTest.h"
#include "support/ResultBuffer.h"
#include "support/Values.h"

namespace mirel::test {

/// The objects that SessionTest adds: a P-256 key pair with the ID "02".
inline constexpr CK_OBJECT_HANDLE kEcPublicKey = 24;
inline constexpr CK_OBJECT_HANDLE kEcPrivateKey = 25;

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
  virtual void prepareAgain() { script.setInitialised(true); }

  /// The script and what it recorded as at the start of the test.
  void startAnew() {
    script.reset();
    prepareAgain();
    forgetAll();
  }

  void forgetAll() {
    script.forgetCalls();
    memory->reset();
    observer->events.clear();
    log->allLines.clear();
  }
};

/// A test of a bridge on an open session, which stays open, with the user logged in. At its end nothing may
/// be left signing or decrypting, unless the test says so.
class SessionTest : public BridgeTest {
 protected:
  void SetUp() override {
    BridgeTest::SetUp();
    prepareAgain();
    leavesOpen({session});
  }
  void TearDown() override {
    EXPECT_EQ(script.openOperations(), leftActive_);
    BridgeTest::TearDown();
  }

  /// The session has the same number each time.
  void prepareAgain() override {
    BridgeTest::prepareAgain();
    session = script.openSession(kSlot, CKF_SERIAL_SESSION);
    script.card().loggedIn = true;
    ASSERT_EQ(script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Curve"), p256Params(), p256Point(3))),
              kEcPublicKey);
    ASSERT_EQ(script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params())), kEcPrivateKey);
    forgetAll();
  }

  /// The sessions in which something was begun that was not ended.
  void leavesActive(std::vector<CK_SESSION_HANDLE> sessions) { leftActive_ = std::move(sessions); }

  CK_SESSION_HANDLE session = 0;

 private:
  std::vector<CK_SESSION_HANDLE> leftActive_;
};

}  // namespace mirel::test
