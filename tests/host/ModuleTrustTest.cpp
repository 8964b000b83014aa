#include "ModuleTrust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr uid_t kSomebodyElse = 4321;

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
  [[nodiscard]] static std::string troubleOf(const fs::path& path) {
    return traceFile(path.string()).trouble;
  }

  TemporaryFolder folder;
  const fs::path root = fs::canonical(folder.path());
  const fs::path outer = root / "outer";
  const fs::path inner = outer / "inner";
  const fs::path module = inner / "module.so";
};

TEST_F(ModuleTrust, IsThereForAFileThatNobodyElseMayChange) {
  EXPECT_EQ(troubleOf(module), "");
  EXPECT_EQ(traceFile(module.string()).path, module.string());
}

TEST_F(ModuleTrust, EndsWithTheModeThatLetsOthersWrite) {
  struct Row {
    fs::path path;
    mode_t mode;
    const char* words;
  };
  for (const Row& row :
       {Row{module, 0664, "the file "}, Row{module, 0646, "the file "}, Row{inner, 0775, "the folder "},
        Row{inner, 0757, "the folder "}, Row{outer, 0777, "the folder "}, Row{module, 01666, "the file "}}) {
    SCOPED_TRACE(row.path.string() + " " + std::to_string(row.mode));
    const mode_t before = fs::is_directory(row.path) ? 0755 : 0644;
    setMode(row.path, row.mode);
    char mode[8];
    (void)std::snprintf(mode, sizeof mode, "%04o", row.mode);
    EXPECT_THAT(troubleOf(module), AllOf(HasSubstr(row.words + row.path.string() + ","),
                                         HasSubstr(std::string{" and has mode "} + mode)));
    setMode(row.path, before);
  }
  EXPECT_EQ(troubleOf(module), "");
}

TEST_F(ModuleTrust, IsThereInAFolderWithTheStickyBit) {
  setMode(inner, 01777);
  EXPECT_EQ(troubleOf(module), "");
}

TEST_F(ModuleTrust, IsNotThereForWhatBelongsToSomebodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  for (const fs::path& path : {module, inner, outer}) {
    SCOPED_TRACE(path);
    giveAway(path);
    EXPECT_THAT(troubleOf(module), HasSubstr(path.string() + ", which belongs to user 4321 and has mode 0"));
    ASSERT_EQ(lchown(path.c_str(), 0, static_cast<gid_t>(-1)), 0);
  }
}

TEST_F(ModuleTrust, IsNotThereForSomebodyElsesEntryInAFolderWithTheStickyBit) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  setMode(outer, 01777);
  giveAway(inner);
  EXPECT_THAT(troubleOf(module), HasSubstr("the folder " + inner.string() + ","));
}

TEST_F(ModuleTrust, IsThereForAFileOfRoot) {
  // Whoever runs this.
  EXPECT_EQ(troubleOf("/etc/passwd"), "");
}

TEST_F(ModuleTrust, NamesWhatIsNearestToTheRootFolder) {
  setMode(outer, 0777);
  setMode(module, 0666);
  EXPECT_THAT(troubleOf(module), HasSubstr(outer.string() + ","));
}

// ---- Links ----

TEST_F(ModuleTrust, LooksAtTheFoldersOfALinkAndOfItsTarget) {
  const fs::path links = root / "links";
  fs::create_directory(links);
  for (const fs::path& target : {module, fs::path{"../outer/inner/module.so"}}) {
    SCOPED_TRACE(target);
    const fs::path link = links / "link.so";
    fs::create_symlink(target, link);
    EXPECT_EQ(traceFile(link.string()).path, module.string());
    EXPECT_EQ(troubleOf(link), "");
    setMode(links, 0777);
    EXPECT_THAT(troubleOf(link), HasSubstr("the folder " + links.string() + ","));
    setMode(links, 0755);
    setMode(inner, 0777);
    EXPECT_THAT(troubleOf(link), HasSubstr("the folder " + inner.string() + ","));
    setMode(inner, 0755);
    fs::remove(link);
  }
}

TEST_F(ModuleTrust, LooksAtTheFoldersOfALinkToAFolder) {
  const fs::path links = root / "links";
  fs::create_directory(links);
  fs::create_symlink(inner, links / "folder");
  setMode(links, 0777);
  EXPECT_THAT(troubleOf(links / "folder" / "module.so"), HasSubstr("the folder " + links.string() + ","));
}

TEST_F(ModuleTrust, IsNotThereForALinkOfSomebodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const fs::path link = root / "link.so";
  fs::create_symlink(module, link);
  giveAway(link);
  EXPECT_THAT(troubleOf(link), HasSubstr("the link " + link.string() + ", which belongs to user 4321"));
}

TEST_F(ModuleTrust, FollowsTheNamesForAFolderAndTheOneAboveIt) {
  fs::create_symlink("inner", outer / "link");
  const fs::path path = outer / "." / "link" / ".." / "inner" / "module.so";
  EXPECT_EQ(traceFile(path.string()).path, module.string());
  EXPECT_EQ(traceFile("/../" + module.relative_path().string()).path, module.string());
}

TEST_F(ModuleTrust, FollowsARelativePath) {
  const fs::path before = fs::current_path();
  fs::current_path(outer);
  const TracedFile traced = traceFile("inner/module.so");
  fs::current_path(before);
  EXPECT_EQ(traced.path, module.string());
}

TEST_F(ModuleTrust, FindsNoFileWhereThereIsNone) {
  fs::create_symlink("nothing", root / "dangling");
  fs::create_symlink("loop", root / "loop");
  for (const std::string& path : {std::string{}, (root / "nothing").string(), (root / "dangling").string(),
                                  (root / "loop").string(), module.string() + "/", module.string() + "/."}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(traceFile(path).path, "");
  }
}

}  // namespace
}  // namespace mirel::test
