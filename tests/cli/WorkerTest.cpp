#include "Output.h"
#include "Worker.h"
#include "WorkerPage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <tuple>

#include "support/AddressSanitizer.h"
#include "support/TemporaryFolder.h"

namespace mirel::cli {
namespace {

using std::chrono::seconds;

constexpr std::chrono::milliseconds kTimeForEnd{300};
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Seen {
  ExitCode code;
  std::string err;
};

/// Runs a worker whose work is that.
Seen seenOf(const std::function<void()>& work, const Watch& watch = {seconds{20}, false, kTimeForEnd}) {
  ::testing::internal::CaptureStderr();
  const Result<ExitCode> done = runInWorker(
      [&] {
        work();
        return ExitCode::kKeyNotFound;
      },
      watch);
  const std::string err = ::testing::internal::GetCapturedStderr();
  if (done) return {*done, err};
  return {exitCodeOf(done.failure().kind), err + failureLine(done.failure())};
}

void call(const char* function) { notingObserver()->callStarts(function); }

TEST(Worker, AnswersTheCodeOfItsWork) {
  const Seen seen = seenOf([] {});
  EXPECT_EQ(seen.code, ExitCode::kKeyNotFound);
  EXPECT_THAT(seen.err, IsEmpty());
}

TEST(Worker, KeepsItsCodeWhateverHappensWhileItEnds) {
  if (test::kHasAddressSanitizer) GTEST_SKIP() << "there the code of the end is that of the check for leaks";
  EXPECT_EQ(seenOf([] { std::atexit([] { _exit(1); }); }).code, ExitCode::kKeyNotFound);
  EXPECT_EQ(seenOf([] { std::atexit([] { std::abort(); }); }).code, ExitCode::kKeyNotFound);
}

TEST(Worker, ThatDoesNotEndAfterItsWorkIsEnded) {
  EXPECT_EQ(seenOf([] { std::atexit([] { (void)pause(); }); }).code, ExitCode::kKeyNotFound);
}

TEST(Worker, ThatCrashesNamesTheCallAndTheSignal) {
  if (test::kHasAddressSanitizer) GTEST_SKIP() << "the sanitizer makes an end of its own of a crash";
  const std::pair<int, std::string> rows[] = {
      {SIGSEGV, "the module crashed in C_Sign (SIGSEGV)"},
      {SIGABRT, "the module crashed in C_Sign (SIGABRT)"},
      {SIGUSR1, "the module crashed in C_Sign (signal "},
      // Not by its own doing.
      {SIGKILL, "the program was ended by SIGKILL in C_Sign: somebody ended it, or the system did"}};
  for (const auto& [signal, name] : rows) {
    SCOPED_TRACE(name);
    const Seen seen = seenOf([raised = signal] {
      call("C_Sign");
      (void)raise(raised);
    });
    EXPECT_EQ(seen.code, ExitCode::kModuleCrashed);
    EXPECT_THAT(seen.err, HasSubstr("mireltoken: " + name));
  }
}

TEST(Worker, ThatCrashesOutsideOfCallsBlamesNone) {
  const Seen seen = seenOf([] {
    call("C_Sign");
    notingObserver()->callReturned("C_Sign", 0);
    (void)raise(SIGKILL);
  });
  EXPECT_EQ(seen.code, ExitCode::kModuleCrashed);
  EXPECT_THAT(seen.err, HasSubstr("ended by SIGKILL: no call of the module was under way"));
}

TEST(Worker, ThatIsEndedByTheModuleNamesTheCall) {
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] { call("C_Login"); }, "called exit in C_Login:"},
      {[] { call("C_GetSlotList"); }, "called exit in C_GetSlotList:"},
      {[] {}, "called exit: that is"},
      // What a module that has lost its way leaves there.
      {[] { call("\x1b[31m"); }, "called exit: that is"},
      {[] { call("C_AnEntryWithANameThatIsLongerThanAllOfThem"); }, "called exit in C_AnEntryWithANameThat"}};
  for (const auto& [before, words] : rows) {
    SCOPED_TRACE(words);
    const Seen seen = seenOf([&first = before] {
      first();
      _exit(0);
    });
    EXPECT_EQ(seen.code, ExitCode::kModuleEndedProgram);
    EXPECT_THAT(seen.err, HasSubstr(words));
  }
}

TEST(Worker, IsNotBelievedACodeThatThereIsNot) {
  for (const int code : {-2, 25, 256}) {
    EXPECT_EQ(seenOf([code] {
                workerPage()->code = code;
                _exit(0);
              }).code,
              ExitCode::kModuleEndedProgram)
        << code;
  }
}

TEST(Worker, ThatKnowsAFailureAlreadyHasItToldFirst) {
  const Seen seen = seenOf([] {
    noteFailure({FailureKind::kPinWrong, "the PIN is wrong", "C_Login answered \x1B", "enter it again"});
    call("C_GetTokenInfo");
    _exit(0);
  });
  EXPECT_EQ(seen.code, ExitCode::kPinWrong);
  EXPECT_THAT(seen.err, HasSubstr("the PIN is wrong: C_Login answered \\x1B; after that the module ended the "
                                  "program, it called exit in C_GetTokenInfo; enter it again"));
}

TEST(Worker, ThatHasEndedLeavesTheSignalsToTheUser) {
  const auto waitForUser = [](const WorkerEnd&) {
    (void)raise(SIGTERM);
    while (true) (void)pause();
  };
  EXPECT_EXIT((void)runInWorker(
                  [] {
                    _exit(0);
                    return ExitCode::kSuccess;
                  },
                  {seconds{20}, false, kTimeForEnd}, {}, waitForUser),
              ::testing::KilledBySignal(SIGTERM), "");
}

TEST(Worker, ThatReplaysABadEndTellsItAsRecorded) {
  using recording::BadEnd;
  const std::tuple<BadEnd, ExitCode, std::string> rows[] = {
      {{BadEnd::Kind::kCrashed, "SIGSEGV"},
       ExitCode::kModuleCrashed,
       "the module crashed in C_Sign (SIGSEGV), as recorded: "},
      {{BadEnd::Kind::kExited}, ExitCode::kModuleEndedProgram, "called exit in C_Sign, as recorded: "},
      {{BadEnd::Kind::kHung, "", 7},
       ExitCode::kModuleHangs,
       "the module has not returned from C_Sign for 7 s, as recorded: "}};
  for (const auto& [end, code, words] : rows) {
    const Seen seen = seenOf([&recorded = end] {
      call("C_Sign");
      endWorkerAs(recorded);
    });
    EXPECT_EQ(seen.code, code);
    EXPECT_THAT(seen.err, HasSubstr(words));
  }
}

TEST(Worker, WhoseCallDoesNotReturnIsEnded) {
  const Seen seen = seenOf(
      [] {
        call("C_GetSlotList");
        while (true) (void)pause();
      },
      {seconds{1}, false});
  EXPECT_EQ(seen.code, ExitCode::kModuleHangs);
  EXPECT_THAT(seen.err, HasSubstr("has not returned from C_GetSlotList for 1 s"));
}

TEST(Worker, MayMakeManyCallsThatTakeLongTogether) {
  const Seen seen = seenOf(
      [] {
        for (int i = 0; i < 6; ++i) {
          call("C_Sign");
          (void)usleep(250'000);
        }
      },
      {seconds{1}, true});
  EXPECT_EQ(seen.code, ExitCode::kKeyNotFound);
  EXPECT_THAT(seen.err, IsEmpty());
}

TEST(Worker, MayTakeAnyTimeBetweenCalls) {
  EXPECT_EQ(seenOf([] { (void)usleep(1'500'000); }, {seconds{1}, true}).code, ExitCode::kKeyNotFound);
}

TEST(Worker, WhoseCallTakesLongIsToldOnceAfterTwoSeconds) {
  const auto work = [] {
    call("C_Sign");
    (void)usleep(2'900'000);
  };
  EXPECT_EQ(seenOf(work, {seconds{20}, true}).err,
            "mireltoken: waiting for the module in C_Sign (Ctrl-C ends it)\n");
}

TEST(Worker, ThatIsEndedLeavesTheLastOfItsResults) {
  std::string salvaged;
  const auto salvage = [&](Failure failure, std::string_view noted) {
    salvaged = noted;
    failure.why += "; and more";
    return failure;
  };
  const auto done = runInWorker(
      []() -> ExitCode {
        const bool noted = noteResult("first") && noteResult("the second");
        if (noteResult(std::string(1'000'000, 'x')) || !noted) return ExitCode::kInternal;
        call("C_Sign");
        std::exit(0);
      },
      Watch{seconds{20}, false, kTimeForEnd}, salvage);
  ASSERT_FALSE(done);
  EXPECT_EQ(salvaged, "the second");
  EXPECT_THAT(done.failure().why, ::testing::EndsWith("; and more"));
}

TEST(Worker, ThatDoesItsWorkLeavesNothingToSalvage) {
  const auto done = runInWorker(
      [] {
        (void)noteResult("text");
        return ExitCode::kKeyNotFound;
      },
      Watch{seconds{20}, false, kTimeForEnd},
      [](Failure failure, std::string_view) {
        ADD_FAILURE();
        return failure;
      });
  ASSERT_TRUE(done);
  EXPECT_EQ(*done, ExitCode::kKeyNotFound);
}

TEST(Worker, LeavesNoTemporaryFileAndNoOtherFileIsTakenAway) {
  const test::TemporaryFolder folder;
  for (const auto& [name, stays] : {std::pair{".mireltoken-AbCdEf", false}, std::pair{"mine", true}}) {
    SCOPED_TRACE(name);
    const std::string file = folder.path() / name;
    (void)seenOf([&] {
      std::ofstream{file} << "half";
      const NotedFile noted{file};
      (void)raise(SIGKILL);
    });
    EXPECT_EQ(access(file.c_str(), F_OK) == 0, stays);
  }
}

TEST(Worker, KeepsAFileThatIsWhole) {
  const test::TemporaryFolder folder;
  const std::string file = folder.path() / ".mireltoken-AbCdEf";
  (void)seenOf([&] {
    {
      std::ofstream{file} << "whole";
      const NotedFile noted{file};
    }
    (void)raise(SIGKILL);
  });
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
}

TEST(Worker, NotesTheLoadingOfALibrary) {
  class Loader final : public DynamicLoader {
   public:
    void* open(const char*) noexcept override { _exit(0); }
    void* symbol(void*, const char*) noexcept override { return nullptr; }
    bool close(void*) noexcept override { return true; }
    std::string errorText() noexcept override { return {}; }
  };
  const Seen seen = seenOf([] { (void)notingLoader(std::make_shared<Loader>())->open("module"); });
  EXPECT_THAT(seen.err, HasSubstr("it called exit while it was loaded"));
}

TEST(WorkerDeathTest, EndsTheProgramByTheSignalThatEndedIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    (void)std::signal(signal, SIG_DFL);  // it may be ignored from the start, as by nohup
    EXPECT_EXIT((void)runInWorker([signal]() -> ExitCode { _exit(raise(signal)); }, Watch{}),
                ::testing::KilledBySignal(signal), "");
  }
}

TEST(WorkerDeathTest, GetsTheSignalsOfTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((void)runInWorker(
                  []() -> ExitCode {
                    (void)kill(getppid(), SIGTERM);
                    while (true) (void)pause();
                  },
                  Watch{}),
              ::testing::KilledBySignal(SIGTERM), "");
}

TEST(WorkerDeathTest, ThatIgnoresTheSignalsOfTheProgramIsEnded) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((void)runInWorker(
                  []() -> ExitCode {
                    (void)std::signal(SIGTERM, SIG_IGN);
                    (void)kill(getppid(), SIGTERM);
                    while (true) (void)pause();
                  },
                  {std::nullopt, false, kTimeForEnd}),
              ::testing::KilledBySignal(SIGTERM), "");
}

}  // namespace
}  // namespace mirel::cli
