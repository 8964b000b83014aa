#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>

#include "EndToEndTest.h"
#include "cardmaker/SoftHsm.h"
#include "support/ModuleHome.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kModuleTail = "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";

/// How to find the module, and what is said when it is of no use.
class ModuleChoice : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    if (!IsSkipped()) makeCards(kOneCard);
  }

  /// The same with a password database in which `home` is the user's home; empty: which knows no user.
  [[nodiscard]] static Invocation atHome(Invocation call, const std::string& home) {
    if (!home.empty()) call.environment["MIREL_TEST_HOME"] = home;
    return preloaded(std::move(call));
  }
  [[nodiscard]] Invocation items(const Arguments& choice = "") const {
    return invocation("items --json" + choice);
  }
  /// The items of the card, as they are when nothing goes wrong.
  void expectItems(const Invocation& call) const {
    SCOPED_TRACE(::testing::PrintToString(call.arguments));
    expectOutput(run(call), mireltoken("items --json").out);
  }
};

/// Everything below a folder, with its time: files with what they hold, links with where they lead.
std::map<std::string, std::string> snapshot(const fs::path& folder) {
  std::map<std::string, std::string> entries{
      {"", std::to_string(fs::last_write_time(folder).time_since_epoch().count())}};
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator{folder}) {
    std::string& value = entries[entry.path().string()];
    if (entry.is_symlink()) {
      value = "link to " + fs::read_symlink(entry).string();
    } else if (entry.is_regular_file()) {
      value = contentOf(entry.path().string());
    }
  }
  return entries;
}

TEST_F(ModuleChoice, IsTheOneInTheHomeOfThePasswordDatabaseWhateverTheEnvironmentSays) {
  const ModuleHome home{softHsmModule()};
  const ModuleHome bogus{MIREL_NOT_A_LIBRARY};
  expectItems(atHome(items(), home.home()));
  Invocation call = items();
  call.environment["HOME"] = bogus.home();
  call.environment["USER"] = "nobody";
  call.environment["LOGNAME"] = "nobody";
  expectItems(atHome(call, home.home()));
}

TEST_F(ModuleChoice, IsNotTheOneInTheEnvironmentsHome) {
  const ModuleHome home{""};
  const ModuleHome bogus{softHsmModule()};
  Invocation call = items();
  call.environment["HOME"] = bogus.home();
  expectJsonFailure(run(atHome(call, home.home())), 3, {home.modulePath(), "No such file or directory"});
}

TEST_F(ModuleChoice, AsksTheRealPasswordDatabase) {
  const passwd* entry = getpwuid(geteuid());
  ASSERT_NE(entry, nullptr);
  Invocation call = invocation("readers -v");
  call.environment["HOME"] = "/nowhere";
  call.environment["USER"] = "nobody";
  EXPECT_THAT(run(call).err,
              HasSubstr(std::string{"P11Bridge path = "} + entry->pw_dir + kModuleTail + "\n"));
}

TEST_F(ModuleChoice, NeedsAHomeUnlessAModuleIsGiven) {
  expectJsonFailure(run(atHome(items(), "")), 3, {"no home", "--home"});
  expectItems(atHome(onSoftHsm("items --json"), ""));
}

TEST_F(ModuleChoice, FindsNothingFromAFolderThatWasRemoved) {
  Invocation call = invocation("readers --home relative");
  const std::string gone = (folder() / "gone").string();
  const std::string change =
      "mkdir '" + gone + "' && cd '" + gone + "' && rmdir '" + gone + "' && exec \"$@\"";
  call.arguments.insert(call.arguments.begin(), {"-c", change, "sh", call.program.string()});
  call.program = "/bin/sh";
  expectFailure(run(call), 3, {"relative/", "No such file or directory"});
}

TEST_F(ModuleChoice, TakesTheHomeOrTheModuleThatIsGiven) {
  const ModuleHome home{softHsmModule()};
  const fs::path link = folder() /
                        "my m\xC3\xB6"
                        "dule";
  fs::create_symlink(softHsmModule(), link);
  expectItems(items({"--module", link.string()}));
  // The working folder, and so the way from it, may belong to somebody else.
  for (const std::string& folder :
       {home.home(), home.home() + "/", home.home() + "/./Library/../", fs::relative(home.home()).string()})
    expectItems(items({"--trust-module", "--home", folder}));
  const fs::path relative = fs::relative(softHsmModule());
  ASSERT_TRUE(relative.is_relative());
  expectItems(items({"--trust-module", "--module", relative.string()}));
}

TEST_F(ModuleChoice, LeavesTheUsersHomeAloneWhenAModuleIsGiven) {
  for (const char* inHome : {"", MIREL_NOT_A_LIBRARY}) {
    const ModuleHome home{inHome};
    const auto before = snapshot(home.home());
    expectItems(atHome(onSoftHsm("items --json"), home.home()));
    EXPECT_EQ(run(atHome(items({"--module", MIREL_NOT_A_LIBRARY}), home.home())).exitCode, 3);
    EXPECT_EQ(snapshot(home.home()), before);
    const Result verbose = run(atHome(onSoftHsm("readers -v"), home.home()));
    EXPECT_EQ(verbose.exitCode, 0);
    EXPECT_THAT(verbose.err, HasSubstr("P11Bridge path = " + home.modulePath() + "\n"));
  }
}

TEST_F(ModuleChoice, LeavesNothingBehindWhateverEndsIt) {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGALRM, SIGKILL}) {
    SCOPED_TRACE(signal);
    Invocation call = staged("items", {{"PAUSE", "entry"}});
    call.signal = signal;
    call.signalFile = path("calls");
    EXPECT_EQ(run(call).exitCode, 128 + signal);
    EXPECT_TRUE(exists("calls"));
    EXPECT_TRUE(fs::is_empty(temporaryFiles()));
  }
}

TEST_F(ModuleChoice, NeedsNoFolderForTemporaryFiles) {
  Invocation call = onSoftHsm("items --json");
  call.environment["TMPDIR"] = "/proc";  // takes no folders, not even from root
  expectItems(call);
}

TEST_F(ModuleChoice, RefusesAModuleThatSomebodyElseMayChangeUnlessItIsTrusted) {
  fs::create_directory(path("writable"));
  const std::string module = path("writable/module.so");
  fs::create_symlink(softHsmModule(), module);
  const ModuleHome home{module};
  ASSERT_EQ(chmod(path("writable").c_str(), 0777), 0);
  for (const std::string& choice : {"--module " + module, "--home " + home.home()}) {
    expectJsonFailure(run(items(choice)), 3,
                      {"somebody else may change the folder " + path("writable") + ", which belongs to ",
                       "has mode 0777", "--trust-module"});
    expectItems(items(choice + " --trust-module"));
  }
}

TEST_F(ModuleChoice, FailsForAModuleThatIsOfNoUse) {
  const std::pair<std::string, const char*> modules[] = {
      {"/nowhere/module.so", "No such file or directory"},
      {write("text", std::string(1000, 'x')), "it is no library"},
      {MIREL_MODULE_ENTRY_FAILS, "C_GetFunctionList answered CKR_GENERAL_ERROR (0x5)"},
  };
  for (const auto& [module, reason] : modules) {
    SCOPED_TRACE(module);
    for (const char* command : {"readers", "items"}) {
      const Result result = run(invocation({command, "--trust-module", "--module", module}));
      expectFailure(result, 3, {"module " + module + " ", reason});
    }
  }
}

TEST_F(ModuleChoice, FailsForAModuleThatDoesNotInitialise) {
  for (const char* command : {"readers", "items"}) {
    Invocation call = onSoftHsm(command);
    call.environment["SOFTHSM2_CONF"] = "/nowhere/softhsm2.conf";
    expectFailure(run(call), 4, {softHsmModule().string(), "C_Initialize", "CKR_GENERAL_ERROR (0x5)"});
  }
}

TEST_F(ModuleChoice, CanBeAConfiguredName) {
  fs::create_directories(path("settings/pkcs11/modules"));
  (void)write("settings/pkcs11/modules/my-card.module", "module: " + softHsmModule().string() + "\n");
  const auto withSettings = [&](const Arguments& arguments) {
    Invocation call = invocation(arguments);
    call.environment["XDG_CONFIG_HOME"] = path("settings");
    return call;
  };
  expectItems(withSettings("items --json --module my-card"));
  expectFailure(run(withSettings("items --module my-cards")), 3, {"no module of that name", "my-card"});
  ASSERT_EQ(chmod(path("settings/pkcs11/modules/my-card.module").c_str(), 0666), 0);
  expectFailure(run(withSettings("items --module my-card")), 3,
                {"somebody else may change", "--trust-module"});
  expectItems(withSettings("items --json --module my-card --trust-module"));
}

/// `call` with these variables in its environment.
Invocation with(Invocation call, const std::map<std::string, std::string>& variables) {
  for (const auto& [name, value] : variables) call.environment[name] = value;
  return call;
}

TEST_F(ModuleChoice, IsTheEnvironmentsWhereNoOptionSaysMore) {
  const ModuleHome home{softHsmModule()};
  const std::string named = "(MIRELTOKEN_MODULE names it)";
  expectItems(with(items(), {{"MIRELTOKEN_MODULE", softHsmModule().string()}}));
  expectItems(with(onSoftHsm("items --json"), {{"MIRELTOKEN_MODULE", "/nowhere"}}));
  expectItems(with(items("--home " + home.home()), {{"MIRELTOKEN_MODULE", "/nowhere"}}));
  expectItems(atHome(with(items(), {{"MIRELTOKEN_MODULE", ""}}), home.home()));
  expectFailure(run(with(invocation("items"), {{"MIRELTOKEN_MODULE", "/nowhere"}})), 3, {"/nowhere", named});
  expectFailure(run(with(invocation("items"), {{"MIRELTOKEN_MODULE", "/"}})), 3,
                {named, "check the path in MIRELTOKEN_MODULE"});
}

TEST_F(ModuleChoice, OfTheReaderToo) {
  const std::map<std::string, std::string> wrong{{"MIRELTOKEN_READER", "Nobody's"}};
  expectItems(with(onSoftHsm("items --json"), {{"MIRELTOKEN_READER", readerOf("Card")}}));
  expectItems(with(onSoftHsm({"items", "--json", "--reader", readerOf("Card")}), wrong));
  expectFailure(run(with(onSoftHsm("items"), wrong)), 5, {"(MIRELTOKEN_READER names the reader)"});
  EXPECT_THAT(mireltoken({"items", "--reader", "Nobody's"}).err, Not(HasSubstr("MIRELTOKEN_READER")));
  expectOutput(run(with(onSoftHsm("readers"), wrong)), mireltoken("readers").out);
}

TEST_F(ModuleChoice, IsNotTheCallersForAProgramWithOtherRights) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  if (kHasAddressSanitizer)
    GTEST_SKIP() << "the check for leaks cannot look into a program with other rights";
  // The system takes a program for one with other rights when it starts with another effective user.
  Invocation call{
      .program = MIREL_JSON_PYTHON,
      .arguments = {"-c",
                    "import os, sys; f = os.open(sys.argv[1], os.O_RDONLY); os.set_inheritable(f, True); "
                    "os.seteuid(65534); os.execve(f, sys.argv[1:], os.environ)",
                    MIREL_MIRELTOKEN, "readers"}};
  call.environment["MIRELTOKEN_MODULE"] = "/nowhere";
  const Result result = run(call);
  EXPECT_EQ(result.exitCode, 3) << result.err;
  EXPECT_THAT(result.err, ::testing::Not(HasSubstr("/nowhere")));
}

TEST_F(ModuleChoice, NeverChangesTheCard) {
  const auto before = snapshot(path("tokens"));
  for (const char* command : {"readers", "items"}) EXPECT_EQ(mireltoken(command).exitCode, 0);
  EXPECT_EQ(snapshot(path("tokens")), before);
}

}  // namespace
}  // namespace mirel::test
