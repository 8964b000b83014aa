#include <gmock/gmock.h>
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
using ::testing::HasSubstr;

constexpr const char* kOneCard =
    "token label=Card\n"
    "public type=p256 id=01 label=Key\n"
    "certificate type=p256 id=01 label=Certificate usage=keyAgreement\n";

constexpr const char* kModuleTail = "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";

/// How to find the module, and what is said when it is of no use.
class ModuleChoice : public EndToEndTest {
 protected:
  /// Runs with a password database in which `home` is the user's home.
  [[nodiscard]] static Result runAtHome(Invocation call, const std::string& home) {
    call.environment["LD_PRELOAD"] = MIREL_PASSWORD_DATABASE;
    call.environment["MIREL_TEST_HOME"] = home;
    // The address sanitizer wants to be loaded first, but has no need to here.
    std::string& options = call.environment["ASAN_OPTIONS"];
    options += (options.empty() ? "" : ":") + std::string{"verify_asan_link_order=0"};
    return run(call);
  }

  /// The items of the card, as they are when nothing goes wrong.
  [[nodiscard]] std::string expectedItems() const { return mireltoken({"items", "--json"}).out; }
};

std::string contentOf(const fs::path& path) {
  std::ifstream file{path, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

/// Everything below a folder: files with what they hold, links with where they lead.
std::map<std::string, std::string> snapshot(const fs::path& folder) {
  std::map<std::string, std::string> entries;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator{folder}) {
    std::string& value = entries[entry.path().string()];
    if (entry.is_symlink()) {
      value = "link to " + fs::read_symlink(entry).string();
    } else if (entry.is_regular_file()) {
      value = contentOf(entry);
    }
  }
  return entries;
}

TEST_F(ModuleChoice, IsTheOneInTheHomeOfThePasswordDatabase) {
  makeCards(kOneCard);
  const ModuleHome home{softHsmModule()};
  const Result result = runAtHome(invocation({"items", "--json"}), home.home());
  expectSuccess(result);
  EXPECT_EQ(result.out, expectedItems());
}

TEST_F(ModuleChoice, IgnoresTheEnvironmentsUserAndHome) {
  makeCards(kOneCard);
  const ModuleHome home{softHsmModule()};
  const ModuleHome bogus{MIREL_NOT_A_LIBRARY};
  Invocation call = invocation({"items", "--json"});
  call.environment["HOME"] = bogus.home();
  call.environment["USER"] = "nobody";
  call.environment["LOGNAME"] = "nobody";
  const Result result = runAtHome(call, home.home());
  expectSuccess(result);
  EXPECT_EQ(result.out, expectedItems());
}

TEST_F(ModuleChoice, IsNotTheOneInTheEnvironmentsHome) {
  const ModuleHome home{""};
  const ModuleHome bogus{softHsmModule()};
  Invocation call = invocation({"items"});
  call.environment["HOME"] = bogus.home();
  expectFailure(runAtHome(call, home.home()), 3, {home.modulePath(), "No such file or directory"});
}

TEST_F(ModuleChoice, AsksTheRealPasswordDatabase) {
  const passwd* entry = getpwuid(geteuid());
  ASSERT_NE(entry, nullptr);
  Invocation call = invocation({"readers", "-v"});
  call.environment["HOME"] = "/nowhere";
  call.environment["USER"] = "nobody";
  EXPECT_THAT(run(call).err,
              HasSubstr(std::string{"P11Bridge path = "} + entry->pw_dir + kModuleTail + "\n"));
}

TEST_F(ModuleChoice, FailsWithoutAHome) {
  Invocation call = invocation({"items"});
  call.environment["LD_PRELOAD"] = MIREL_PASSWORD_DATABASE;  // which knows no user without MIREL_TEST_HOME
  call.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0";
  expectFailure(run(call), 3, {"no home", "--home"});
}

TEST_F(ModuleChoice, TakesTheHomeGiven) {
  makeCards(kOneCard);
  const ModuleHome home{softHsmModule()};
  for (const std::string& folder :
       {home.home(), home.home() + "/", home.home() + "/./Library/../", fs::relative(home.home()).string()}) {
    SCOPED_TRACE(folder);
    // The working folder, and so the way from it, may belong to somebody else.
    const Result result = run(invocation({"items", "--json", "--trust-module", "--home", folder}));
    expectSuccess(result);
    EXPECT_EQ(result.out, expectedItems());
  }
}

TEST_F(ModuleChoice, FailsForAHomeWithoutAModule) {
  const ModuleHome home{""};
  expectFailure(run(invocation({"items", "--home", home.home()})), 3,
                {home.modulePath(), "cannot open shared object file: No such file or directory", "--module"});
}

TEST_F(ModuleChoice, FailsForAHomeThatIsNone) {
  expectFailure(run(invocation({"items", "--home", "/nowhere"})), 3,
                {"/nowhere/Library/LunetLocalSignServer/libTorvo_p11v1.dylib", "No such file or directory"});
}

TEST_F(ModuleChoice, TakesAModuleByARelativePath) {
  makeCards(kOneCard);
  const fs::path relative = fs::relative(softHsmModule());
  ASSERT_TRUE(relative.is_relative());
  const Result result = run(invocation({"items", "--json", "--trust-module", "--module", relative.string()}));
  expectSuccess(result);
  EXPECT_EQ(result.out, expectedItems());
}

TEST_F(ModuleChoice, TakesAModuleByALinkWithAnUnusualName) {
  makeCards(kOneCard);
  const fs::path link = folder() /
                        "my m\xC3\xB6"
                        "dule";
  fs::create_symlink(softHsmModule(), link);
  const Result result = run(invocation({"items", "--json", "--module", link.string()}));
  expectSuccess(result);
  EXPECT_EQ(result.out, expectedItems());
}

TEST_F(ModuleChoice, LeavesTheUsersHomeAloneWhenAModuleIsGiven) {
  makeCards(kOneCard);
  for (const char* inHome : {"", MIREL_NOT_A_LIBRARY}) {
    SCOPED_TRACE(inHome);
    const ModuleHome home{inHome};
    const auto before = snapshot(home.home());
    const auto beforeTime = fs::last_write_time(home.home());

    const Result good = runAtHome(onSoftHsm({"items", "--json"}), home.home());
    const Result bad = runAtHome(invocation({"items", "--module", MIREL_NOT_A_LIBRARY}), home.home());

    expectSuccess(good);
    EXPECT_EQ(good.out, expectedItems());
    EXPECT_EQ(bad.exitCode, 3);
    EXPECT_EQ(snapshot(home.home()), before);
    EXPECT_EQ(fs::last_write_time(home.home()), beforeTime);
  }
}

TEST_F(ModuleChoice, LogsTheUsersOwnHome) {
  makeCards(kOneCard);
  const ModuleHome home{""};
  const Result result = runAtHome(onSoftHsm({"readers", "-v"}), home.home());
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, HasSubstr("P11Bridge path = " + home.modulePath() + "\n"));
}

TEST_F(ModuleChoice, NeedsNoHomeWhenAModuleIsGiven) {
  makeCards(kOneCard);
  Invocation call = onSoftHsm({"items", "--json"});
  call.environment["LD_PRELOAD"] = MIREL_PASSWORD_DATABASE;  // which knows no user without MIREL_TEST_HOME
  call.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0";
  const Result result = run(call);
  expectSuccess(result);
  EXPECT_EQ(result.out, expectedItems());
}

TEST_F(ModuleChoice, LeavesNothingBehindWhateverEndsIt) {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGALRM, SIGKILL}) {
    SCOPED_TRACE(signal);
    const fs::path entered = folder() / ("entered" + std::to_string(signal));
    Invocation call = invocation({"items", "--trust-module", "--module", MIREL_HANGING_MODULE});
    call.environment["MIREL_ENTERED_FILE"] = entered.string();
    call.signal = signal;
    call.signalFile = entered;

    const Result result = run(call);

    EXPECT_TRUE(fs::exists(entered));
    EXPECT_EQ(result.exitCode, 128 + signal);
    EXPECT_TRUE(fs::is_empty(temporaryFiles()));
  }
}

TEST_F(ModuleChoice, NeedsNoFolderForTemporaryFiles) {
  makeCards(kOneCard);
  Invocation call = onSoftHsm({"items", "--json"});
  call.environment["TMPDIR"] = "/proc";  // takes no folders, not even from root
  const Result result = run(call);
  expectSuccess(result);
  EXPECT_EQ(result.out, expectedItems());
}

TEST_F(ModuleChoice, FailsAtOnceForAPipe) {
  const fs::path pipe = folder() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  expectFailure(run(invocation({"items", "--module", pipe.string()})), 3,
                {"module " + pipe.string() + " ", "it is a pipe", "--module"});
}

TEST_F(ModuleChoice, RefusesAModuleThatSomebodyElseMayChangeUnlessItIsTrusted) {
  makeCards(kOneCard);
  const fs::path writable = folder() / "writable";
  fs::create_directory(writable);
  fs::create_symlink(softHsmModule(), writable / "module.so");
  const ModuleHome home{writable / "module.so"};
  ASSERT_EQ(chmod(writable.c_str(), 0777), 0);
  for (const std::vector<std::string>& choice :
       {std::vector<std::string>{"--module", (writable / "module.so").string()}, {"--home", home.home()}}) {
    SCOPED_TRACE(choice.front());
    std::vector<std::string> arguments{"items", "--json"};
    arguments.insert(arguments.end(), choice.begin(), choice.end());
    expectFailure(run(invocation(arguments)), 3,
                  {"somebody else may change the folder " + writable.string() + ", which belongs to ",
                   "has mode 0777", "--trust-module"});
    arguments.emplace_back("--trust-module");
    const Result result = run(invocation(arguments));
    expectSuccess(result);
    EXPECT_EQ(result.out, expectedItems());
  }
}

TEST_F(ModuleChoice, NamesTheProcessorThatTheModuleIsFor) {
  // The program's own header, but for a processor that nobody has.
  std::string library = contentOf(MIREL_MIRELTOKEN);
  ASSERT_TRUE(
      library.starts_with("\x7F"
                          "ELF"));
  library[18] = library[19] = '\x27';
  const fs::path module = folder() / "module.so";
  std::ofstream{module, std::ios::binary} << library;
  expectFailure(run(invocation({"items", "--module", module.string()})), 3,
                {"module " + module.string() + " ", "the module is for machine 10023, this program is "});
  const ModuleHome home{module};
  expectFailure(run(invocation({"items", "--home", home.home()})), 3,
                {"module " + home.modulePath() + " ", "the module is for machine 10023, this program is "});
}

struct UselessModule {
  const char* name;
  std::string path;
  std::vector<std::string> reasons;
};

TEST_F(ModuleChoice, FailsForAModuleThatIsOfNoUse) {
  const fs::path longText = folder() / "text";
  std::ofstream{longText} << std::string(1000, 'x');
  const std::vector<UselessModule> modules{
      {"missing", "/nowhere/module.so", {"No such file or directory"}},
      {"short text", MIREL_NOT_A_LIBRARY, {"file too short"}},
      {"text", longText.string(), {"invalid ELF header"}},
      {"folder", "/", {"it is a folder", "--module"}},
      {"library without an entry point", MIREL_MODULE_WITHOUT_ENTRY, {"undefined symbol: C_GetFunctionList"}},
      {"entry point that fails", MIREL_MODULE_ENTRY_FAILS, {"C_GetFunctionList", "CKR_GENERAL_ERROR (0x5)"}},
      {"entry point that fails and writes",
       MIREL_MODULE_ENTRY_FAILS_WILD,
       {"C_GetFunctionList", "CKR_GENERAL_ERROR (0x5)"}},
      {"entry point that gives no list", MIREL_MODULE_NULL_LIST, {"function list"}},
      {"entry point that does nothing", MIREL_MODULE_SILENT_ENTRY, {"function list"}},
  };
  for (const UselessModule& module : modules) {
    SCOPED_TRACE(module.name);
    std::vector<std::string> parts = module.reasons;
    parts.push_back("module " + module.path + " ");
    for (const char* command : {"readers", "items"}) {
      const Result result = run(invocation({command, "--trust-module", "--module", module.path}));
      expectFailure(result, 3, parts);
      EXPECT_TRUE(fs::is_empty(temporaryFiles()));
    }
  }
}

TEST_F(ModuleChoice, FailsForAModuleThatDoesNotInitialise) {
  struct Row {
    const char* name;
    std::string configuration;
  };
  const fs::path nonsense = folder() / "nonsense.conf";
  std::ofstream{nonsense} << "directories.tokendir = " << (folder() / "nowhere").string() << "\n";
  for (const Row& row :
       {Row{"no configuration", "/nowhere/softhsm2.conf"}, Row{"no token folder", nonsense.string()}}) {
    SCOPED_TRACE(row.name);
    for (const char* command : {"readers", "items"}) {
      Invocation call = onSoftHsm({command});
      call.environment["SOFTHSM2_CONF"] = row.configuration;
      const Result result = run(call);
      expectFailure(result, 4, {softHsmModule().string(), "C_Initialize", "CKR_GENERAL_ERROR (0x5)"});
      EXPECT_TRUE(fs::is_empty(temporaryFiles()));
    }
  }
}

TEST_F(ModuleChoice, NeverChangesTheCard) {
  makeCards(kOneCard);
  const auto before = snapshot(folder() / "tokens");
  for (const char* command : {"readers", "items"}) EXPECT_EQ(mireltoken({command}).exitCode, 0);
  EXPECT_EQ(snapshot(folder() / "tokens"), before);
}

}  // namespace
}  // namespace mirel::test
