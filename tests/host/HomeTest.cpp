#include "host/Home.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "host/HostTest.h"
#include "support/FakeUserDirectory.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// An environment variable with another value for a while; null: not set.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value) : name_{name} {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
  ~ScopedEnvironment() { set(old_ ? old_->c_str() : nullptr); }

 private:
  void set(const char* value) const {
    if (value) {
      ::setenv(name_, value, 1);
    } else {
      ::unsetenv(name_);
    }
  }

  const char* name_;
  std::optional<std::string> old_;
};

/// A working folder for a while.
class ScopedWorkingFolder {
 public:
  explicit ScopedWorkingFolder(const fs::path& folder) : old_{fs::current_path()} {
    fs::current_path(folder);
  }
  ScopedWorkingFolder(const ScopedWorkingFolder&) = delete;
  ScopedWorkingFolder& operator=(const ScopedWorkingFolder&) = delete;
  ~ScopedWorkingFolder() { fs::current_path(old_); }

 private:
  fs::path old_;
};

class PrivateHomeTest : public ::testing::Test {
 protected:
  PrivateHomeTest() { std::ofstream{module_} << "a module"; }

  /// The home made for that module; a failure fails the test.
  [[nodiscard]] static std::unique_ptr<PrivateHome> madeFor(const std::string& module) {
    auto outcome = PrivateHome::create(module);
    if (auto* home = std::get_if<std::unique_ptr<PrivateHome>>(&outcome)) return std::move(*home);
    ADD_FAILURE() << std::get<Failure>(outcome).what << ": " << std::get<Failure>(outcome).why;
    return nullptr;
  }

  [[nodiscard]] static fs::path placeIn(const PrivateHome& home) {
    return home.path() + "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";
  }

  TemporaryFolder folder_;
  const fs::path module_ = folder_.path() / "module.so";
};

TEST_F(PrivateHomeTest, HoldsALinkToTheModuleInItsPlace) {
  const auto home = madeFor(module_);
  ASSERT_TRUE(home);
  EXPECT_TRUE(fs::is_symlink(placeIn(*home)));
  EXPECT_EQ(fs::canonical(placeIn(*home)), fs::canonical(module_));
}

TEST_F(PrivateHomeTest, IsForThisUserAlone) {
  const auto home = madeFor(module_);
  ASSERT_TRUE(home);
  EXPECT_EQ(fs::status(home->path()).permissions(), fs::perms::owner_all);
}

TEST_F(PrivateHomeTest, IsInTheTemporaryFolder) {
  const ScopedEnvironment temporary{"TMPDIR", folder_.path().c_str()};
  const auto home = madeFor(module_);
  ASSERT_TRUE(home);
  EXPECT_EQ(fs::path{home->path()}.parent_path(), folder_.path());
}

TEST_F(PrivateHomeTest, IsRemovedInTheEnd) {
  auto home = madeFor(module_);
  ASSERT_TRUE(home);
  const fs::path path = home->path();
  ASSERT_TRUE(fs::exists(path));
  home.reset();
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(fs::exists(module_));
}

TEST_F(PrivateHomeTest, IsRemovedWhenASignalEndsTheProcess) {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal);
    const ScopedEnvironment temporary{"TMPDIR", folder_.path().c_str()};
    const auto endBySignal = [&] {
      const auto home = madeFor(module_);
      (void)std::signal(signal, SIG_DFL);  // It may be ignored where the tests were started.
      home->removeOnSignals();
      (void)std::raise(signal);
    };
    EXPECT_EXIT(endBySignal(), ::testing::KilledBySignal(signal), "");
    const fs::directory_iterator left{folder_.path()};
    EXPECT_EQ(std::distance(begin(left), end(left)), 1) << "more is left than the module";
  }
}

TEST_F(PrivateHomeTest, LeavesAnIgnoredSignalIgnored) {
  const auto ignoreAndGoOn = [&] {
    (void)std::signal(SIGHUP, SIG_IGN);
    auto home = madeFor(module_);
    home->removeOnSignals();
    (void)std::raise(SIGHUP);
    const bool isThere = fs::exists(home->path());
    home.reset();  // _Exit would leave it.
    std::_Exit(isThere ? 7 : 1);
  };
  EXPECT_EXIT(ignoreAndGoOn(), ::testing::ExitedWithCode(7), "");
}

TEST_F(PrivateHomeTest, IsAnotherOneEachTime) {
  const auto first = madeFor(module_);
  const auto second = madeFor(module_);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->path(), second->path());
}

TEST_F(PrivateHomeTest, TakesARelativePath) {
  const ScopedWorkingFolder inFolder{folder_.path()};
  const auto home = madeFor("module.so");
  ASSERT_TRUE(home);
  const ScopedWorkingFolder elsewhere{"/"};
  EXPECT_EQ(fs::canonical(placeIn(*home)), fs::canonical(module_));
}

TEST_F(PrivateHomeTest, TakesALink) {
  const fs::path link = folder_.path() / "link.so";
  fs::create_symlink("module.so", link);
  const auto home = madeFor(link);
  ASSERT_TRUE(home);
  EXPECT_EQ(fs::canonical(placeIn(*home)), fs::canonical(module_));
}

TEST_F(PrivateHomeTest, HasAnAbsolutePathEvenInARelativeTemporaryFolder) {
  const ScopedWorkingFolder inFolder{folder_.path()};
  const ScopedEnvironment temporary{"TMPDIR", "."};
  const auto home = madeFor(module_);
  ASSERT_TRUE(home);
  EXPECT_TRUE(fs::path{home->path()}.is_absolute()) << home->path();
}

TEST_F(PrivateHomeTest, DoesWithoutATemporaryFolderOfTheUsers) {
  const ScopedEnvironment temporary{"TMPDIR", "/no/such/folder"};
  const auto home = madeFor(module_);
  ASSERT_TRUE(home);
  EXPECT_THAT(home->path(), StartsWith("/tmp/"));
}

TEST_F(PrivateHomeTest, IsNotMadeForAMissingModule) {
  const Failure failure = failureOf(PrivateHome::create("/no/such/module.so"));
  EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
  EXPECT_THAT(failure.what, HasSubstr("/no/such/module.so"));
  EXPECT_EQ(failure.why, "No such file or directory");
}

TEST_F(PrivateHomeTest, IsNotMadeForADanglingLink) {
  const fs::path link = folder_.path() / "link.so";
  fs::create_symlink("nothing.so", link);
  EXPECT_EQ(failureOf(PrivateHome::create(link)).kind, FailureKind::kModuleNotLoadable);
}

TEST_F(PrivateHomeTest, IsNotMadeForAnEmptyPath) {
  EXPECT_EQ(failureOf(PrivateHome::create("")).kind, FailureKind::kModuleNotLoadable);
}

TEST_F(PrivateHomeTest, TellsAPathWithALineEndInOneLine) {
  EXPECT_EQ(failureOf(PrivateHome::create("/no/such\nmodule.so")).kind, FailureKind::kModuleNotLoadable);
}

TEST_F(PrivateHomeTest, LeavesNoFolderBehindWhenItCannotBeMade) {
  const ScopedEnvironment temporary{"TMPDIR", folder_.path().c_str()};
  EXPECT_EQ(failureOf(PrivateHome::create("/no/such/module.so")).kind, FailureKind::kModuleNotLoadable);
  EXPECT_EQ(std::distance(fs::directory_iterator{folder_.path()}, fs::directory_iterator{}),
            1);  // the module
}

TEST(UserWithHome, HasTheUsersName) {
  const auto user = userWithHome(std::make_shared<FakeUserDirectory>("alice", "/home/alice"), "/else/where");
  EXPECT_EQ(user->loginName(), "alice");
}

TEST(UserWithHome, HasThatHome) {
  const auto user = userWithHome(std::make_shared<FakeUserDirectory>("alice", "/home/alice"), "/else/where");
  EXPECT_EQ(user->homeOf("alice"), "/else/where");
}

TEST(UserWithHome, HasThatHomeForAUserWhomNobodyKnows) {
  const auto user = userWithHome(std::make_shared<FakeUserDirectory>("", ""), "/else/where");
  EXPECT_EQ(user->homeOf(user->loginName()), "/else/where");
}

class PrivateHomeHostTest : public HostTest {};

TEST_F(PrivateHomeHostTest, LetsAHostUseAModuleFromAnywhere) {
  const auto outcome = PrivateHome::create(kScriptedModule);
  const auto* privateHome = std::get_if<std::unique_ptr<PrivateHome>>(&outcome);
  ASSERT_TRUE(privateHome);
  PlatformServices mine = services();
  mine.user = userWithHome(std::make_shared<FakeUserDirectory>("", ""), (*privateHome)->path());
  Host anew{mine};
  EXPECT_TRUE(std::holds_alternative<InsertedCard>(anew.insert(Text{})));
  leavesOpen({kCardSession});
}

}  // namespace
}  // namespace mirel::test
