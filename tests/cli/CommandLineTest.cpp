#include <algorithm>
#include <array>
#include <cstdint>

#include "EndToEndTest.h"
#include "cardmaker/SoftHsm.h"

namespace mirel::test {
namespace {

constexpr std::array kCommands{"readers", "items",   "certificate", "algorithms", "login",
                               "sign",    "decrypt", "exchange",    "doctor",     "conformance",
                               "watch",   "explain", "record",      "trace"};

class CommandLine : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    if (!IsSkipped()) makeCards(kOneCard);
  }
  [[nodiscard]] Result runAlone(const Arguments& arguments) const { return run(invocation(arguments)); }
  [[nodiscard]] Result runWithOutput(Output output, const Arguments& arguments,
                                     const std::map<std::string, std::string>& environment = {}) const {
    Invocation call = onSoftHsm(arguments);
    call.output = output;
    call.environment.insert(environment.begin(), environment.end());
    return run(call);
  }
};

TEST_F(CommandLine, TellsItsVersion) {
  const Result result = runAlone("--version");
  expectSuccess(result);
  EXPECT_THAT(result.out, StartsWith("mireltoken " MIREL_PROJECT_VERSION));
  EXPECT_THAT(result.out, MatchesRegex("mireltoken [0-9.]+( \\(commit [0-9a-f]{7,40}(-dirty)?\\))?\n"
                                       "OpenSSL [0-9.]+, CLI11 [0-9.]+, nlohmann-json [0-9.]+\n"));
}

// To the byte: the library that parses the command line prints other texts in each of its versions.
TEST_F(CommandLine, HelpIsWrittenLikeThis) {
  constexpr const char* kProgramHelp =
      R"(Shows what a smart card would publish in the keychain, and why not; uses its keys.
Usage: mireltoken [OPTIONS] COMMAND

Options:
  --version                   Print the version, with those of the libraries, and exit
  -h,--help                   Print this help and exit
  --module PATH Excludes: --home --replay
                              Use this PKCS #11 module (a file, or a name that p11-kit knows), for this run only
  --home DIR Excludes: --module --replay
                              Look for the module in this home folder
  --trust-module              Load the module although somebody else may change its file
  --reader NAME               The reader: its name, or a beginning that fits no other (default: the first with an initialised card)
  --timeout N                 Give a call of the module this many seconds, 0 for any time (default: 30; at most 86400)
  --json                      Print JSON for programs
  --trace FILE                Write each call of the module to this file, while it is made
  --replay FILE Excludes: --module --home
                              Let this recording answer in place of a module and a card
  -v,--verbose                Print the log lines on standard error; twice (-vv): the calls of the module, too

Commands:
  readers                     List the readers that hold a card
  items                       Insert a card and list the keychain items it would publish
  certificate                 Write the certificate of a key, in PEM
  algorithms                  Show which algorithms work with the keys
  login                       Check the PIN
  sign                        Sign with a key of the card, and verify the signature
  decrypt                     Decrypt with a key of the card
  exchange                    Ask for a key exchange, and show what the token answers
  doctor                      Examine module, readers and card, and say what to do
  conformance                 Test module and card against every rule for card makers
  watch                       Tell of cards that are inserted and removed, as it happens
  explain                     Explain what `doctor` has found
  record                      Carry out a command, and record what the module was asked and answered
  trace                       Show the calls of a trace or a recording (trace show FILE)
  help                        Print the help of the program, or of a command
)";
  constexpr const char* kReadersHelp = R"(List the readers that hold a card
Usage: mireltoken readers [OPTIONS]

Options:
  -h,--help                   Print this help and exit

Options of all commands, such as --module, --reader and --json: mireltoken --help
)";
  constexpr const char* kSignHelp = R"(Sign with a key of the card, and verify the signature
Usage: mireltoken sign [OPTIONS]

Options:
  -h,--help                   Print this help and exit
  --key ID                    The key: its ID, its label, a PKCS #11 URI, or #N
  --algorithm NAME            The algorithm (default: PS256 with an RSA key, ES256 with an EC key)
  --in FILE                   What to sign (default: standard input)
  --out FILE                  Where to write the signature (default: standard output)
  --no-verify                 Write the signature also when it does not verify
  --pin-file FILE Excludes: --pin-fd
                              Read the PIN from this file, which nobody else may read
  --pin-fd N Excludes: --pin-file
                              Read the PIN from this open file descriptor
  --last-try                  Send a PIN from a file or descriptor also when that may lock the card

Options of all commands, such as --module, --reader and --json: mireltoken --help
)";
  const Result result = runAlone("--help");
  expectSuccess(result);
  EXPECT_EQ(result.out.substr(0, result.out.find("\nExamples:\n")), kProgramHelp);
  EXPECT_EQ(result.out.find("\n\n\n"), std::string::npos);
  EXPECT_THAT(result.out, Not(EndsWith("\n\n")));
  expectOutput(runAlone("readers --help"), kReadersHelp);
  expectOutput(runAlone("--json sign -h"), kSignHelp);
  expectOutput(runAlone("help"), result.out);
  expectOutput(runAlone("help sign"), kSignHelp);
}

TEST_F(CommandLine, HelpHasAnExampleOfEachCommandAndEveryExitCodeOnce) {
  const std::string help = runAlone("--help").out;
  const std::size_t examples = help.find("Examples:\n");
  const std::size_t codes = help.find("Exit codes:\n");
  ASSERT_LT(examples, codes);
  ASSERT_NE(codes, std::string::npos);
  const std::string example = help.substr(examples, codes - examples);
  for (const std::string command : kCommands)
    EXPECT_THAT(example, ContainsRegex("\n  mireltoken (--module [^ ]+ )?" + command)) << command;
  EXPECT_THAT(example, HasSubstr(" --module "));
  EXPECT_THAT(example, HasSubstr(" --json"));
  EXPECT_THAT(help, HasSubstr("\n  9  no PIN was given\n"));  // also where nobody was asked for it
  int last = -1;
  for (const std::string& line : linesOf(help.substr(codes + std::string_view{"Exit codes:\n"}.size()))) {
    if (line.empty()) break;
    EXPECT_THAT(line, MatchesRegex("  [0-9 ][0-9]  [^ ].*| +[0-9]+  [^ ].*"));
    EXPECT_GT(std::stoi(line), last) << line;
    last = std::stoi(line);
  }
  EXPECT_EQ(last, 24);
}

TEST_F(CommandLine, WordsItsRefusalsLikeThis) {
  const struct {
    Arguments arguments;
    const char* why;
    const char* help = "mireltoken --help";
  } rows[] = {
      {"-v", "a command is required"},
      {"help cards", "there is no command \"cards\""},
      {"help decript", "there is no command \"decript\" (did you mean \"decrypt\"?)"},
      {"cards", "there is no \"cards\""},
      {"itmes", "there is no \"itmes\" (did you mean \"items\"?)"},
      {"--colour items", "there is no \"--colour\"", "mireltoken items --help"},
      // of all commands
      {"items --module", "--module needs a value (PATH)"},
      {"items --reader", "--reader needs a value (NAME)"},
      {"items --home", "--home needs a value (DIR)"},
      {"items --timeout 0.5", "the value \"0.5\" of --timeout is not a whole number from 0 to 86400"},
      {"items --timeout -1", "the value \"-1\" of --timeout is not a whole number from 0 to 86400"},
      {"items --timeout 99999999999",
       "the value \"99999999999\" of --timeout is not a whole number from 0 to 86400"},
      {"items --json=perhaps", "--json takes no such value"},
      {"items --json=false", "--json takes no such value"},
      {"items --verbose=loud", "--verbose takes no such value"},
      {"items --verbose=99999999999999999999", "--verbose takes no such value"},
      {"items --reader a --reader b", "--reader is given more than once"},
      {"items --module /m --module /m", "--module is given more than once"},
      {"items --home / --module /m", "--module excludes --home"},
      {"--home / --module /m items", "--module excludes --home"},
      {{"items", "--module", ""}, "--module is empty"},
      {{"items", "--home", ""}, "--home is empty"},
      {{"items", "--trace", ""}, "--trace is empty"},
      // of the command
      {"help sign items", "there is no \"items\"", "mireltoken help --help"},
      {"readers items", "there is no \"items\"", "mireltoken readers --help"},
      {"items more", "there is no \"more\"", "mireltoken items --help"},
      {"items --colour", "there is no \"--colour\"", "mireltoken items --help"},
      {"items --AZaz", "there is no \"--AZaz\"", "mireltoken items --help"},
      {"items --raeder x", "there is no \"--raeder\" (did you mean \"--reader\"?)",
       "mireltoken items --help"},
      {"sign --algoritm=PS256", "there is no \"--algoritm\" (did you mean \"--algorithm\"?)",
       "mireltoken sign --help"},
      {"-x items", "there is no \"-x\"", "mireltoken items --help"},
      {"sign --pin 123456", "there is no \"--pin\" (did you mean \"--pin-file\"?)", "mireltoken sign --help"},
      {"login --pin-fd", "--pin-fd needs a value (N)", "mireltoken login --help"},
      {"login --pin-file", "--pin-file needs a value (FILE)", "mireltoken login --help"},
      {"login --pin-fd x", "the value of --pin-fd is no N", "mireltoken login --help"},
      {"watch --for 0", "the value \"0\" of --for is not a whole number from 1 to 86400",
       "mireltoken watch --help"},
      {"sign --no-verify=perhaps", "--no-verify takes no such value", "mireltoken sign --help"},
      {"login --pin-fd 3 --pin-file f", "--pin-file excludes --pin-fd", "mireltoken login --help"},
      {"sign", "--key is missing", "mireltoken sign --help"},
      {{"sign", "--key", ""}, "--key is empty", "mireltoken sign --help"},
      {{"doctor", "--html", ""}, "--html is empty", "mireltoken doctor --help"},
      {"doctor --last-try", "a PIN is of no use without --login", "mireltoken doctor --help"},
      {"conformance --last-try", "a PIN is of no use without --login", "mireltoken conformance --help"},
      {"trace FILE", "it is \"trace show FILE\"", "mireltoken trace --help"},
      // of record, and of what stands behind it
      {"record items", "record needs --out", "mireltoken record --help"},
      {"record --out - items", "record --out needs a file, not standard output", "mireltoken record --help"},
      {"record --out x trace show FILE", "record needs a command that uses a card",
       "mireltoken record --help"},
      {"record --out x sign --algoritm x", "there is no \"--algoritm\" (did you mean \"--algorithm\"?)",
       "mireltoken sign --help"},
  };
  for (const auto& [arguments, why, help] : rows) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const Result result = runAlone(arguments);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string{"mireltoken: wrong usage: "}.append(why) + "; see " + help + "\n");
  }
}

TEST_F(CommandLine, NeverRepeatsAWordThatMayBeAPin) {
  for (const char* arguments :
       {"login 123456", "--json login 123456", "123456 login", "login --pin=123456", "sign --key 01 -p123456",
        "login -123456", "record --out x login 123456", "doctor --login 123456"}) {
    SCOPED_TRACE(arguments);
    const Result result = runAlone(arguments);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.out + result.err, HasSubstr("wrong usage"));
    EXPECT_THAT(result.out + result.err, Not(HasSubstr("123456")));
  }
}

TEST_F(CommandLine, NamesTheCommandsToWhoeverGivesNone) {
  const Result result = runAlone("");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.out, IsEmpty());
  for (const std::string command : kCommands) EXPECT_THAT(result.err, HasSubstr("\n  " + command + "  "));
  EXPECT_THAT(result.err, HasSubstr("mireltoken --help"));
  EXPECT_LT(linesOf(result.err).size(), 25U);
}

TEST_F(CommandLine, TakesOptionsBeforeAndAfterTheCommand) {
  const std::string module = softHsmModule().string();
  const Result before = runAlone({"--json", "--module", module, "--reader", readerOf("Card"), "items"});
  expectSuccess(before);
  EXPECT_EQ(Json::parse(before.out)["reader"], readerOf("Card"));
  expectOutput(runAlone({"items", "--reader", readerOf("Card"), "--module", module, "--json"}), before.out);
}

TEST_F(CommandLine, PutsLogLinesOnStandardErrorWhenAskedTo) {
  for (const std::string option : {" -v", " --verbose"}) {
    for (const std::string command : {"items", "items --json", "readers"}) {
      SCOPED_TRACE(command);
      const Result quiet = mireltoken(command);
      const Result loud = mireltoken(command + option);
      expectSuccess(quiet);
      EXPECT_EQ(loud.exitCode, 0);
      EXPECT_THAT(loud.out, StartsWith(quiet.out));
      EXPECT_THAT(loud.err, HasSubstr("[-[P11Bridge pkcs11_Load:]-30] P11Bridge path = "));
    }
  }
}

TEST_F(CommandLine, LogsTheWholeInsertionAndItsErrors) {
  const std::string log = mireltoken("items -v").err;
  for (const char* line : {"CTK [MirelSCTokenDriver-13] +++Start+++\n", "CTK [MirelSCToken-31] +++Start+++\n",
                           "[MirelSCToken-52] instanceID = Card ", "CTK [MirelSCToken-66] certs count = 1\n",
                           "CTK [MirelSCToken-143] ---END---\n",
                           "[MirelSCTokenDriver-15] token = ", "CTK [MirelSCTokenDriver-16] ---END---\n"})
    EXPECT_THAT(log, HasSubstr(line));

  makeCards("token label=Card\npublic type=p256 id=01 label=0x\n");
  const Result failing = mireltoken("items -v");
  EXPECT_EQ(failing.exitCode, 6);
  EXPECT_THAT(failing.out, IsEmpty());
  EXPECT_THAT(failing.err, HasSubstr("[MirelSCToken-64] CryptTKitSProvider getTokenCerts fail\n"));
  EXPECT_THAT(failing.err, HasSubstr("\nmireltoken: "));
}

TEST_F(CommandLine, IsColouredOnATerminalOnly) {
  for (const char* command : {"readers", "items"}) {
    SCOPED_TRACE(command);
    std::string shown = runWithOutput(Output::kTerminal, command).out;
    EXPECT_THAT(shown, HasSubstr("\x1b[1m"));
    EXPECT_THAT(shown, HasSubstr("\x1b[0m\r\n"));
    for (const std::string code : {"\x1b[1m", "\x1b[0m", "\r"})
      for (std::size_t at = 0; (at = shown.find(code)) != std::string::npos;) shown.erase(at, code.size());
    expectOutput(mireltoken(command), shown);
    EXPECT_THAT(shown, Not(HasSubstr("\x1b")));
  }
}

TEST_F(CommandLine, ShowsBlocksOnATerminalThatIsTooNarrowForTheTable) {
  for (const std::uint16_t columns : {std::uint16_t{0}, std::uint16_t{40}}) {
    Invocation call = onSoftHsm("items");
    call.output = Output::kTerminal;
    call.columns = columns;
    call.environment["NO_COLOR"] = "1";
    const std::string shown = run(call).out;
    EXPECT_THAT(shown,
                HasSubstr("\r\nITEM: key\r\n  ID: 3031\r\n  LABEL: Certificate\r\n  WHAT IT IS: EC 256, "))
        << columns;
    EXPECT_THAT(shown, HasSubstr("\r\nFINDING: MT-K06\r\n  SEVERITY: failure\r\n  ABOUT: ")) << columns;
  }
}

TEST_F(CommandLine, RespectsNoColorUnlessItIsEmpty) {
  const Result without = runWithOutput(Output::kTerminal, "items", {{"NO_COLOR", "1"}});
  EXPECT_THAT(without.out, HasSubstr("ITEM"));
  EXPECT_THAT(without.out, Not(HasSubstr("\x1b")));
  EXPECT_THAT(runWithOutput(Output::kTerminal, "items", {{"NO_COLOR", ""}}).out, HasSubstr("\x1b["));
}

TEST_F(CommandLine, PrintsJsonWithoutColourOnATerminal) {
  const Result result = runWithOutput(Output::kTerminal, "items --json");
  expectSuccess(result);
  EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
  EXPECT_FALSE(Json::parse(result.out)["items"].empty());
}

TEST_F(CommandLine, FailsWhenItsOutputTakesNothing) {
  const std::pair<Output, const char*> rows[] = {{Output::kFull, "No space left on device"},
                                                 {Output::kClosed, "Bad file descriptor"}};
  for (const auto& [output, why] : rows) {
    // One for each way in which something gets to standard output.
    for (const std::string command :
         {"items", "items --json", "readers", "readers --json", "--help", "--version"}) {
      SCOPED_TRACE(command + " " + why);
      expectFailure(runWithOutput(output, command), 14, {"standard output cannot be written", why});
    }
  }
}

TEST_F(CommandLine, EndsQuietlyWhenNobodyReadsItsOutput) {
  for (const std::string command : {"items", "items --json", "readers", "certificate --key 01", "--help"}) {
    SCOPED_TRACE(command);
    const Result result = runWithOutput(Output::kUnread, command);
    EXPECT_EQ(result.exitCode, 141);
    EXPECT_THAT(result.err, IsEmpty());
  }
}

TEST_F(CommandLine, NeverWritesIntoAFileOfTheModuleWhenItsOutputIsClosed) {
  Invocation call = staged("readers");
  call.output = Output::kClosed;
  EXPECT_EQ(run(call).exitCode, 14);
  const std::vector<std::string> written = linesOf(read("calls"));
  EXPECT_EQ(std::count(written.begin(), written.end(), "C_GetTokenInfo"), std::ssize(written));
  EXPECT_TRUE(exists("calls"));
}

}  // namespace
}  // namespace mirel::test
