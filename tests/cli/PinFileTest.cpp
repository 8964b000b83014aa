/// The PIN from a file or a descriptor, and what the flags of the card say about trying it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

const std::string kAccepted = "The card accepts the PIN.\n";
constexpr int kDescriptor = 41;

class PinFile : public EndToEndTest {
 protected:
  PinFile() : EndToEndTest{{{}}} {}

  [[nodiscard]] Result logInWith(const std::string& file) const {
    return run(staged({"login", "--pin-file", file}));
  }
  [[nodiscard]] Invocation loginReading(const std::string& content, const Stage& stage = {}) const {
    Invocation call = staged("login --pin-fd " + std::to_string(kDescriptor), stage);
    call.pipes[kDescriptor] = content;
    return call;
  }
  void expectAccepted(const Result& result) const {
    expectOutput(result, kAccepted);
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
  /// The PIN was not tried.
  void expectUntried(const Result& result, int exitCode, const std::vector<std::string>& words) const {
    expectFailure(result, exitCode, words);
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
  void expectRefused(const Result& result, const std::string& why) const {
    expectUntried(result, 14, {"the PIN cannot be read from ", why});
  }
};

TEST_F(PinFile, IsTakenWhenNobodyElseMayReadIt) {
  for (const mode_t mode : {mode_t{0600}, mode_t{0400}, mode_t{0700}}) {
    SCOPED_TRACE(mode);
    expectAccepted(logInWith(write("pin", kPin, mode)));
  }
}

TEST_F(PinFile, IsRefusedWhenOthersMayReadOrChangeIt) {
  for (const mode_t mode :
       {mode_t{0640}, mode_t{0604}, mode_t{0620}, mode_t{0602}, mode_t{0610}, mode_t{0666}, mode_t{0440}}) {
    SCOPED_TRACE(mode);
    expectRefused(logInWith(write("pin", kPin, mode)), "others can read or change it");
  }
}

TEST_F(PinFile, IsRefusedWhenItBelongsToSomebodyElse) {
  // Only root can give a file away; to everybody else, root's are somebody else's.
  std::string file = "/etc/passwd";
  if (geteuid() == 0) {
    file = write("pin", kPin, 0600);
    if (chown(file.c_str(), 4711, 4711) != 0) {
      // As in a user namespace, where what is not mapped belongs to somebody else.
      ASSERT_TRUE(errno == EINVAL || errno == EPERM) << std::strerror(errno);
      file = "/etc/passwd";
      struct stat status {};
      ASSERT_EQ(stat(file.c_str(), &status), 0);
      if (status.st_uid == geteuid()) GTEST_SKIP() << "there is no file of somebody else";
    }
  }
  expectRefused(logInWith(file), "it belongs to somebody else");
}

TEST_F(PinFile, MustBeARegularFile) {
  fs::create_directory(path("folder"));
  fs::permissions(path("folder"), fs::perms::owner_all);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  for (const std::string& name : {path("folder"), path("fifo"), "/dev/null"s})
    expectRefused(logInWith(name), name + ": it is no regular file");
  expectRefused(logInWith(path("missing")), "No such file or directory");
}

TEST_F(PinFile, MayBeReachedByALink) {
  fs::create_symlink(write("pin", kPin), path("link"));
  expectAccepted(logInWith(path("link")));
}

TEST_F(PinFile, CountsWithItsFirstLineHoweverThatEnds) {
  for (const std::string end : {"", "\n", "\r\n", "\r", "\nw4R~mT9v\n"}) {
    SCOPED_TRACE(hexOfBytes(end));
    expectAccepted(logInWith(write("pin", kPin + end)));
  }
  EXPECT_EQ(logInWith(write("pin", kWrongPin + "\n"s + kPin + "\n")).exitCode, 7);
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
}

TEST_F(PinFile, IsNotTriedWhenThatCanBeNoPin) {
  expectUntried(logInWith(write("pin", "")), 9, {"no PIN was given"});
  for (const std::string& content :
       {"\n"s, "123456789"s, std::string(256, '1'), "caf\xC3\xA9"s, "1234567\xC3\xA9"s}) {
    SCOPED_TRACE(content);
    expectUntried(logInWith(write("pin", content)), 18, {"the PIN was not sent to the card: it "});
  }
}

TEST_F(PinFile, IsRefusedWhenItHoldsWhatNoPinHas) {
  const std::string mark = "its first line begins with a byte order mark";
  const std::string blanks = "its first line has blanks or tabs";
  const std::string controls = "its first line has control characters";
  const std::string noText = "its first line is no text in UTF-8";
  const std::pair<std::string, std::string> rows[] = {
      {"\xEF\xBB\xBF"s + kPin, mark},
      {" "s + kPin, blanks},
      {kPin + " \n"s, blanks},
      {"12 34", blanks},
      {"1234\t\n", blanks},
      {"12\0"s + "34", controls},
      {"1234\0"s, controls},
      {"12\x1A"s + "34", controls},
      {"12\x7F", controls},
      {"12\r34", controls},
      {"1234\r\r\n", controls},
      {"\x1B[A1234", controls},
      {"\xFF\xFE"s + "1234", noText},
      {"caf\xC3", noText},
      {std::string(257, '1'), "its first line has more than 256 bytes"},
  };
  for (const auto& [content, why] : rows) {
    SCOPED_TRACE(hexOfBytes(content));
    expectRefused(logInWith(write("pin", content)), why);
    expectRefused(run(loginReading(content)), why);
  }
}

TEST_F(PinFile, IsNotReadWhenTheKeyDoesNotNeedIt) {
  const std::string missing = " --pin-file " + path("missing");
  expectFailures(
      {{"sign --key none" + missing, 12}, {"sign --key 01 --algorithm RSAEncryptionRaw" + missing, 10}});
}

TEST_F(PinFile, IsTriedOnceWhateverTheCardAnswers) {
  const FailingRun rows[] = {
      {"sign --key 01 --out " + path("out"),
       7,
       {"The card did not accept the PIN", "C_Login answered CKR_PIN_INCORRECT (0xA0)"},
       kMessage,
       {{"ANSWERS", "C_Login=A0"}}},
      {"login",
       8,
       {"the PIN of the card is locked", "(0xA4)", "unlock it with the PUK"},
       "",
       {{"ANSWERS", "C_Login=A4"}}},
  };
  for (const FailingRun& row : rows) {
    expectFailures({row});
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
}

class PinDescriptor : public PinFile {};

TEST_F(PinDescriptor, MayBeAPipe) {
  for (const std::string end : {"", "\n", "\r\n"}) {
    SCOPED_TRACE(hexOfBytes(end));
    expectAccepted(run(loginReading(kPin + end)));
  }
  expectUntried(run(loginReading("")), 9, {"no PIN was given"});
}

TEST_F(PinDescriptor, IsReadNoFurtherThanItsFirstLine) {
  const Result right = run(loginReading(kPin + "\nwhat follows\n"s));
  expectAccepted(right);
  EXPECT_EQ(right.leftInPipes.at(kDescriptor), "what follows\n");
  const Result wrong = run(loginReading(kWrongPin + "\n"s + kPin + "\n"));
  expectFailure(wrong, 7, {"C_Login answered CKR_PIN_INCORRECT (0xA0)"});
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  EXPECT_EQ(wrong.leftInPipes.at(kDescriptor), kPin + "\n"s);
}

TEST_F(PinDescriptor, WaitsForTheWholeLine) {
  Invocation call = loginReading(std::string{kPin}.substr(0, 3));
  call.pipesStayOpen = true;
  RunningChild child{call};
  child.writeToPipe(kDescriptor, std::string{kPin}.substr(3) + "\n");
  expectAccepted(child.wait());
}

TEST_F(PinDescriptor, MayBeStandardInputThatHoldsNoData) {
  Invocation call = staged("login --pin-fd 0");
  call.input = kPin + "\n"s;
  expectAccepted(run(call));
  call.arguments =
      staged("sign --key 01 --pin-fd 0 --out " + path("signature") + " --in " + write("message", kMessage))
          .arguments;
  expectSigned(run(call));
  std::vector<FailingRun> rows;
  for (const std::string command : {"sign", "decrypt", "exchange"}) {
    for (const char* in : {"", " --in -"})
      rows.push_back(
          {command + " --key 01 --pin-fd 0 --out " + path("out") + in, 2, {"--pin-fd 0", "standard input"}});
  }
  expectFailures(rows);
}

TEST_F(PinDescriptor, MustBeNoTerminal) {
  const PseudoTerminal terminal;
  Invocation call = staged("login --pin-fd " + std::to_string(kDescriptor));
  call.descriptors[kDescriptor] = open(terminal.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  expectFailure(run(call), 2, {"file descriptor 41 is a terminal, which would show the PIN"});
  (void)close(call.descriptors[kDescriptor]);
  EXPECT_FALSE(exists("calls"));
}

TEST_F(PinDescriptor, MustBeOpen) {
  for (const std::string descriptor : {"3", "4", "5", "41", "1000000", "-1"}) {
    expectFailures({{"login --pin-fd " + descriptor,
                     14,
                     {"the PIN cannot be read from file descriptor", "Bad file descriptor"}}});
  }
  Invocation call = staged("login --pin-fd 0");
  call.inputIsClosed = true;
  expectRefused(run(call), "Bad file descriptor");
}

// A file that the program opens itself gets the number of one that is closed.
TEST_F(PinDescriptor, IsNeverTakenFromTheData) {
  const std::string in = " --in " + write("message", kPin + "\n"s);
  for (const std::string descriptor : {"3", "4", "5", "6", "7", "8"}) {
    expectFailures({{"sign --key 01 --out " + path("out") + in + " --pin-fd " + descriptor,
                     14,
                     {"Bad file descriptor"}}});
  }
}

TEST_F(PinDescriptor, MustBeANumberAndTheOnlySource) {
  expectFailures({{"login --pin-fd three", 2, {"--pin-fd"}},
                  {"login --pin-fd 99999999999", 2, {"--pin-fd"}},
                  {"login --pin-fd 0 --pin-file " + write("pin", kPin), 2, {"--pin-fd", "--pin-file"}}});
}

// ---- What the flags of the card say ----

const Stage kFinalTry{{"TOKEN_FLAGS", "20000"}};
const Stage kLocked{{"TOKEN_FLAGS", "40000"}};
const Stage kBoth{{"TOKEN_FLAGS", "60000"}};
const Stage kCountLow{{"TOKEN_FLAGS", "10000"}};
const Stage kPinPad{{"TOKEN_FLAGS", "100"}};

class PinFlags : public PinFile {
 protected:
  /// The command with the PIN from a file and from a descriptor.
  [[nodiscard]] std::vector<Result> runs(const std::string& command, const Stage& stage) const {
    Invocation fromDescriptor = staged(command + " --pin-fd " + std::to_string(kDescriptor), stage);
    fromDescriptor.pipes[kDescriptor] = kPin;
    return {run(fromDescriptor), run(stagedWithPin(command, stage))};
  }
  /// The token's information fails from the moment when the flags are looked at, just before the PIN is had:
  /// that is the last look of a login that finds no PIN.
  [[nodiscard]] Stage lostTokenInfo() const {
    expectRefused(logInWith(path("none")), "none");
    return {{"TOKEN_INFOS", std::to_string(stagedCallsOf("C_GetTokenInfo") - 1)}};
  }
};

TEST_F(PinFlags, KeepTheLastTryForTheUser) {
  const struct {
    std::string command;
    const Stage& stage;
    const char* why;
  } rows[] = {{"login", kFinalTry, "one more wrong PIN locks the card"},
              {"login", kLocked, "the PIN is locked; unlock it with the PUK, "},
              {"login", kBoth, "the PIN is locked"},
              {"sign --key 01 --out " + path("signature"), kFinalTry, "one more wrong PIN locks the card"}};
  for (const auto& [command, stage, why] : rows) {
    for (const Result& result : runs(command, stage))
      expectUntried(result, 17, {"the PIN was not sent to the card: ", why, "--last-try"});
  }
}

TEST_F(PinFlags, KeepNoOtherTryAndNoneThatTheUserHasGivenAway) {
  const std::pair<std::string, const Stage&> rows[] = {
      {"login --last-try", kFinalTry}, {"login --last-try", kLocked}, {"login", kCountLow}};
  for (const auto& [command, stage] : rows) {
    for (const Result& result : runs(command, stage)) EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
}

TEST_F(PinFlags, KeepTheTryWhenTheyCannotBeRead) {
  for (const Result& result : runs("login", lostTokenInfo())) {
    expectUntried(result, 13,
                  {"the PIN was not sent to the card: whether it could lock the card is not known",
                   "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)", "--last-try"});
  }
}

TEST_F(PinFlags, AreNotThoseOfAnotherCard) {
  // The last look at the token is the one at its flags.
  expectUntried(run(stagedWithPin("login", kFinalTry)), 17, {"one more wrong PIN locks the card"});
  Stage swapped = kFinalTry;
  swapped["SWAP_INFO"] = std::to_string(stagedCallsOf("C_GetTokenInfo"));
  for (const Result& result : runs("login", swapped))
    expectUntried(result, 15, {"another card is in the reader", "9999999999999999"});
}

TEST_F(PinFlags, AreReadOnceMoreWhenADescriptorHasGivenThePin) {
  expectUntried(run(stagedWithPin("login", kFinalTry)), 17, {"one more wrong PIN locks the card"});
  const Stage spentLater{{"LAST_TRY_INFO", std::to_string(stagedCallsOf("C_GetTokenInfo") + 1)}};
  expectUntried(
      run(loginReading(kPin, spentLater)), 17,
      {"the PIN was not sent to the card", "another program has sent a wrong PIN while it was awaited",
       "one more wrong PIN locks the card", "--last-try"});
}

TEST_F(PinFlags, AreNotGuessedAtThePrompt) {
  PseudoTerminal terminal;
  Invocation call = staged("login", lostTokenInfo());
  call.terminal = &terminal;
  RunningChild child{call};
  EXPECT_TRUE(terminal.waitFor("PIN for \"Card\" (whether tries are left is not known): "));
  terminal.type("\x03");
  EXPECT_EQ(child.wait().exitCode, 9);
}

TEST_F(PinFlags, AreNoSignOfAnotherProgramWhereTriesWereNotKnownToBeLeft) {
  expectRefused(logInWith(path("none")), "none");
  const std::pair<Stage, const char*> rows[] = {
      {{{"LOST_INFO", std::to_string(stagedCallsOf("C_GetTokenInfo"))}, {"LAST_TRY", path("spent")}},
       "PIN for \"Card\" (whether tries are left is not known): "},
      {{{"TOKEN_FLAGS", "40000"}, {"LAST_TRY", path("spent")}}, "PIN for \"Card\" (the PIN is locked): "},
  };
  for (const auto& [stage, prompt] : rows) {
    fs::remove(path("spent"));
    PseudoTerminal terminal;
    Invocation call = staged("login", stage);
    call.terminal = &terminal;
    RunningChild child{call};
    EXPECT_TRUE(terminal.waitFor(prompt));
    write("spent", "");
    terminal.type(std::string{kPin} + "\r");
    EXPECT_TRUE(terminal.waitFor("PIN for \"Card\" (one more wrong PIN locks the card): "));
    terminal.type("\x03");
    const Result result = child.wait();
    EXPECT_EQ(result.exitCode, 9);
    EXPECT_THAT(
        result.err,
        StartsWith(
            "mireltoken: the PIN was not sent to the card: the card tells of its last try only now\n"));
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
}

TEST_F(PinFlags, TellOfAPinThatIsTooLong) {
  for (const Result& result : runs("login", {{"MIN_PIN", "11"}}))
    expectUntried(result, 18, {"cannot be entered here: it has 11 characters at least", "at most 8 ASCII"});
}

TEST_F(PinFlags, TellOfAPinThatCannotBeTyped) {
  const std::vector<std::string> words{
      "cannot be entered here: the card takes it from the keys of the reader"};
  for (const char* command : {"login", "login --last-try"}) {
    for (const Result& result : runs(command, kPinPad)) expectUntried(result, 18, words);
  }
  PseudoTerminal terminal;
  Invocation call = staged("login", kPinPad);
  call.terminal = &terminal;
  expectUntried(run(call), 18, words);
  EXPECT_THAT(terminal.shown(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
