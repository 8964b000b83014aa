#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

#include "EndToEndTest.h"
#include "cardmaker/SoftHsm.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kOneCard =
    "token label=Card\n"
    "public type=p256 id=01 label=Key\n"
    "certificate type=p256 id=01 label=Certificate usage=keyAgreement\n";

constexpr std::array kCommands{"readers", "items", "certificate", "algorithms",
                               "login",   "sign",  "decrypt",     "exchange"};

/// One for each way in which something gets to standard output.
std::vector<std::vector<std::string>> commandsWithOutput() {
  return {{"items"}, {"items", "--json"}, {"readers"}, {"readers", "--json"}, {"--help"}, {"--version"}};
}

class CommandLine : public EndToEndTest {
 protected:
  [[nodiscard]] Result runAlone(std::vector<std::string> arguments) const {
    return run(invocation(std::move(arguments)));
  }

  [[nodiscard]] Result runWithOutput(Output output, std::vector<std::string> arguments) const {
    Invocation call = onSoftHsm(std::move(arguments));
    call.output = output;
    return run(call);
  }
};

TEST_F(CommandLine, TellsItsVersion) {
  const Result result = runAlone({"--version"});
  expectSuccess(result);
  EXPECT_EQ(result.out, "mireltoken " MIREL_PROJECT_VERSION "\n");
}

TEST_F(CommandLine, HelpNamesEveryCommandAndOption) {
  const Result result = runAlone({"--help"});
  expectSuccess(result);
  for (const char* word : {"--module", "--home", "--trust-module", "--reader", "--json", "-v,--verbose",
                           "--version", "-h,--help"}) {
    EXPECT_THAT(result.out, HasSubstr(word));
  }
  for (const char* command : kCommands) {
    EXPECT_THAT(result.out, HasSubstr(std::string{"\n  "} + command + " ")) << command;
  }
}

TEST_F(CommandLine, HelpHasAnExampleOfEachCommand) {
  const Result result = runAlone({"--help"});
  const std::size_t examples = result.out.find("Examples:\n");
  ASSERT_NE(examples, std::string::npos);
  const std::string rest = result.out.substr(examples);
  for (const char* command : kCommands) {
    EXPECT_THAT(rest, ::testing::ContainsRegex(std::string{"\n  mireltoken (--module [^ ]+ )?"} + command))
        << command;
  }
  EXPECT_THAT(rest, HasSubstr(" --module "));
  EXPECT_THAT(rest, HasSubstr(" --json"));
}

TEST_F(CommandLine, HelpListsEveryExitCodeOnce) {
  const Result result = runAlone({"--help"});
  const std::size_t codes = result.out.find("Exit codes:\n");
  ASSERT_NE(codes, std::string::npos);
  std::istringstream rest{result.out.substr(codes)};
  std::string line;
  std::getline(rest, line);
  for (int code = 0; code <= 18; ++code) {
    ASSERT_TRUE(std::getline(rest, line));
    EXPECT_THAT(line, StartsWith("  " + std::to_string(code) + "  "));
  }
  EXPECT_FALSE(std::getline(rest, line) && !line.empty()) << line;
}

TEST_F(CommandLine, HelpIsGivenForEachCommand) {
  for (const char* command : kCommands) {
    SCOPED_TRACE(command);
    const Result result = runAlone({command, "--help"});
    expectSuccess(result);
    EXPECT_THAT(result.out, HasSubstr(command));
  }
}

TEST_F(CommandLine, HelpForACommandNamesItsOptions) {
  struct Row {
    const char* command;
    std::vector<std::string> options;
  };
  const std::vector<Row> rows{
      {"certificate", {"--key", "--out"}},
      {"algorithms", {"--key"}},
      {"login", {"--pin-file", "--pin-fd"}},
      {"sign", {"--key", "--algorithm", "--in", "--out", "--no-verify", "--pin-file", "--pin-fd"}},
      {"decrypt", {"--key", "--algorithm", "--in", "--out", "--pin-file", "--pin-fd"}},
      {"exchange", {"--key", "--algorithm", "--in", "--out", "--pin-file", "--pin-fd"}},
  };
  for (const Row& row : rows) {
    const Result result = runAlone({row.command, "--help"});
    for (const std::string& option : row.options) {
      EXPECT_THAT(result.out, HasSubstr("\n  " + option + " ")) << row.command;
    }
  }
}

TEST_F(CommandLine, RefusesWrongUsage) {
  struct Row {
    const char* name;
    std::vector<std::string> arguments;
    const char* culprit;
  };
  const std::string module = softHsmModule().string();
  const std::vector<Row> rows{
      {"no command", {}, "subcommand"},
      {"unknown command", {"cards"}, "cards"},
      {"two commands", {"readers", "items"}, "items"},
      {"unknown option", {"items", "--colour"}, "--colour"},
      {"option of one letter", {"-x", "items"}, "-x"},
      {"word too many", {"items", "more"}, "more"},
      {"module without a path", {"items", "--module"}, "--module"},
      {"reader without a name", {"items", "--reader"}, "--reader"},
      {"home without a folder", {"items", "--home"}, "--home"},
      {"home and module", {"--home", "/", "--module", module, "items"}, "--home"},
      {"home and module after the command", {"items", "--module", module, "--home", "/"}, "--home"},
      {"two readers", {"items", "--reader", "a", "--reader", "b"}, "--reader"},
      {"two modules", {"items", "--module", module, "--module", module}, "--module"},
      {"flag with a value", {"items", "--json=perhaps"}, "--json"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    expectFailure(runAlone(row.arguments), 2, {"usage", row.culprit, "mireltoken --help"});
  }
}

TEST_F(CommandLine, RefusesAnEmptyModulePath) {
  const Result result = runAlone({"items", "--module", ""});
  EXPECT_THAT(result.exitCode, ::testing::AnyOf(2, 3));
  EXPECT_THAT(result.err, HasSubstr("--module"));
  EXPECT_THAT(result.err, Not(HasSubstr("/Library/"))) << "looked in the user's home instead";
}

TEST_F(CommandLine, RefusesAnEmptyHome) {
  const Result result = runAlone({"items", "--home", ""});
  EXPECT_THAT(result.exitCode, ::testing::AnyOf(2, 3));
  EXPECT_THAT(result.err, HasSubstr("--home"));
  EXPECT_THAT(result.err, Not(HasSubstr("/Library/"))) << "looked in the user's home instead";
}

TEST_F(CommandLine, TakesOptionsBeforeAndAfterTheCommand) {
  makeCards(kOneCard);
  const std::string module = softHsmModule().string();
  const Result before = runAlone({"--json", "--module", module, "--reader", readerOf("Card"), "items"});
  const Result after = runAlone({"items", "--reader", readerOf("Card"), "--module", module, "--json"});
  expectSuccess(before);
  EXPECT_EQ(after.out, before.out);
  EXPECT_EQ(after.exitCode, 0);
}

TEST_F(CommandLine, PutsLogLinesOnStandardErrorWhenAskedTo) {
  makeCards(kOneCard);
  for (const char* option : {"-v", "--verbose"}) {
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"items"}, {"items", "--json"}, {"readers"}}) {
      SCOPED_TRACE(command.back());
      std::vector<std::string> verbose = command;
      verbose.emplace_back(option);

      const Result quiet = mireltoken(command);
      const Result loud = mireltoken(verbose);

      expectSuccess(quiet);
      EXPECT_EQ(loud.exitCode, 0);
      EXPECT_EQ(loud.out, quiet.out);
      EXPECT_THAT(loud.err, HasSubstr("[-[P11Bridge pkcs11_Load:]-30] P11Bridge path = "));
    }
  }
}

TEST_F(CommandLine, LogsTheWholeInsertionWhenAskedTo) {
  makeCards(kOneCard);
  const Result result = mireltoken({"items", "-v"});
  for (const char* line : {"CTK [MirelSCTokenDriver-13] +++Start+++\n", "CTK [MirelSCToken-31] +++Start+++\n",
                           "[MirelSCToken-52] instanceID = Card ", "CTK [MirelSCToken-66] certs count = 1\n",
                           "CTK [MirelSCToken-143] ---END---\n",
                           "[MirelSCTokenDriver-15] token = ", "CTK [MirelSCTokenDriver-16] ---END---\n"}) {
    EXPECT_THAT(result.err, HasSubstr(line));
  }
}

TEST_F(CommandLine, PutsErrorLinesOnStandardErrorWhenAskedTo) {
  makeCards("token label=Card\npublic type=p256 id=01 label=0x\n");
  const Result result = mireltoken({"items", "-v"});
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, HasSubstr("[MirelSCToken-64] CryptTKitSProvider getTokenCerts fail\n"));
  EXPECT_THAT(result.err, HasSubstr("\nmireltoken: "));
}

TEST_F(CommandLine, IsNotColouredWhenItIsNotOnATerminal) {
  makeCards(kOneCard);
  for (const char* command : {"readers", "items"}) {
    EXPECT_THAT(mireltoken({command}).out, Not(HasSubstr("\x1b")));
    EXPECT_THAT(mireltoken({command, "--json"}).out, Not(HasSubstr("\x1b")));
  }
}

TEST_F(CommandLine, IsColouredOnATerminal) {
  makeCards(kOneCard);
  for (const char* command : {"readers", "items"}) {
    SCOPED_TRACE(command);
    const Result result = runWithOutput(Output::kTerminal, {command});
    expectSuccess(result);
    EXPECT_THAT(result.out, HasSubstr("\x1b["));
    EXPECT_THAT(result.out, HasSubstr("\x1b[0m\r\n"));
  }
}

TEST_F(CommandLine, PrintsJsonWithoutColourOnATerminal) {
  makeCards(kOneCard);
  const Result result = runWithOutput(Output::kTerminal, {"items", "--json"});
  expectSuccess(result);
  EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
  EXPECT_FALSE(Json::parse(result.out)["items"].empty());
}

TEST_F(CommandLine, RespectsNoColor) {
  makeCards(kOneCard);
  Invocation call = onSoftHsm({"items"});
  call.output = Output::kTerminal;
  call.environment["NO_COLOR"] = "1";
  const Result result = run(call);
  expectSuccess(result);
  EXPECT_THAT(result.out, HasSubstr("ITEM"));
  EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
}

TEST_F(CommandLine, TakesAnEmptyNoColorForNone) {
  makeCards(kOneCard);
  Invocation call = onSoftHsm({"items"});
  call.output = Output::kTerminal;
  call.environment["NO_COLOR"] = "";
  EXPECT_THAT(run(call).out, HasSubstr("\x1b["));
}

TEST_F(CommandLine, ShowsTheSameOnATerminalButForTheColour) {
  makeCards(kOneCard);
  std::string shown = runWithOutput(Output::kTerminal, {"items"}).out;
  for (const std::string code : {"\x1b[1m", "\x1b[0m", "\r"}) {
    for (std::size_t at = 0; (at = shown.find(code)) != std::string::npos;) shown.erase(at, code.size());
  }
  EXPECT_EQ(shown, mireltoken({"items"}).out);
}

TEST_F(CommandLine, FailsWhenItsOutputIsFull) {
  makeCards(kOneCard);
  for (const std::vector<std::string>& command : commandsWithOutput()) {
    SCOPED_TRACE(command.back());
    expectFailure(runWithOutput(Output::kFull, command), 14, {"output", "No space left on device"});
  }
}

TEST_F(CommandLine, FailsWhenItsOutputIsClosed) {
  makeCards(kOneCard);
  for (const std::vector<std::string>& command : commandsWithOutput()) {
    SCOPED_TRACE(command.back());
    expectFailure(runWithOutput(Output::kClosed, command), 14, {"output"});
  }
}

TEST_F(CommandLine, FailsWhenNobodyReadsItsOutput) {
  makeCards(kOneCard);
  for (const std::vector<std::string>& command : commandsWithOutput()) {
    SCOPED_TRACE(command.back());
    expectFailure(runWithOutput(Output::kUnread, command), 14, {"output", "Broken pipe"});
  }
}

TEST_F(CommandLine, NeverWritesIntoAFileOfTheModuleWhenItsOutputIsClosed) {
  makeCards(kOneCard);
  const std::filesystem::path fileOfTheModule = folder() / "witness";
  Invocation call = invocation({"--trust-module", "--module", MIREL_WITNESS_MODULE_FILE, "readers"});
  call.environment["MIREL_WITNESS_MODULE"] = softHsmModule().string();
  call.environment["MIREL_WITNESS_FILE"] = fileOfTheModule.string();
  call.output = Output::kClosed;

  const Result result = run(call);

  EXPECT_EQ(result.exitCode, 14);
  EXPECT_TRUE(std::filesystem::exists(fileOfTheModule));
  EXPECT_EQ(std::filesystem::file_size(fileOfTheModule), 0U);
}

}  // namespace
}  // namespace mirel::test
