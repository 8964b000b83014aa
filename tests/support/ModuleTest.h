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
#include "support/FailingRounds.h"
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

  /// Runs `round` for each of the `numCalls` calls of an operation, that call failing (see FailingRounds.h),
  /// and `expectUsableAgain` after each round.
  void failEachCall(std::size_t numCalls, const Round& round);
  /// The same for its requests of memory.
  void failEachAllocation(std::size_t numAllocations, const Round& round);
  /// May have the module behave again and expect that what is tested works.
  virtual void expectUsableAgain() {}

  /// The user gets another home, where that file is in the module's place. An empty path: no file is.
  void useModule(const char* path);

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
  std::vector<std::unique_ptr<ModuleHome>> otherHomes_;
};

}  // namespace mirel::test
