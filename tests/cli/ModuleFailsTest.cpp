/// A module that ends its process, or keeps it: what the user is told, and what is left.

#include <csignal>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

class ModuleFails : public EndToEndTest {
 protected:
  ModuleFails() : EndToEndTest{{{}}} {}

  /// What is staged by that variable, in commands that come to each function.
  void expectInEachCall(const std::string& stage, int exitCode, const std::string& words,
                        const std::string& options = "") const {
    const std::string sign = "sign --key 01 --out " + path("out") + options;
    const std::pair<std::string, std::string> rows[] = {{"login" + options, "C_Login"},
                                                        {"login --json" + options, "C_Login"},
                                                        {sign, "C_SignInit"},
                                                        {sign, "C_Sign"},
                                                        {"readers" + options, "C_Initialize"},
                                                        {"items --json" + options, "C_GetSlotList"},
                                                        {"certificate --key 01" + options, "C_GetSlotList"}};
    for (const auto& [command, function] : rows) {
      const std::string expected = "the module " + words + function;
      expectFailures({{command, exitCode, {expected}, "", {{stage, function}}}});
    }
  }
};

TEST_F(ModuleFails, ByExit) {
  expectInEachCall("EXIT", 22, "ended the program, it called exit in ");
  for (const char* command : {"readers", "items --json", "certificate --key 01"})
    expectFailures({{command, 22, {"it called exit in C_GetTokenInfo"}, "", {{"EXIT", "C_GetTokenInfo"}}}});
}

TEST_F(ModuleFails, ByACrash) {
  if (kHasAddressSanitizer) GTEST_SKIP() << "the sanitizer makes an end of its own of a crash";
  expectInEachCall("CRASH", 21, "crashed in ");
  expectFailures(
      {{"items", 21, {"the module crashed in C_GetFunctionList (SIGSEGV)"}, "", {{"CRASH", "entry"}}}});
}

TEST_F(ModuleFails, ByNotComingBack) {
  expectFailures({{"sign --key 01 --timeout 1 --out " + path("out"),
                   23,
                   {"the module has not returned from C_Sign for 1 s", "take the card out"},
                   "",
                   {{"PAUSE", "C_Sign"}}},
                  {"items --timeout 1",
                   23,
                   {"has not returned from C_GetFunctionList for 1 s"},
                   "",
                   {{"PAUSE", "entry"}}}});
}

TEST_F(ModuleFails, AfterSomethingElseThatIsToldFirst) {
  const std::string after = "; after that the module has not returned from C_GetTokenInfo for 1 s; ";
  expectFailures(
      {{"login --timeout 1",
        7,
        {"the PIN is wrong", "C_Login answered CKR_PIN_INCORRECT (0xA0)" + after + "enter the PIN"},
        "",
        {{"ANSWERS", "C_Login=A0"}, {"PAUSE_AFTER", "C_Login"}}},
       {"sign --key 01 --timeout 1 --out " + path("out"),
        11,
        {"there is no good signature", "C_Sign answered CKR_FUNCTION_FAILED (0x6)", after},
        "",
        {{"ANSWERS", "C_Sign=6"}, {"PAUSE_AFTER", "C_Sign"}}}});
  EXPECT_FALSE(exists("out"));
}

TEST_F(ModuleFails, AtItsEndWithoutChangingTheExitCode) {
  if (kHasAddressSanitizer) GTEST_SKIP() << "the check for leaks comes after the module's end";
  expectFailures({{"login --pin-file " + write("wrong", kWrongPin),
                   7,
                   {"did not accept the PIN"},
                   "",
                   {{"EXIT", "end"}}}});
}

TEST_F(ModuleFails, InAChildOfItsOwnWithoutHarm) {
  Invocation call = stagedWithPin("login", {{"EXIT", "child"}});
  call.environment["ASAN_OPTIONS"] = "detect_leaks=0";  // the check is for processes with all their threads
  expectOutput(run(call), "The card accepts the PIN.\n");
}

TEST_F(ModuleFails, LeavingTheTerminalAsItWas) {
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
    EXPECT_EQ(result.exitCode, 22);
    EXPECT_THAT(result.err, HasSubstr("the module ended the program, it called exit"));
    EXPECT_EQ(terminal.settings(), before);
  }
}

TEST_F(ModuleFails, WithoutKeepingAProgramThatIsKilled) {
  const RunningChild child{stagedWithPin("login", {{"PAUSE", "C_Login"}})};
  ASSERT_TRUE(waitForStagedCallOf("C_Login"));
  const pid_t worker = child.worker();
  ASSERT_EQ(kill(child.pid(), SIGKILL), 0);
  for (int i = 0; i < 2000 && kill(worker, 0) == 0; ++i) (void)usleep(10000);
  EXPECT_NE(kill(worker, 0), 0) << "the process that works goes on";
}

}  // namespace
}  // namespace mirel::test
