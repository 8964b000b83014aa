#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KeyTest.h"

namespace mirel::test {
namespace {

constexpr const char* kAccepted = "The card accepts the PIN.\n";
constexpr int kDescriptor = 41;

class PinFile : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard({{"rsa2048", "01", "Signature"}});
  }

  [[nodiscard]] Result logInWith(const std::string& file) const {
    return run(staged({"login", "--pin-file", file}));
  }
  void expectAccepted(const Result& result) const {
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, kAccepted);
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
  /// The file is refused, and the card never asked.
  void expectRefused(const Result& result, const std::string& why) const {
    expectFailure(result, 14, {"the PIN cannot be read from ", why});
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
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
  std::filesystem::create_directory(path("folder"));
  std::filesystem::permissions(path("folder"), std::filesystem::perms::owner_all);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  for (const std::string& name : {path("folder").string(), path("fifo").string(), std::string{"/dev/null"}}) {
    SCOPED_TRACE(name);
    expectRefused(logInWith(name), "it is no regular file");
  }
}

TEST_F(PinFile, MayBeReachedByALink) {
  std::filesystem::create_symlink(write("pin", kPin), path("link"));
  expectAccepted(logInWith(path("link")));
}

TEST_F(PinFile, MustBeThere) { expectRefused(logInWith(path("missing")), "No such file or directory"); }

TEST_F(PinFile, MayEndItsLineInAnyWay) {
  const std::string pin = kPin;
  for (const std::string& content : {pin, pin + "\n", pin + "\r\n", pin + "\r"}) {
    SCOPED_TRACE(hexOfBytes(content));
    expectAccepted(logInWith(write("pin", content)));
  }
}

TEST_F(PinFile, CountsWithItsFirstLine) {
  expectAccepted(logInWith(write("pin", std::string{kPin} + "\n" + kWrongPin + "\n")));
  const Result result = logInWith(write("pin", std::string{kWrongPin} + "\n" + kPin + "\n"));
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
}

TEST_F(PinFile, IsNotTriedWhenItHoldsNothing) {
  const Result result = logInWith(write("pin", ""));
  expectFailure(result, 9, {"no PIN was given"});
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

TEST_F(PinFile, IsNotTriedWhenThatCanBeNoPin) {
  for (const std::string& content : {std::string{"\n"}, std::string{"123456789"}, std::string(256, '1'),
                                     std::string{"caf\xC3\xA9"}, std::string{"1234567\xC3\xA9"}}) {
    SCOPED_TRACE(content.size());
    expectFailure(logInWith(write("pin", content)), 18, {"the PIN was not sent to the card: it "});
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
}

TEST_F(PinFile, IsNotTriedWhenItHoldsWhatNoPinHas) {
  using namespace std::string_literals;
  const std::pair<std::string, const char*> kRows[] = {
      {"\xEF\xBB\xBF"s + kPin, "its first line begins with a byte order mark"},
      {" "s + kPin, "its first line has blanks or tabs"},
      {kPin + " \n"s, "its first line has blanks or tabs"},
      {"12 34"s, "its first line has blanks or tabs"},
      {"1234\t\n"s, "its first line has blanks or tabs"},
      {"12\x00"
       "34"s,
       "its first line has control characters"},
      {"1234\x00"s, "its first line has control characters"},
      {"12\x1A"
       "34"s,
       "its first line has control characters"},
      {"12\x7F"s, "its first line has control characters"},
      {"12\r34"s, "its first line has control characters"},
      {"1234\r\r\n"s, "its first line has control characters"},
      {"\x1B[A1234"s, "its first line has control characters"},
      {"\xFF\xFE"
       "1234"s,
       "its first line is no text in UTF-8"},
      {"caf\xC3"s, "its first line is no text in UTF-8"},
  };
  for (const auto& [content, why] : kRows) {
    SCOPED_TRACE(hexOfBytes(content));
    expectRefused(logInWith(write("pin", content)), why);
  }
}

TEST_F(PinFile, IsRefusedWhenItsLineIsTooLong) {
  expectRefused(logInWith(write("pin", std::string(257, '1'))), "its first line has more than 256 bytes");
}

TEST_F(PinFile, WithAWrongPinIsTriedOnce) {
  const std::string file = write("pin", kWrongPin);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"login"}, {"sign", "--key", "01", "--out", path("signature")}}) {
    SCOPED_TRACE(command.front());
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.end(), {"--pin-file", file});
    expectFailure(run(staged(arguments)), 7,
                  {"The card did not accept the PIN", "C_Login answered CKR_PIN_INCORRECT (0xA0)"});
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
  EXPECT_FALSE(std::filesystem::exists(path("signature")));
}

TEST_F(PinFile, OfALockedCardTellsSo) {
  const std::string file = write("pin", kPin);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"login"}, {"sign", "--key", "01", "--out", path("signature")}}) {
    SCOPED_TRACE(command.front());
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.end(), {"--pin-file", file});
    expectFailure(run(staged(arguments, "C_Login=A4")), 8,
                  {"the PIN of the card is locked", "C_Login answered CKR_PIN_LOCKED (0xA4)",
                   "have the card's issuer unlock it"});
  }
}

TEST_F(PinFile, IsNoMatterWhenTheLoginFailsOtherwise) {
  expectFailure(run(staged({"login", "--pin-file", write("pin", kPin)}, "C_Login=30")), 13,
                {"the card did not take the PIN", "C_Login answered CKR_DEVICE_ERROR (0x30)"});
}

TEST_F(PinFile, IsNotReadWhenTheKeyDoesNotNeedIt) {
  expectFailure(run(staged({"sign", "--key", "none", "--pin-file", path("missing")})), 12, {});
  expectFailure(
      run(staged({"sign", "--key", "01", "--algorithm", "RSAEncryptionRaw", "--pin-file", path("missing")})),
      10, {});
}

class PinDescriptor : public PinFile {
 protected:
  [[nodiscard]] Invocation loginReading(const std::string& content) const {
    Invocation call = staged({"login", "--pin-fd", std::to_string(kDescriptor)});
    call.pipes[kDescriptor] = content;
    return call;
  }
};

TEST_F(PinDescriptor, MayBeAPipe) {
  const std::string pin = kPin;
  for (const std::string& content : {pin, pin + "\n", pin + "\r\n"}) {
    SCOPED_TRACE(hexOfBytes(content));
    expectAccepted(run(loginReading(content)));
  }
}

TEST_F(PinDescriptor, IsReadNoFurtherThanItsFirstLine) {
  const Result result = run(loginReading(std::string{kPin} + "\nwhat follows\n"));
  expectAccepted(result);
  EXPECT_EQ(result.leftInPipes.at(kDescriptor), "what follows\n");
}

TEST_F(PinDescriptor, WaitsForTheWholeLine) {
  Invocation call = loginReading(std::string{kPin}.substr(0, 3));
  call.pipesStayOpen = true;
  RunningChild child{call};
  child.writeToPipe(kDescriptor, std::string{kPin}.substr(3) + "\n");
  expectAccepted(child.wait());
}

TEST_F(PinDescriptor, MayBeStandardInput) {
  Invocation call = staged({"login", "--pin-fd", "0"});
  call.input = std::string{kPin} + "\n";
  expectAccepted(run(call));
}

TEST_F(PinDescriptor, MayBeStandardInputWhenTheDataComeFromAFile) {
  Invocation call = staged({"sign", "--key", "01", "--in", write("message", "message"), "--out",
                            path("signature"), "--pin-fd", "0"});
  call.input = std::string{kPin} + "\n";
  expectSigned(run(call));
}

TEST_F(PinDescriptor, CannotBeStandardInputTogetherWithTheData) {
  for (const char* command : {"sign", "decrypt", "exchange"}) {
    for (const std::vector<std::string>& in :
         {std::vector<std::string>{}, std::vector<std::string>{"--in", "-"}}) {
      SCOPED_TRACE(command);
      std::vector<std::string> arguments{command, "--key", "01", "--pin-fd", "0", "--out", path("result")};
      arguments.insert(arguments.end(), in.begin(), in.end());
      expectFailure(mireltoken(arguments), 2, {"--pin-fd 0", "standard input"});
    }
  }
}

TEST_F(PinDescriptor, MustBeOpen) {
  for (const char* descriptor : {"3", "4", "5", "41", "1000000", "-1"}) {
    SCOPED_TRACE(descriptor);
    expectFailure(run(staged({"login", "--pin-fd", descriptor})), 14,
                  {"the PIN cannot be read from file descriptor", "Bad file descriptor"});
  }
}

// A file that the program opens itself gets the number of one that is closed.
TEST_F(PinDescriptor, IsNeverTakenFromTheData) {
  const std::string message = write("message", std::string{kPin} + "\n");
  for (const char* descriptor : {"3", "4", "5", "6", "7", "8"}) {
    SCOPED_TRACE(descriptor);
    expectFailure(mireltoken({"sign", "--key", "01", "--in", message, "--out", path("signature"), "--pin-fd",
                              descriptor}),
                  14, {"Bad file descriptor"});
  }
}

TEST_F(PinDescriptor, IsNotReadFromAClosedStandardInput) {
  Invocation call = staged({"login", "--pin-fd", "0"});
  call.inputIsClosed = true;
  expectRefused(run(call), "Bad file descriptor");
}

TEST_F(PinDescriptor, IsNotTriedWhenItHoldsNothing) {
  expectFailure(run(loginReading("")), 9, {"no PIN was given"});
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

TEST_F(PinDescriptor, IsRefusedWhenItsLineIsTooLong) {
  expectRefused(run(loginReading(std::string(300, '1'))), "its first line has more than 256 bytes");
}

TEST_F(PinDescriptor, WithAWrongPinIsTriedOnce) {
  const Result result = run(loginReading(std::string{kWrongPin} + "\n" + kPin + "\n"));
  expectFailure(result, 7, {"C_Login answered CKR_PIN_INCORRECT (0xA0)"});
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  EXPECT_EQ(result.leftInPipes.at(kDescriptor), std::string{kPin} + "\n");
}

TEST_F(PinDescriptor, MustBeANumberAndTheOnlySource) {
  const std::string file = write("pin", kPin);
  expectFailure(mireltoken({"login", "--pin-fd", "three"}), 2, {"--pin-fd"});
  expectFailure(mireltoken({"login", "--pin-fd", "99999999999"}), 2, {"--pin-fd"});
  expectFailure(mireltoken({"login", "--pin-fd", "0", "--pin-file", file}), 2, {"--pin-fd", "--pin-file"});
}

}  // namespace
}  // namespace mirel::test
