#include "host/ModuleFile.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/HostTest.h"
#include "platform/DynamicLoader.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kModuleTail = "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";

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

std::string startOfOwnProgram() {
  const auto start = ownImageStart();
  return {start.begin(), start.end()};
}

/// Without the rights of an administrator for a while.
class ScopedPlainUser {
 public:
  ScopedPlainUser() {
    if (old_ == 0) changed_ = seteuid(65534) == 0;
  }
  ScopedPlainUser(const ScopedPlainUser&) = delete;
  ScopedPlainUser& operator=(const ScopedPlainUser&) = delete;
  ~ScopedPlainUser() {
    if (changed_) (void)seteuid(old_);
  }

 private:
  uid_t old_ = geteuid();
  bool changed_ = false;
};

/// With the scripted module in a user's home, and a folder for other modules.
class ModuleFile : public HostTest {
 protected:
  /// Why that module is not chosen; being chosen fails the test.
  [[nodiscard]] Failure refusalOf(const std::optional<std::string>& path) {
    PlatformServices mine = services();
    return failureOf(chooseModule(mine, {path}));
  }
  /// What the loader is asked to open for a host with that module.
  [[nodiscard]] std::vector<std::string> openedFor(const std::optional<std::string>& path) {
    PlatformServices mine = services();
    EXPECT_TRUE(chooseModule(mine, {path, true}));
    loader->calls.clear();
    (void)mine.loader->open((home.home() + kModuleTail).c_str());
    return loader->calls;
  }

  TemporaryFolder folder;
};

TEST_F(ModuleFile, IsOpenedInTheModulesPlaceByItsOwnPath) {
  fs::create_symlink(kScriptedModule, folder.path() / "link.so");
  for (const std::string& path : {std::string{kScriptedModule}, (folder.path() / "link.so").string()})
    EXPECT_THAT(openedFor(path), ElementsAre("open " + fs::canonical(kScriptedModule).string()));
}

TEST_F(ModuleFile, IsUsedByAHostWhateverTheHome) {
  const ModuleHome empty{{}};
  for (const auto& [name, itsHome] : {std::pair{"alice", empty.home()}, {"", std::string{}}}) {
    PlatformServices mine = services();
    mine.user = std::make_shared<FakeUserDirectory>(name, itsHome);
    const auto before = mine.user;
    ASSERT_TRUE(chooseModule(mine, {kScriptedModule, true}));
    EXPECT_TRUE(mine.user == before || itsHome.empty()) << "the user has another home";
    Host anew{mine, kScriptedModule};
    EXPECT_TRUE(anew.insert(Text{}));
  }
  leavesOpen(script.openSessions());
}

TEST_F(ModuleFile, IsTheOneInTheHomeWhenNoneIsNamed) {
  PlatformServices mine = services();
  ASSERT_TRUE(chooseModule(mine, {std::nullopt, true}));
  Host anew{mine};
  EXPECT_TRUE(anew.readers());
  mine = services();
  mine.user = std::make_shared<FakeUserDirectory>("", "");
  ASSERT_TRUE(chooseModule(mine, {std::nullopt, true}));
  Host homeless{mine};
  const Failure failure = failureOf(homeless.readers());
  EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
  EXPECT_THAT(failure.what, HasSubstr("home folder"));
}

TEST_F(ModuleFile, WithoutASlashIsInTheWorkingFolder) {
  const ScopedWorkingFolder inFolder{folder.path()};
  // One that the loader knows, and would find by that name.
  const std::string name = "libc.so.6";
  PlatformServices mine = services();
  ASSERT_TRUE(chooseModule(mine, {name, true}));
  EXPECT_EQ(mine.loader->open((home.home() + kModuleTail).c_str()), nullptr);
  EXPECT_THAT(mine.loader->errorText(), StartsWith(name + ": "));

  fs::copy_file(kModuleWithoutEntry, folder.path() / name);
  mine = services();
  ASSERT_TRUE(chooseModule(mine, {name, true}));
  void* library = mine.loader->open((home.home() + kModuleTail).c_str());
  ASSERT_NE(library, nullptr);
  EXPECT_TRUE(mine.loader->close(library));
}

TEST_F(ModuleFile, LeavesOtherFilesToTheLoader) {
  PlatformServices mine = services();
  ASSERT_TRUE(chooseModule(mine, {kScriptedModule, true}));
  loader->calls.clear();
  EXPECT_EQ(mine.loader->open("/no/such/file"), nullptr);
  EXPECT_THAT(loader->calls, ElementsAre("open /no/such/file"));
}

TEST_F(ModuleFile, IsNamedInTheLoadersTextAsTheUserNamedIt) {
  const ScopedWorkingFolder inFolder{folder.path()};
  std::ofstream{"my module.so", std::ios::binary} << startOfOwnProgram() << std::string(100, '\0');
  // The last name holds the path by which the loader opens the file.
  for (const std::string& name : {std::string{"my module.so"}, std::string{"././my module.so"},
                                  "/" + (fs::canonical(folder.path()) / "my module.so").string()}) {
    SCOPED_TRACE(name);
    PlatformServices mine = services();
    ASSERT_TRUE(chooseModule(mine, {name, true}));
    Host named{mine, name};
    const Failure failure = failureOf(named.readers());
    EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
    EXPECT_EQ(failure.what, "the PKCS #11 module " + name + " cannot be loaded");
    EXPECT_THAT(failure.why, StartsWith(name + ": "));
  }
}

TEST_F(ModuleFile, ThatAppearsLaterIsNotOpened) {
  const fs::path later = folder.path() / "later.so";
  PlatformServices mine = services();
  EXPECT_TRUE(chooseModule(mine, {later.string()}));
  fs::copy_file(kScriptedModule, later);
  EXPECT_FALSE(mine.loader->open((home.home() + kModuleTail).c_str()));
  EXPECT_EQ(mine.loader->errorText(),
            later.string() + ": cannot open shared object file: No such file or directory");
}

TEST_F(ModuleFile, ThatIsMissingIsToldByTheLoader) {
  const std::pair<std::string, const char*> rows[] = {
      {"/no/such\nmodule.so", "No such file or directory"},
      {std::string{kScriptedModule} + "/module.so", "Not a directory"}};
  for (const auto& [name, why] : rows) {
    PlatformServices mine = services();
    ASSERT_TRUE(chooseModule(mine, {name}));
    Host named{mine, name};
    const Failure failure = failureOf(named.readers());
    EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
    EXPECT_THAT(failure.why, EndsWith(why));
  }
}

// ---- What somebody else may change ----

TEST_F(ModuleFile, ThatSomebodyElseMayChangeIsRefusedUnlessItIsTrusted) {
  const std::string path = (folder.path() / "module.so").string();
  fs::copy_file(kModuleWithoutEntry, path);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  const Failure failure = refusalOf(path);
  EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
  EXPECT_EQ(failure.what, "the PKCS #11 module " + path + " is not loaded");
  EXPECT_THAT(failure.why, HasSubstr("somebody else may change the file " + path));
  EXPECT_EQ(failure.advice, UserStep::kRestrictOrTrustModule);
  EXPECT_THAT(openedFor(path), ElementsAre("open " + path));
}

TEST_F(ModuleFile, InTheHomeThatSomebodyElseMayChangeIsRefusedUnlessItIsTrusted) {
  ASSERT_EQ(chmod((home.home() + "/Library").c_str(), 0777), 0);
  const Failure failure = refusalOf(std::nullopt);
  EXPECT_THAT(failure.what, HasSubstr(home.modulePath()));
  EXPECT_THAT(failure.why, HasSubstr("the folder " + home.home() + "/Library,"));
  EXPECT_THAT(openedFor(std::nullopt), ElementsAre("open " + fs::canonical(kScriptedModule).string()));
}

// ---- What is for another system ----

TEST_F(ModuleFile, ForAnotherProcessorIsRefused) {
  const std::string other = (folder.path() / "other.so").string();
  std::ofstream{other, std::ios::binary}
      << std::string{"\x7F" "ELF\x02\x01\x01", 7} + std::string(9, '\0') + std::string{"\x03\0\xB7\0", 4};
  const ModuleHome otherHome{other};
  user = std::make_shared<FakeUserDirectory>("alice", otherHome.home());
  for (const auto& [path, name] :
       {std::pair{std::optional{other}, other}, {std::nullopt, otherHome.modulePath()}}) {
    SCOPED_TRACE(name);
    const Failure failure = refusalOf(path);
    EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
    EXPECT_EQ(failure.what, "the PKCS #11 module " + name + " is not loaded");
    EXPECT_THAT(failure.why, StartsWith("the module is for aarch64"));
  }
}

// ---- What is no file ----

TEST_F(ModuleFile, ThatIsNoRegularFileIsRefused) {
  const std::string pipe = (folder.path() / "pipe").string();
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const ScopedWorkingFolder inFolder{folder.path()};  // the name of a socket must be short
  const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{AF_UNIX, "socket"};
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  (void)close(descriptor);
  fs::create_symlink(pipe, "link");
  const std::pair<std::string, const char*> kRows[] = {{pipe, "it is a pipe"},
                                                       {"link", "it is a pipe"},
                                                       {"socket", "it is a socket"},
                                                       {"/dev/null", "it is a device"},
                                                       {"/", "it is a folder"}};
  for (const auto& [path, why] : kRows) {
    SCOPED_TRACE(path);
    const Failure failure = refusalOf(path);
    EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
    EXPECT_EQ(failure.what, "the PKCS #11 module " + path + " is not loaded");
    EXPECT_EQ(failure.why, why);
    EXPECT_EQ(failure.advice, UserStep::kCheckModulePath);
  }
}

TEST_F(ModuleFile, InTheHomeIsRefusedWhenItIsNoRegularFile) {
  const ModuleHome otherHome{"/dev/null"};
  user = std::make_shared<FakeUserDirectory>("alice", otherHome.home());
  const Failure failure = refusalOf(std::nullopt);
  EXPECT_THAT(failure.what, HasSubstr(otherHome.modulePath()));
  EXPECT_EQ(failure.why, "it is a device");
  EXPECT_EQ(failure.advice, UserStep::kInstallOrNameModule);
}

TEST_F(ModuleFile, ThatIsNoLibraryIsRefused) {
  const std::pair<const char*, const char*> kRows[] = {{"", "it is empty"},
                                                       {"#!/bin/sh\n", "it is no library"}};
  const std::string path = (folder.path() / "module.so").string();
  for (const auto& [content, why] : kRows) {
    std::ofstream{path, std::ios::binary | std::ios::trunc} << content;
    const Failure failure = refusalOf(path);
    EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
    EXPECT_EQ(failure.why, why);
    EXPECT_EQ(failure.advice, UserStep::kCheckModulePath);
  }
}

TEST_F(ModuleFile, ThatIsCutOffIsRefused) {
  const std::string path = (folder.path() / "module.so").string();
  fs::copy_file(kScriptedModule, path);
  fs::resize_file(path, 4096);
  const Failure failure = refusalOf(path);
  EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
  EXPECT_EQ(failure.why, "it is cut off: only 4096 bytes of it are there");
  EXPECT_THAT(failure.advice.words(), HasSubstr("install it again"));
}

TEST_F(ModuleFile, ThatCannotBeReadIsRefusedForThatReason) {
  const std::string path = (folder.path() / "module.so").string();
  fs::copy_file(kScriptedModule, path);
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const ScopedPlainUser plain;
  const Failure failure = refusalOf(path);
  EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
  EXPECT_EQ(failure.why, "it cannot be read: Permission denied");
  EXPECT_THAT(failure.advice.words(), HasSubstr("right to read"));
}

}  // namespace
}  // namespace mirel::test
