#include <gmock/gmock.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <csignal>
#include <thread>

#include "KeyTest.h"
#include "PseudoTerminal.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kPrompt = "PIN for \"Card\": ";
constexpr const char* kPromptAfterWrongPin =
    "PIN for \"Card\" (a wrong PIN was entered since the last right one): ";
constexpr const char* kRefusal =
    "mireltoken: The card did not accept the PIN (tries left: 0; 0 means that the card's software does not "
    "say).\n";
constexpr const char* kAccepted = "The card accepts the PIN.\n";

std::string entered(const std::string& pin) { return pin + "\r"; }

class PinPrompt : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard({{"rsa2048", "01", "Signature"}});
    before_ = terminal_.settings();
  }

  [[nodiscard]] Invocation atTerminal(Invocation call) {
    call.terminal = &terminal_;
    return call;
  }
  /// A login on the module that notes the calls.
  [[nodiscard]] Invocation login(const std::string& answers = {}, const std::string& tokenFlags = {}) {
    return atTerminal(staged({"login"}, answers, tokenFlags));
  }
  /// Logs in with one entry.
  [[nodiscard]] Result logInTyping(const std::string& keys) {
    RunningChild child{login()};
    EXPECT_TRUE(terminal_.waitFor(kPrompt));
    terminal_.type(keys);
    return child.wait();
  }
  void expectTerminalAsBefore() const { EXPECT_EQ(terminal_.settings(), before_); }

  PseudoTerminal terminal_;

 private:
  std::string before_;
};

TEST_F(PinPrompt, NamesTheCardAndShowsNothingOfThePin) {
  RunningChild child{login()};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  EXPECT_FALSE(terminal_.echoes());
  terminal_.type(entered(kPin));
  const Result result = child.wait();
  expectSuccess(result);
  EXPECT_EQ(result.out, kAccepted);
  EXPECT_EQ(terminal_.shown(), std::string{kPrompt} + "\r\n");
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  expectTerminalAsBefore();
}

TEST_F(PinPrompt, EndsWithALineFeedToo) {
  const Result result = logInTyping(std::string{kPin} + "\n");
  expectSuccess(result);
  EXPECT_EQ(result.out, kAccepted);
}

TEST_F(PinPrompt, CanBeCorrected) {
  const std::string pin = kPin;
  const std::string start = pin.substr(0, 3);
  const std::string rest = pin.substr(3);
  struct Row {
    const char* name;
    std::string keys;
  };
  const std::array rows{
      Row{"delete", start + "y\x7F" + rest},
      Row{"backspace", start + "y\b" + rest},
      Row{"two characters", start + "yz\x7F\x7F" + rest},
      Row{"character of two bytes", start + "\xC3\xA9\x7F" + rest},
      Row{"character of three bytes", start + "\xE2\x82\xAC\x7F" + rest},
      Row{"character of four bytes", start + "\xF0\x9F\x94\x91\x7F" + rest},
      Row{"one of two such characters", start + "\xE2\x82\xAC\xC3\xA9\x7F\x7F" + rest},
      Row{"before the first character", "\x7F\b" + pin},
      Row{"all", "y\xC3\xA9z\x15" + pin},
      Row{"all of nothing", "\x15" + pin},
      Row{"keys that are ignored", start + "\t\x1A\x1C" + rest},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    PseudoTerminal terminal;
    Invocation call = login();
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor(kPrompt));
    terminal.type(entered(row.keys));
    EXPECT_EQ(child.wait().out, kAccepted);
    EXPECT_EQ(terminal.shown(), std::string{kPrompt} + "\r\n");
  }
}

TEST_F(PinPrompt, TakesNothingFromKeysThatSendNoCharacter) {
  const std::string pin = kPin;
  const std::string start = pin.substr(0, 3);
  const std::string rest = pin.substr(3);
  const std::pair<const char*, std::string> rows[] = {
      {"arrow", start + "\x1B[A" + rest},
      {"arrow of the other mode", start + "\x1BOA" + rest},
      {"F1", start + "\x1BOP" + rest},
      {"F5", start + "\x1B[15~" + rest},
      {"F1 of the console", start + "\x1B[[A" + rest},
      {"Shift and an arrow", start + "\x1B[1;2C" + rest},
      {"Alt and a letter", start + "\x1Bx" + rest},
      {"a paste", "\x1B[200~" + pin + "\x1B[201~"},
      {"two arrows", start + "\x1B[D\x1B[C" + rest},
      {"a sequence that is cut short", start + "\x1B[1\x1B[A" + rest},
      {"Backspace in a sequence", start + "y\x1B[1\x7F" + rest},
  };
  for (const auto& [name, keys] : rows) {
    SCOPED_TRACE(name);
    PseudoTerminal terminal;
    Invocation call = login();
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor(kPrompt));
    terminal.type(entered(keys));
    EXPECT_EQ(child.wait().out, kAccepted);
  }
}

TEST_F(PinPrompt, TakesWhatIsTypedAfterTheEscapeKey) {
  RunningChild child{login()};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  terminal_.type("\x1B");
  ASSERT_TRUE(terminal_.waitUntilRead());
  std::this_thread::sleep_for(std::chrono::milliseconds{500});
  terminal_.type(entered(kPin));
  EXPECT_EQ(child.wait().out, kAccepted);
}

TEST_F(PinPrompt, DoesNotTakeWhatWasTypedBefore) {
  terminal_.type("typed ahead");
  const Result result = logInTyping(entered(kPin));
  expectSuccess(result);
  EXPECT_EQ(result.out, kAccepted);
}

TEST_F(PinPrompt, ComesAgainAfterAWrongPin) {
  RunningChild child{login()};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  terminal_.type(entered(kWrongPin));
  ASSERT_TRUE(terminal_.waitFor(kPromptAfterWrongPin));
  EXPECT_FALSE(terminal_.echoes());
  terminal_.type(entered(kPin));
  const Result result = child.wait();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, kRefusal);
  EXPECT_THAT(result.out, HasSubstr(kAccepted));
  EXPECT_EQ(terminal_.shown(), std::string{kPrompt} + "\r\n" + kPromptAfterWrongPin + "\r\n");
  EXPECT_EQ(stagedCallsOf("C_Login"), 2);
  expectTerminalAsBefore();
}

TEST_F(PinPrompt, ComesThreeTimesAtMost) {
  RunningChild child{login()};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  for (int i = 1; i <= 2; ++i) {
    terminal_.type(entered(kWrongPin));
    ASSERT_TRUE(terminal_.waitFor(kPromptAfterWrongPin, i));
  }
  terminal_.type(entered(kWrongPin));
  const Result result = child.wait();
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, ::testing::StartsWith(std::string{kRefusal} + kRefusal +
                                                "mireltoken: The card did not accept the PIN"));
  EXPECT_THAT(result.err, HasSubstr("C_Login answered CKR_PIN_INCORRECT (0xA0)"));
  EXPECT_EQ(terminal_.shown(),
            std::string{kPrompt} + "\r\n" + kPromptAfterWrongPin + "\r\n" + kPromptAfterWrongPin + "\r\n");
  EXPECT_EQ(stagedCallsOf("C_Login"), 3);
  expectTerminalAsBefore();
}

TEST_F(PinPrompt, IsCancelledByKeys) {
  for (const char* keys : {"\x03", "\x04", "123\x03", "123\x04"}) {
    SCOPED_TRACE(hexOfBytes(keys));
    PseudoTerminal terminal;
    const std::string before = terminal.settings();
    Invocation call = login();
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor(kPrompt));
    terminal.type(keys);
    expectFailure(child.wait(), 9, {"no PIN was given: the entry was cancelled"});
    EXPECT_EQ(terminal.shown(), std::string{kPrompt} + "\r\n");
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
    EXPECT_EQ(terminal.settings(), before);
  }
}

TEST_F(PinPrompt, DoesNotComeAgainOnceItIsCancelled) {
  RunningChild child{login()};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  terminal_.type(entered(kWrongPin));
  ASSERT_TRUE(terminal_.waitFor(kPromptAfterWrongPin));
  terminal_.type("\x03");
  const Result result = child.wait();
  EXPECT_EQ(result.exitCode, 9);
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  expectTerminalAsBefore();
}

TEST_F(PinPrompt, IsNotSentToTheCardWhenItCanBeNone) {
  for (const char* entry : {"", "123456789", "1234\xC3\xA9", "1234\xFF"}) {
    SCOPED_TRACE(entry);
    PseudoTerminal terminal;
    Invocation call = login();
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor(kPrompt));
    terminal.type(entered(entry));
    ASSERT_TRUE(terminal.waitFor(kPrompt, 2));
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
    terminal.type(entered(kPin));
    EXPECT_EQ(child.wait().exitCode, 0);
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
}

TEST_F(PinPrompt, LeavesTheTerminalAsItWasWhenASignalEndsTheProcess) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGABRT, SIGALRM, SIGXCPU}) {
    SCOPED_TRACE(signal);
    PseudoTerminal terminal;
    const std::string before = terminal.settings();
    Invocation call = login();
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor(kPrompt));
    ASSERT_NE(terminal.settings(), before);
    terminal.type("123");
    ASSERT_EQ(kill(child.pid(), signal), 0);
    const Result result = child.wait();
    EXPECT_EQ(result.exitCode, 128 + signal);
    EXPECT_EQ(terminal.settings(), before);
    // The others leave everything as it is.
    if (signal != SIGTERM && signal != SIGINT && signal != SIGHUP) {
      for (const std::string& name : filesIn("tmp")) std::filesystem::remove_all(temporaryFiles() / name);
    }
    EXPECT_THAT(filesIn("tmp"), IsEmpty());
  }
}

TEST_F(PinPrompt, StaysWithoutEchoWhenASignalIsIgnored) {
  const auto before = std::signal(SIGHUP, SIG_IGN);  // what nohup does
  Invocation call = login();
  call.keepsIgnoredSignals = true;
  RunningChild child{call};
  (void)std::signal(SIGHUP, before);
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  ASSERT_EQ(kill(child.pid(), SIGHUP), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds{100});  // nothing shows that it was ignored
  EXPECT_FALSE(terminal_.echoes());
  terminal_.type(entered(kPin));
  const Result result = child.wait();
  expectSuccess(result);
  EXPECT_THAT(terminal_.shown(), Not(HasSubstr(kPin)));
  expectTerminalAsBefore();
}

TEST_F(PinPrompt, ComesOnceForASignature) {
  Invocation call = atTerminal(staged({"sign", "--key", "01", "--out", path("signature")}));
  call.input = "message";
  RunningChild child{call};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  terminal_.type(entered(kPin));
  expectSigned(child.wait());
  EXPECT_EQ(terminal_.shown(), std::string{kPrompt} + "\r\n");
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", "message"), read("signature")));
}

TEST_F(PinPrompt, DoesNotComeWhenThereIsNothingToSign) {
  const Result result = run(
      atTerminal(onSoftHsm({"sign", "--key", "01", "--in", path("missing"), "--out", path("signature")})));
  expectFailure(result, 14, {"cannot be read"});
  EXPECT_THAT(terminal_.shown(), IsEmpty());
}

TEST_F(PinPrompt, NeedsATerminal) {
  expectFailure(mireltoken({"login"}), 9,
                {"no PIN was given", "there is no terminal to ask at", "--pin-file or --pin-fd"});
  expectFailure(mireltoken({"sign", "--key", "01", "--out", path("signature")}), 9,
                {"there is no terminal to ask at"});
  EXPECT_FALSE(std::filesystem::exists(path("signature")));
}

TEST_F(PinPrompt, WarnsOfTheLastTry) {
  RunningChild child{login({}, "20000")};  // CKF_USER_PIN_FINAL_TRY
  ASSERT_TRUE(terminal_.waitFor("PIN for \"Card\" (one more wrong PIN locks the card): "));
  terminal_.type("\x03");
  EXPECT_EQ(child.wait().exitCode, 9);
}

TEST_F(PinPrompt, DoesNotComeAgainOnceThePinIsLocked) {
  RunningChild child{login("C_Login=A0,A4")};
  ASSERT_TRUE(terminal_.waitFor(kPrompt));
  terminal_.type(entered(kWrongPin));
  ASSERT_TRUE(terminal_.waitFor(kPrompt, 2));
  terminal_.type(entered(kWrongPin));
  const Result result = child.wait();
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_THAT(result.err, HasSubstr("\nmireltoken: the PIN of the card is locked: "));
  EXPECT_EQ(stagedCallsOf("C_Login"), 2);
  expectTerminalAsBefore();
}

TEST_F(PinPrompt, ShowsALabelThatCannotControlTheTerminal) {
  std::filesystem::remove_all(path("tokens"));
  makeCards(
      "token label=0x1B5B324A\npublic type=rsa2048 id=01 label=a\n"
      "certificate type=rsa2048 id=01 label=a usage=digitalSignature\n");
  RunningChild child{login()};
  ASSERT_TRUE(terminal_.waitFor("PIN for \"\\x1B[2J\": "));
  terminal_.type("\x03");
  EXPECT_EQ(child.wait().exitCode, 9);
  EXPECT_THAT(terminal_.shown(), Not(HasSubstr("\x1B")));
}

}  // namespace
}  // namespace mirel::test
