/// A module that ends the process.

#include <gmock/gmock.h>

#include "KeyTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kFindsLeaks = true;
#elif defined(__has_feature)
constexpr bool kFindsLeaks = __has_feature(address_sanitizer);
#else
constexpr bool kFindsLeaks = false;
#endif

class ModuleExit : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard({{"rsa2048", "01", "Signature"}});
  }
};

TEST_F(ModuleExit, IsNoSuccess) {
  const std::string file = write("pin", kPin);
  const struct {
    const char* function;
    std::vector<std::string> command;
  } rows[] = {
      {"C_Login", {"login", "--pin-file", file}},
      {"C_Login", {"login", "--json", "--pin-file", file}},
      {"C_SignInit", {"sign", "--key", "01", "--out", path("signature"), "--pin-file", file}},
      {"C_Sign", {"sign", "--key", "01", "--out", path("signature"), "--pin-file", file}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.function);
    Invocation call = staged(row.command);
    call.environment["MIREL_STAGED_EXIT"] = row.function;
    expectFailure(run(call), 13,
                  {"the card's software ended the program: it called exit in " + std::string{row.function} +
                   "; ask the card's maker"});
    EXPECT_THAT(filesIn("tmp"), IsEmpty());
  }
  EXPECT_FALSE(std::filesystem::exists(path("signature")));
}

TEST_F(ModuleExit, IsNoSuccessOfACommandWithoutPin) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"readers"}, {"items", "--json"}, {"certificate", "--key", "01"}}) {
    SCOPED_TRACE(command.front());
    Invocation call = staged(command);
    call.environment["MIREL_STAGED_EXIT"] = "C_GetTokenInfo";
    expectFailure(run(call), 13, {"the card's software ended the program: it called exit"});
    EXPECT_THAT(filesIn("tmp"), IsEmpty());
  }
}

TEST_F(ModuleExit, DoesNotChangeTheExitCodeWhenTheModuleIsUnloaded) {
  if (kFindsLeaks) GTEST_SKIP() << "the check for leaks comes after the module's end";
  Invocation call = staged({"login", "--pin-file", write("wrong", kWrongPin)});
  call.environment["MIREL_STAGED_EXIT"] = "end";
  expectFailure(run(call), 7, {"did not accept the PIN"});
}

TEST_F(ModuleExit, OfAChildOfTheModuleIsItsOwnAffair) {
  Invocation call = staged({"login", "--pin-file", write("pin", kPin)});
  call.environment["MIREL_STAGED_EXIT"] = "child";
  const Result result = run(call);
  expectSuccess(result);
  EXPECT_EQ(result.out, "The card accepts the PIN.\n");
}

TEST_F(ModuleExit, LeavesTheTerminalAsItWas) {
  PseudoTerminal terminal;
  const std::string before = terminal.settings();
  Invocation call = staged({"login"});
  call.environment["MIREL_STAGED_EXIT_FILE"] = path("now").string();
  call.terminal = &terminal;
  RunningChild child{call};
  ASSERT_TRUE(terminal.waitFor("PIN for "));
  ASSERT_NE(terminal.settings(), before);
  (void)write("now", "");
  const Result result = child.wait();
  EXPECT_EQ(result.exitCode, 13);
  EXPECT_THAT(result.err, HasSubstr("the card's software ended the program: it called exit; "));
  EXPECT_EQ(terminal.settings(), before);
  EXPECT_THAT(filesIn("tmp"), IsEmpty());
}

TEST_F(ModuleExit, LeavesTheTerminalAsItWasAfterThePrompt) {
  PseudoTerminal terminal;
  const std::string before = terminal.settings();
  Invocation call = staged({"login"});
  call.environment["MIREL_STAGED_EXIT"] = "C_Login";
  call.terminal = &terminal;
  RunningChild child{call};
  ASSERT_TRUE(terminal.waitFor("PIN for "));
  terminal.type(std::string{kPin} + "\r");
  EXPECT_EQ(child.wait().exitCode, 13);
  EXPECT_EQ(terminal.settings(), before);
}

}  // namespace
}  // namespace mirel::test
