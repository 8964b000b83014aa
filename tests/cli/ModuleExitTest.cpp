/// A module that ends the process.

#include <gmock/gmock.h>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kFindsLeaks = true;
#elif defined(__has_feature)
constexpr bool kFindsLeaks = __has_feature(address_sanitizer);
#else
constexpr bool kFindsLeaks = false;
#endif

class ModuleExit : public EndToEndTest {
 protected:
  ModuleExit() : EndToEndTest{{{}}} {}
};

TEST_F(ModuleExit, IsNoSuccess) {
  const std::string ended = "the card's software ended the program: it called exit";
  const std::string sign = "sign --key 01 --out " + path("out");
  const std::pair<std::string, std::string> rows[] = {
      {"login", "C_Login"}, {"login --json", "C_Login"}, {sign, "C_SignInit"}, {sign, "C_Sign"}};
  for (const auto& [command, function] : rows)
    expectFailures(
        {{command, 13, {ended + " in " + function + "; ask the card's maker"}, "", {{"EXIT", function}}}});
  for (const char* command : {"readers", "items --json", "certificate --key 01"})
    expectFailures({{command, 13, {ended}, "", {{"EXIT", "C_GetTokenInfo"}}}});
}

TEST_F(ModuleExit, DoesNotChangeTheExitCodeWhenTheModuleIsUnloaded) {
  if (kFindsLeaks) GTEST_SKIP() << "the check for leaks comes after the module's end";
  expectFailures({{"login --pin-file " + write("wrong", kWrongPin),
                   7,
                   {"did not accept the PIN"},
                   "",
                   {{"EXIT", "end"}}}});
}

TEST_F(ModuleExit, OfAChildOfTheModuleIsItsOwnAffair) {
  expectOutput(run(stagedWithPin("login", {{"EXIT", "child"}})), "The card accepts the PIN.\n");
}

TEST_F(ModuleExit, LeavesTheTerminalAsItWas) {
  const std::pair<const char*, Stage> rows[] = {{"at the prompt", {{"EXIT_FILE", path("now")}}},
                                                {"after the prompt", {{"EXIT", "C_Login"}}}};
  for (const auto& [name, stage] : rows) {
    SCOPED_TRACE(name);
    PseudoTerminal terminal;
    const std::string before = terminal.settings();
    Invocation call = staged("login", stage);
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor("PIN for "));
    ASSERT_NE(terminal.settings(), before);
    if (stage.contains("EXIT")) {
      terminal.type(std::string{kPin} + "\r");
    } else {
      (void)write("now", "");
    }
    const Result result = child.wait();
    EXPECT_EQ(result.exitCode, 13);
    EXPECT_THAT(result.err, HasSubstr("the card's software ended the program: it called exit"));
    EXPECT_EQ(terminal.settings(), before);
  }
}

}  // namespace
}  // namespace mirel::test
