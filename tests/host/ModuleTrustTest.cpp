#include "ModuleTrust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr uid_t kSomebodyElse = 4321;
constexpr gid_t kSomeGroup = 4321;

/// With "outer/inner/module.so", all of which nobody else may change.
class ModuleTrust : public ::testing::Test {
 protected:
  ModuleTrust() {
    fs::create_directories(inner);
    std::ofstream{module} << "a module";
    setMode(outer, 0755);
    setMode(inner, 0755);
    setMode(module, 0644);
  }

  static void setMode(const fs::path& path, mode_t mode) { ASSERT_EQ(chmod(path.c_str(), mode), 0) << path; }
  static void giveAway(const fs::path& path) {
    ASSERT_EQ(lchown(path.c_str(), kSomebodyElse, static_cast<gid_t>(-1)), 0) << path;
  }
  /// Gives the file or folder that mode for as long as it takes to look.
  void expectExposureWith(const fs::path& path, mode_t mode) const {
    char text[8];
    (void)std::snprintf(text, sizeof text, "%04o", mode);
    SCOPED_TRACE(path.string() + " " + text);
    const bool isFolder = fs::is_directory(path);
    setMode(path, mode);
    EXPECT_THAT(exposureOf(module),
                AllOf(HasSubstr((isFolder ? "the folder " : "the file ") + path.string() + ","),
                      HasSubstr(std::string{" and has mode "} + text)));
    setMode(path, isFolder ? 0755 : 0644);
  }
  /// Empty when nobody else may change it.
  [[nodiscard]] static std::string exposureOf(const fs::path& path) {
    const auto traced = traceFile(path.string());
    EXPECT_TRUE(traced) << path;
    return traced ? traced->exposure.value_or("") : "there is no such file";
  }

  TemporaryFolder folder;
  const fs::path root = fs::canonical(folder.path());
  const fs::path outer = root / "outer";
  const fs::path inner = outer / "inner";
  const fs::path module = inner / "module.so";
};

TEST_F(ModuleTrust, IsThereForAFileThatNobodyElseMayChange) {
  EXPECT_EQ(exposureOf(module), "");
  EXPECT_EQ(traceFile(module.string()).value().path, module.string());
}

TEST_F(ModuleTrust, EndsWithTheModeThatLetsOthersWrite) {
  for (const fs::path& path : {module, inner, outer}) {
    const bool isFolder = fs::is_directory(path);
    expectExposureWith(path, isFolder ? 0757 : 0646);
    expectExposureWith(path, isFolder ? 0777 : 0666);
  }
  expectExposureWith(module, 01666);
  EXPECT_EQ(exposureOf(module), "");
}

TEST_F(ModuleTrust, EndsWithTheModeThatLetsAGroupWrite) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files to any group";
  for (const fs::path& path : {module, inner, outer}) {
    ASSERT_EQ(lchown(path.c_str(), static_cast<uid_t>(-1), kSomeGroup), 0);
    expectExposureWith(path, fs::is_directory(path) ? 0775 : 0664);
  }
}

TEST_F(ModuleTrust, IsThereWhereTheGroupIsHarmless) {
  if (geteuid() != 0) GTEST_SKIP() << "others need not have a group for themselves";
  setMode(inner, 0775);
  setMode(module, 0664);
  EXPECT_EQ(exposureOf(module), "");
}

TEST(HarmlessGroup, HasNobodyButThisUserAndRoot) {
  char ada[] = "ada";
  char bob[] = "bob";
  char staff[] = "staff";
  char admin[] = "admin";
  char root[] = "root";
  char* nobody[] = {nullptr};
  char* adaAlone[] = {ada, nullptr};
  char* both[] = {ada, bob, nullptr};
  passwd user{};
  user.pw_name = ada;
  user.pw_gid = 1000;
  const struct {
    const char* description;
    char* name;
    gid_t id;
    char** members;
    bool isHarmless;
  } rows[] = {
      {"her own", ada, 1000, nobody, true},
      {"her own, with her named", ada, 1000, adaAlone, true},
      {"root's", root, 0, nobody, true},
      {"root's, with somebody else", root, 0, both, false},
      {"one called as the administrators'", admin, 1002, both, false},
      {"the administrators'", admin, 80, both, true},
      {"her own with somebody else", ada, 1000, both, false},
      {"of her name, but not her own", ada, 1001, nobody, false},
      {"her own, of another name", staff, 1000, nobody, false},
      {"another", staff, 50, nobody, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    group entry{};
    entry.gr_name = row.name;
    entry.gr_gid = row.id;
    entry.gr_mem = row.members;
    EXPECT_EQ(isHarmless(entry, user), row.isHarmless);
  }
}

TEST_F(ModuleTrust, IsThereInAFolderWithTheStickyBitAndForAFileOfRoot) {
  setMode(inner, 01777);
  EXPECT_EQ(exposureOf(module), "");
  // Whoever runs this.
  EXPECT_EQ(exposureOf("/etc/passwd"), "");
}

TEST_F(ModuleTrust, IsNotThereForWhatBelongsToSomebodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  for (const fs::path& path : {module, inner, outer}) {
    SCOPED_TRACE(path);
    giveAway(path);
    EXPECT_THAT(exposureOf(module), HasSubstr(path.string() + ", which belongs to user 4321 and has mode 0"));
    ASSERT_EQ(lchown(path.c_str(), 0, static_cast<gid_t>(-1)), 0);
  }
  const fs::path link = root / "link.so";
  fs::create_symlink(module, link);
  giveAway(link);
  EXPECT_THAT(exposureOf(link), HasSubstr("the link " + link.string() + ", which belongs to user 4321"));
  // The sticky bit keeps nobody from changing what is his.
  setMode(outer, 01777);
  giveAway(inner);
  EXPECT_THAT(exposureOf(module), HasSubstr("the folder " + inner.string() + ","));
}

TEST_F(ModuleTrust, NamesWhatIsNearestToTheRootFolder) {
  setMode(outer, 0777);
  setMode(module, 0666);
  EXPECT_THAT(exposureOf(module), HasSubstr(outer.string() + ","));
}

// ---- Links ----

TEST_F(ModuleTrust, LooksAtTheFoldersOfALinkAndOfItsTarget) {
  const fs::path links = root / "links";
  fs::create_directory(links);
  for (const fs::path& target : {module, fs::path{"../outer/inner/module.so"}}) {
    SCOPED_TRACE(target);
    const fs::path link = links / "link.so";
    fs::create_symlink(target, link);
    EXPECT_EQ(traceFile(link.string()).value().path, module.string());
    EXPECT_EQ(exposureOf(link), "");
    setMode(links, 0777);
    EXPECT_THAT(exposureOf(link), HasSubstr("the folder " + links.string() + ","));
    setMode(links, 0755);
    setMode(inner, 0777);
    EXPECT_THAT(exposureOf(link), HasSubstr("the folder " + inner.string() + ","));
    setMode(inner, 0755);
    fs::remove(link);
  }
}

TEST_F(ModuleTrust, LooksAtTheFoldersOfALinkToAFolder) {
  const fs::path links = root / "links";
  fs::create_directory(links);
  fs::create_symlink(inner, links / "folder");
  setMode(links, 0777);
  EXPECT_THAT(exposureOf(links / "folder" / "module.so"), HasSubstr("the folder " + links.string() + ","));
}

TEST_F(ModuleTrust, FollowsRelativePathsAndTheNamesForAFolderAndTheOneAboveIt) {
  fs::create_symlink("inner", outer / "link");
  const fs::path path = outer / "." / "link" / ".." / "inner" / "module.so";
  EXPECT_EQ(traceFile(path.string()).value().path, module.string());
  EXPECT_EQ(traceFile("/../" + module.relative_path().string()).value().path, module.string());
  const fs::path before = fs::current_path();
  fs::current_path(outer);
  const TracedFile traced = traceFile("inner/module.so").value();
  fs::current_path(before);
  EXPECT_EQ(traced.path, module.string());
}

TEST_F(ModuleTrust, FindsNoFileWhereThereIsNone) {
  fs::create_symlink("nothing", root / "dangling");
  fs::create_symlink("loop", root / "loop");
  for (const std::string& path : {std::string{}, (root / "nothing").string(), (root / "dangling").string(),
                                  (root / "loop").string(), module.string() + "/", module.string() + "/."}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(traceFile(path));
  }
}

}  // namespace
}  // namespace mirel::test
