#include "host/ModuleLookup.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>

#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

/// Folders of a user, an administrator and packages, with no module.
class ModuleLookup : public ::testing::Test {
 protected:
  ModuleLookup() {
    for (const std::string& each : folders_.configurations) fs::create_directory(each);
  }
  void configure(const std::string& folder, const std::string& name, std::string_view text) const {
    std::ofstream{folder_.path() / folder / (name + ".module"), std::ios::binary} << text;
  }
  [[nodiscard]] std::string fileOf(const std::string& name) const {
    const auto file = moduleFileFor(name, folders_, false);
    return file ? *file : "failure: " + file.failure().why;
  }
  [[nodiscard]] std::string path(const std::string& name) const { return folder_.path() / name; }

  TemporaryFolder folder_;
  ModuleFolders folders_{{path("user"), path("administrator"), path("packages")}, "/modules"};
};

TEST_F(ModuleLookup, FindsTheFileThatAConfigurationNames) {
  const std::pair<std::string_view, const char*> rows[] = {
      {"module: /usr/lib/card.so\n", "/usr/lib/card.so"},
      {"module: card.so\n", "/modules/card.so"},
      {"module:sub/card.so", "/modules/sub/card.so"},
      {"# a note: none\r\n\n \t\npriority: 3\n  module \t:  my card.so \t\r\nmodule: other.so\n",
       "/modules/my card.so"},
      {"module: a:b.so\n", "/modules/a:b.so"},
  };
  for (const auto& [text, file] : rows) {
    configure("packages", "card", text);
    EXPECT_EQ(fileOf("card"), file) << text;
  }
}

TEST_F(ModuleLookup, TakesTheUsersBeforeTheAdministratorsBeforeThePackages) {
  configure("packages", "card", "module: packages.so");
  EXPECT_EQ(fileOf("card"), "/modules/packages.so");
  configure("administrator", "card", "module: administrator.so");
  EXPECT_EQ(fileOf("card"), "/modules/administrator.so");
  configure("user", "card", "priority: 1\nmodule:\n");  // names no file: the next one does
  EXPECT_EQ(fileOf("card"), "/modules/administrator.so");
  configure("user", "card", "module: user.so");
  EXPECT_EQ(fileOf("card"), "/modules/user.so");
}

TEST_F(ModuleLookup, LeavesAFileToTheUserWhoNamesOne) {
  for (const char* name : {"/nowhere/card.so", "./card", "sub/card"}) EXPECT_EQ(fileOf(name), name);
  configure("user", "card", "module: user.so");
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  fs::create_directory("card");
  EXPECT_EQ(fileOf("card"), "/modules/user.so") << "a folder is no module";
  fs::remove(path("user/card.module"));
  EXPECT_EQ(fileOf("card"), "card") << "what it is, is told later";
  fs::remove("card");
  std::ofstream{"card"} << "";
  EXPECT_EQ(fileOf("card"), "card");
  fs::current_path(before);
}

TEST_F(ModuleLookup, TakesANameThatIsNotKnownForAMissingFileWhereThatIsExamined) {
  EXPECT_EQ(*moduleFileToExamine("card", folders_, false), "card");
  configure("user", "card", "module: user.so");
  EXPECT_EQ(*moduleFileToExamine("card", folders_, false), "/modules/user.so");
}

TEST_F(ModuleLookup, NamesTheModulesThatAreConfigured) {
  EXPECT_THAT(fileOf("card"), ::testing::EndsWith("no module of that name is configured"));
  configure("packages", "b.1", "module: b.so");
  configure("user", "a-card", "module: a.so");
  configure("administrator", "a-card", "module: a.so");
  configure("user", ".hidden", "module: h.so");
  std::ofstream{path("user/other.conf")} << "module: c.so";
  EXPECT_THAT(fileOf("card"), ::testing::EndsWith("; there are: a-card, b.1"));
  EXPECT_THAT(fileOf("a-crad"), HasSubstr(" (did you mean \"a-card\"?); there are: "));
  EXPECT_THAT(fileOf(".hidden"), HasSubstr("no module of that name"));
}

TEST_F(ModuleLookup, RefusesAConfigurationThatIsNone) {
  using namespace std::string_view_literals;
  const std::pair<std::string_view, const char*> texts[] = {
      {"a line\nmodule: card.so", "line 1, is not of the form \"key: value\""},
      {"# note\nmodule: card\0.so"sv, "line 2, is not of the form"},
  };
  for (const auto& [text, why] : texts) {
    configure("user", "card", text);
    EXPECT_THAT(fileOf("card"), HasSubstr(why));
  }
  configure("user", "card", std::string(65537, '#'));
  EXPECT_THAT(fileOf("card"), HasSubstr("is too long"));
  fs::remove(path("user/card.module"));
  ASSERT_EQ(mkfifo(path("user/card.module").c_str(), 0600), 0);
  EXPECT_THAT(fileOf("card"), HasSubstr("is no file"));
}

TEST_F(ModuleLookup, RefusesAConfigurationThatSomebodyElseMayChangeUnlessItIsTrusted) {
  configure("packages", "card", "module: packages.so");
  configure("user", "card", "module: user.so");
  ASSERT_EQ(chmod(path("user/card.module").c_str(), 0666), 0);
  EXPECT_THAT(fileOf("card"), HasSubstr("somebody else may change the file"));
  const auto trusted = moduleFileFor("card", folders_, true);
  ASSERT_TRUE(trusted);
  EXPECT_EQ(*trusted, "/modules/user.so");
}

}  // namespace
}  // namespace mirel::test
