#include "platform/ProgramRunner.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace mirel {
namespace {

using enum ProgramAnswer::End;
using std::chrono::milliseconds;

/// What a script of the shell, which is a program like another, comes to.
ProgramAnswer answerOf(const std::string& script, ProgramLimits limits = {}) {
  return programRunnerWith(limits)->run("/bin/sh", {"-c", script});
}

TEST(ProgramRunner, GivesTheOutputAndTheExitCode) {
  const ProgramAnswer answer = answerOf("echo out; echo error >&2; exit 7");
  EXPECT_EQ(answer.end, kExited);
  EXPECT_EQ(answer.code, 7);
  EXPECT_EQ(answer.output, "out\nerror\n");
}

TEST(ProgramRunner, PassesEachArgumentAsItIs) {
  const auto answer = programRunnerWith({})->run("/bin/echo", {"$HOME", "a  b", "'; exit 3"});
  EXPECT_EQ(answer.output, "$HOME a  b '; exit 3\n");
}

TEST(ProgramRunner, TellsAProgramThatIsNotThereFromOneThatDoesNotStart) {
  EXPECT_EQ(programRunnerWith({})->run("/nowhere/program", {}).end, kMissing);
  const ProgramAnswer folder = programRunnerWith({})->run("/", {});
  EXPECT_EQ(folder.end, kNotStarted);
  EXPECT_EQ(folder.code, EACCES);
}

TEST(ProgramRunner, TellsOfASignal) {
  const ProgramAnswer answer = answerOf("kill -SEGV $$");
  EXPECT_EQ(answer.end, kSignal);
  EXPECT_EQ(answer.code, SIGSEGV);
}

TEST(ProgramRunner, GivesTheExitCodeAlsoWhereTheEndOfChildrenIsIgnored) {
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  const ProgramAnswer answer = answerOf("exit 7");
  EXPECT_EQ(answer.end, kExited);
  EXPECT_EQ(answer.code, 7);
  EXPECT_EQ(std::signal(SIGCHLD, before), SIG_IGN);
}

TEST(ProgramRunner, EndsWhatDoesNotEndInTime) {
  for (const char* script :
       {"sleep 60", "exec >&- 2>&-; sleep 60", "sleep 60 & sleep 60", "trap '' TERM; sleep 60"}) {
    SCOPED_TRACE(script);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(answerOf(script, {milliseconds{100}, 1000}).end, kTooSlow);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds{20});
  }
}

TEST(ProgramRunner, EndsWhatDoesNotStopWriting) {
  const ProgramAnswer answer = answerOf("while :; do echo word; done", {std::chrono::seconds{60}, 1000});
  EXPECT_EQ(answer.end, kTooLong);
  EXPECT_EQ(answer.output.size(), 1000U);
  EXPECT_EQ(answerOf("printf 12345", {std::chrono::seconds{60}, 5}).end, kExited);
}

TEST(ProgramRunner, GivesTheProgramNothingToRead) { EXPECT_EQ(answerOf("cat; echo end").output, "end\n"); }

TEST(ProgramRunner, HandsOnNoOpenFileAndNoVariable) {
  const int file = open("/etc/passwd", O_RDONLY);  // without O_CLOEXEC, as a file that holds a PIN may be
  ASSERT_GE(file, 0);
  ASSERT_EQ(setenv("MIREL_SECRET", "word", 1), 0);
  const std::string number = std::to_string(file);
  const ProgramAnswer answer =
      answerOf("if [ -e /dev/fd/" + number + " ]; then echo open; fi; echo \"${MIREL_SECRET-none}\"");
  EXPECT_EQ(answer.output, "none\n");
  EXPECT_GE(fcntl(file, F_GETFD), 0);
  (void)unsetenv("MIREL_SECRET");
  (void)close(file);
}

}  // namespace
}  // namespace mirel
