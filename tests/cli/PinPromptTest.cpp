#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

const std::string kPrompt = "PIN for \"Card\": ";
const std::string kPromptAfterWrongPin =
    "PIN for \"Card\" (a wrong PIN was entered since the last right one): ";
const std::string kRefusal =
    "mireltoken: the PIN is wrong, the token says \"The card did not accept the PIN (tries left: 0; 0 means "
    "that the card's software does not say)\"\n";
constexpr const char* kAccepted = "The card accepts the PIN.\n";

std::string entered(const std::string& pin) { return pin + "\r"; }

/// A process at a terminal that has shown its prompt.
class Prompted {
 public:
  explicit Prompted(Invocation call, const std::string& prompt = kPrompt) : settings_{terminal.settings()} {
    call.terminal = &terminal;
    child_ = std::make_unique<RunningChild>(call);
    EXPECT_TRUE(terminal.waitFor(prompt));
    EXPECT_FALSE(terminal.echoes());
  }

  /// What becomes of it once these keys are typed. Then the terminal is as it was.
  [[nodiscard]] Result after(const std::string& keys) {
    terminal.type(keys);
    const Result result = child_->wait();
    EXPECT_EQ(terminal.settings(), settings_);
    return result;
  }
  void kill(int signal) const { ASSERT_EQ(::kill(child_->pid(), signal), 0); }

  PseudoTerminal terminal;

 private:
  std::string settings_;
  std::unique_ptr<RunningChild> child_;
};

class PinPrompt : public EndToEndTest {
 protected:
  PinPrompt() : EndToEndTest{{{}}} {}
};

TEST_F(PinPrompt, NamesTheCardAndShowsNothingOfThePin) {
  for (const std::string end : {"\r", "\n"}) {
    Prompted login{staged("login")};
    expectOutput(login.after(kPin + end), kAccepted);
    EXPECT_EQ(login.terminal.shown(), kPrompt + "\r\n");
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
}

TEST_F(PinPrompt, TakesThePinOfTheseKeys) {
  const std::string pin = kPin;
  const std::string start = pin.substr(0, 3);
  const std::string rest = pin.substr(3);
  const std::pair<const char*, std::string> rows[] = {
      // Corrections.
      {"delete", start + "y\x7F" + rest},
      {"backspace", start + "y\b" + rest},
      {"two characters", start + "yz\x7F\x7F" + rest},
      {"character of two bytes", start + "\xC3\xA9\x7F" + rest},
      {"character of three bytes", start + "\xE2\x82\xAC\x7F" + rest},
      {"character of four bytes", start + "\xF0\x9F\x94\x91\x7F" + rest},
      {"one of two such characters", start + "\xE2\x82\xAC\xC3\xA9\x7F\x7F" + rest},
      {"before the first character", "\x7F\b" + pin},
      {"a blank", start + " \x7F" + rest},
      {"all", "y\xC3\xA9z\x15" + pin},
      {"all of nothing", "\x15" + pin},
      {"keys that are ignored", start + "\t\x1A\x1C" + rest},
      // Keys that send no character.
      {"arrow", start + "\x1B[A" + rest},
      {"arrow of the other mode", start + "\x1BOA" + rest},
      {"F1", start + "\x1BOP" + rest},
      {"F5", start + "\x1B[15~" + rest},
      {"F1 of the console", start + "\x1B[[A" + rest},
      {"Shift and an arrow", start + "\x1B[1;2C" + rest},
      {"a sequence with a blank", start + "\x1B[1 q" + rest},
      {"Alt and a letter", start + "\x1Bx" + rest},
      {"a paste", "\x1B[200~" + pin + "\x1B[201~"},
      {"two arrows", start + "\x1B[D\x1B[C" + rest},
      {"a sequence that is cut short", start + "\x1B[1\x1B[A" + rest},
      {"Backspace in a sequence", start + "y\x1B[1\x7F" + rest},
  };
  for (const auto& [name, keys] : rows) {
    SCOPED_TRACE(name);
    Prompted login{staged("login")};
    EXPECT_EQ(login.after(entered(keys)).out, kAccepted);
    EXPECT_EQ(login.terminal.shown(), kPrompt + "\r\n");
  }
}

TEST_F(PinPrompt, TakesWhatIsTypedAfterTheEscapeKey) {
  Prompted login{staged("login")};
  login.terminal.type("\x1B");
  ASSERT_TRUE(login.terminal.waitUntilRead());
  std::this_thread::sleep_for(std::chrono::milliseconds{500});
  EXPECT_EQ(login.after(entered(kPin)).out, kAccepted);
}

TEST_F(PinPrompt, DoesNotTakeWhatWasTypedBefore) {
  PseudoTerminal terminal;
  terminal.type("typed ahead");
  ASSERT_TRUE(terminal.waitFor("typed ahead"));  // it echoes what has arrived
  Invocation call = staged("login");
  call.terminal = &terminal;
  RunningChild child{call};
  ASSERT_TRUE(terminal.waitFor(kPrompt));
  terminal.type(entered(kPin));
  expectOutput(child.wait(), kAccepted);
}

TEST_F(PinPrompt, ComesAgainAfterAWrongPin) {
  Prompted login{staged("login")};
  login.terminal.type(entered(kWrongPin));
  ASSERT_TRUE(login.terminal.waitFor(kPromptAfterWrongPin));
  EXPECT_FALSE(login.terminal.echoes());
  const Result result = login.after(entered(kPin));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, kRefusal);
  EXPECT_THAT(result.out, HasSubstr(kAccepted));
  EXPECT_EQ(login.terminal.shown(), kPrompt + "\r\n" + kPromptAfterWrongPin + "\r\n");
  EXPECT_EQ(stagedCallsOf("C_Login"), 2);
}

TEST_F(PinPrompt, ComesThreeTimesAtMost) {
  Prompted login{staged("login")};
  for (int i = 1; i <= 2; ++i) {
    login.terminal.type(entered(kWrongPin));
    ASSERT_TRUE(login.terminal.waitFor(kPromptAfterWrongPin, i));
  }
  const Result result = login.after(entered(kWrongPin));
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, StartsWith(kRefusal + kRefusal + "mireltoken: the PIN is wrong, the token says"));
  EXPECT_THAT(result.err, HasSubstr("C_Login answered CKR_PIN_INCORRECT (0xA0)"));
  EXPECT_EQ(login.terminal.shown(),
            kPrompt + "\r\n" + kPromptAfterWrongPin + "\r\n" + kPromptAfterWrongPin + "\r\n");
  EXPECT_EQ(stagedCallsOf("C_Login"), 3);
}

TEST_F(PinPrompt, IsCancelledByKeys) {
  for (const char* keys : {"\x03", "\x04", "123\x03", "123\x04"}) {
    SCOPED_TRACE(hexOfBytes(keys));
    Prompted login{staged("login")};
    expectFailure(login.after(keys), 9, {"no PIN was given: the entry was cancelled"});
    EXPECT_EQ(login.terminal.shown(), kPrompt + "\r\n");
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
}

TEST_F(PinPrompt, DoesNotComeAgainOnceItIsCancelled) {
  Prompted login{staged("login")};
  login.terminal.type(entered(kWrongPin));
  ASSERT_TRUE(login.terminal.waitFor(kPromptAfterWrongPin));
  EXPECT_EQ(login.after("\x03").exitCode, 9);
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
}

TEST_F(PinPrompt, DoesNotComeAgainOnceThePinIsLocked) {
  Prompted login{staged("login", {{"ANSWERS", "C_Login=A0,A4"}})};
  login.terminal.type(entered(kWrongPin));
  ASSERT_TRUE(login.terminal.waitFor(kPrompt, 2));
  const Result result = login.after(entered(kWrongPin));
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_THAT(result.err, HasSubstr("\nmireltoken: the PIN of the card is locked: "));
  EXPECT_EQ(stagedCallsOf("C_Login"), 2);
}

TEST_F(PinPrompt, IsNotSentToTheCardWhenItCanBeNone) {
  for (const char* entry : {"", "123456789", "1234\xC3\xA9", "1234\xFF"}) {
    SCOPED_TRACE(entry);
    Prompted login{staged("login")};
    login.terminal.type(entered(entry));
    ASSERT_TRUE(login.terminal.waitFor(kPrompt, 2));
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
    EXPECT_EQ(login.after(entered(kPin)).exitCode, 0);
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
}

TEST_F(PinPrompt, LeavesTheTerminalAsItWasWhenASignalEndsTheProcess) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGABRT, SIGALRM, SIGXCPU}) {
    SCOPED_TRACE(signal);
    Prompted login{staged("login")};
    login.terminal.type("123");
    login.kill(signal);
    EXPECT_EQ(login.after("").exitCode, 128 + signal);
    // The others leave everything as it is.
    if (signal != SIGTERM && signal != SIGINT && signal != SIGHUP) {
      for (const std::string& name : filesIn("tmp")) std::filesystem::remove_all(path("tmp/" + name));
    }
    EXPECT_THAT(filesIn("tmp"), IsEmpty());
  }
}

TEST_F(PinPrompt, StaysWithoutEchoWhenASignalIsIgnored) {
  const auto before = std::signal(SIGHUP, SIG_IGN);  // what nohup does
  Invocation call = staged("login");
  call.keepsIgnoredSignals = true;
  Prompted login{call};
  (void)std::signal(SIGHUP, before);
  login.kill(SIGHUP);
  std::this_thread::sleep_for(std::chrono::milliseconds{100});  // nothing shows that it was ignored
  EXPECT_FALSE(login.terminal.echoes());
  expectSuccess(login.after(entered(kPin)));
  EXPECT_THAT(login.terminal.shown(), Not(HasSubstr(kPin)));
}

TEST_F(PinPrompt, ComesOnceForASignature) {
  Invocation call = staged("sign --key 01 --out " + path("signature"));
  call.input = kMessage;
  Prompted signing{call};
  expectSigned(signing.after(entered(kPin)));
  EXPECT_EQ(signing.terminal.shown(), kPrompt + "\r\n");
  EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage), read("signature")));
}

TEST_F(PinPrompt, DoesNotComeWhenThereIsNothingToSign) {
  PseudoTerminal terminal;
  Invocation call = onSoftHsm("sign --key 01 --in " + path("missing") + " --out " + path("signature"));
  call.terminal = &terminal;
  expectFailure(run(call), 14, {"cannot be read"});
  EXPECT_THAT(terminal.shown(), IsEmpty());
}

TEST_F(PinPrompt, NeedsATerminal) {
  expectFailure(mireltoken("login"), 9,
                {"no PIN was given", "there is no terminal to ask at", "--pin-file or --pin-fd"});
  expectFailure(mireltoken("sign --key 01 --out " + path("signature")), 9,
                {"there is no terminal to ask at"});
  EXPECT_FALSE(exists("signature"));
}

TEST_F(PinPrompt, WarnsOfTheLastTry) {
  Prompted login{staged("login", {{"TOKEN_FLAGS", "20000"}}),  // CKF_USER_PIN_FINAL_TRY
                 "PIN for \"Card\" (one more wrong PIN locks the card): "};
  EXPECT_EQ(login.after("\x03").exitCode, 9);
}

TEST_F(PinPrompt, WarnsOnceMoreWhenAnotherProgramHasSpentTheTriesMeanwhile) {
  Prompted login{staged("login", {{"LAST_TRY", path("spent")}})};
  write("spent", "");
  login.terminal.type(entered(kWrongPin));
  const std::string warning = "PIN for \"Card\" (one more wrong PIN locks the card): ";
  ASSERT_TRUE(login.terminal.waitFor(warning));
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  const Result result = login.after(entered(kPin));
  EXPECT_EQ(result.out, kAccepted);
  EXPECT_EQ(result.err,
            "mireltoken: the PIN was not sent to the card: another program has sent a wrong PIN while it was "
            "entered\n");
  EXPECT_EQ(login.terminal.shown(), kPrompt + "\r\n" + warning + "\r\n");
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
}

TEST_F(PinPrompt, NamesTheReaderWhereTheLabelAloneDoesNotSayWhichCardItIs) {
  for (const auto& [cards, start] :
       {std::pair{"token label=0x\n", "PIN for the card in the reader \""},
        {"token label=Card\ntoken label=Card\n", "PIN for \"Card\" in the reader \""}}) {
    makeCards(cards);
    const std::string reader = textOf(slots().front()["description"]);
    Prompted login{staged({"login", "--reader", reader}), start + reader + "\": "};
    EXPECT_EQ(login.after("\x03").exitCode, 9);
  }
}

TEST_F(PinPrompt, ShowsALabelThatCannotControlTheTerminal) {
  makeCards("token label=0x1B5B324A\n");
  Prompted login{staged("login"), "PIN for \"\\x1B[2J\": "};
  EXPECT_EQ(login.after("\x03").exitCode, 9);
  EXPECT_THAT(login.terminal.shown(), Not(HasSubstr("\x1B")));
}

}  // namespace
}  // namespace mirel::test
