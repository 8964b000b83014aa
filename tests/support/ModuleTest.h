#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "module/ModuleFiles.h"
#include "platform/PlatformServices.h"
#include "support/FailingMemory.h"
#include "support/FakeLocalizedStrings.h"
#include "support/FakeUserDirectory.h"
#include "support/ModuleHome.h"
#include "support/RecordingLoader.h"
#include "support/RecordingLog.h"
#include "support/RecordingNotificationCenter.h"
#include "support/RecordingObserver.h"
#include "support/ScriptedModule.h"

namespace mirel::test {

/// A test with the scripted module in its place in the home of the user "alice", the real loader, and
/// recording fakes for all else. The script starts anew for each test.
///
/// After each test no search may be open, no block of memory be out, and exactly those sessions be open
/// that the test announced with `leavesOpen`.
class ModuleTest : public ::testing::Test {
 protected:
  ModuleTest();

  void SetUp() override {}
  void TearDown() override;

  /// The services as the layers get them. The certificate parser is the system's; there is no token kit.
  [[nodiscard]] PlatformServices services() const;

  /// The same for a thread of its own: nothing in them is shared with other threads or records anything. The
  /// memory is the system's, and there is no observer.
  [[nodiscard]] PlatformServices servicesForAThread() const;

  /// The sessions that may, and must, be open when the test ends.
  void leavesOpen(std::vector<CK_SESSION_HANDLE> sessions) { leftOpen_ = std::move(sessions); }

  Script& script;
  ModuleHome home{kScriptedModule};
  std::shared_ptr<FakeUserDirectory> user;
  std::shared_ptr<RecordingLoader> loader;
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  std::shared_ptr<RecordingNotificationCenter> notifications =
      std::make_shared<RecordingNotificationCenter>();
  std::shared_ptr<FailingMemory> memory = std::make_shared<FailingMemory>();
  std::shared_ptr<FakeLocalizedStrings> strings = std::make_shared<FakeLocalizedStrings>();
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();

 private:
  std::vector<CK_SESSION_HANDLE> leftOpen_;
};

/// One round of `forEachFailingCall` or `forEachFailingAllocation`.
class FailPoint {
 public:
  FailPoint(std::size_t n, Times times, std::function<void()> arm, std::function<bool()> fired)
      : n_{n}, times_{times}, arm_{std::move(arm)}, fired_{std::move(fired)} {}

  /// To be called when all is ready and the calls begin that are to fail.
  void arm() { arm_(), armed_ = true; }
  [[nodiscard]] bool armed() const { return armed_; }

  /// Whether a call did fail. Not so in the last round, which must go as if nothing were wrong.
  [[nodiscard]] bool fired() const { return fired_(); }

  /// Which call fails (from 0), and whether all later ones do too.
  [[nodiscard]] std::size_t n() const { return n_; }
  [[nodiscard]] Times times() const { return times_; }

 private:
  std::size_t n_;
  Times times_;
  std::function<void()> arm_;
  std::function<bool()> fired_;
  bool armed_ = false;
};

/// Runs `round(FailPoint&)` with its first call of the module failing with `code`, then its second, and
/// so on until a round made fewer calls; first with that call failing alone, then with all later ones
/// failing too. The script is reset before each round.
void forEachFailingCall(Script& script, CK_RV code, const std::function<void(FailPoint&)>& round);

/// The same for requests of memory.
void forEachFailingAllocation(Script& script, FailingMemory& memory,
                              const std::function<void(FailPoint&)>& round);

}  // namespace mirel::test
