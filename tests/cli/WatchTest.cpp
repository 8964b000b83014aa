/// `mireltoken watch`, and the watch over a card whose PIN is awaited. The card service is the tests' own;
/// its readers are named as the slots of SoftHSM2, or there is none and the module is asked.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <thread>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;

class Watching : public EndToEndTest {
 protected:
  Watching() : EndToEndTest{{{}}} {}

  /// `watch` with a card service, and a command that notes each event in the file "events".
  [[nodiscard]] Invocation watching(const Arguments& more = {}, const Stage& stage = {}) const {
    Invocation call =
        staged(Arguments{"watch", "--exec", "echo \"$EVENT $SERIAL\" >> " + path("events")} + more, stage);
    call.environment["LD_LIBRARY_PATH"] = MIREL_FAKE_PCSC_FOLDER;
    call.environment["MIREL_PCSC_FILE"] = path("readers");
    return call;
  }
  /// What the card service tells from here on: for each label the state of its reader.
  void tell(const std::vector<std::pair<std::string, std::string>>& states) const {
    std::string readers;
    for (const auto& [label, state] : states) readers += readerOf(label) + "=" + state + ";";
    tellReaders(readers);
  }
  /// The same of readers of any name: "NAME=STATE;" of each.
  void tellReaders(const std::string& readers) const {
    std::ofstream{path("next")} << readers;
    std::filesystem::rename(path("next"), path("readers"));
  }
  /// Waits until so many events were noted. They are noted in any order.
  [[nodiscard]] std::vector<std::string> events(std::size_t number) const {
    std::vector<std::string> lines;
    for (int i = 0; i < 2000 && lines.size() < number; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds{10});
      lines = exists("events") ? linesOf(read("events")) : lines;
    }
    EXPECT_THAT(lines, SizeIs(number));
    return lines;
  }
  /// Ends it as Ctrl-C does. Nothing is left of it.
  [[nodiscard]] static Result ended(RunningChild& child, int signal = SIGINT) {
    EXPECT_EQ(kill(child.pid(), signal), 0);
    return child.wait();
  }
  [[nodiscard]] static std::vector<Json> jsonOf(const Result& result) {
    std::vector<Json> all;
    for (const std::string& line : linesOf(result.out)) all.push_back(Json::parse(line));
    return all;
  }
  void expectSchema(const Result& result) const {
    Invocation call{.program = MIREL_JSON_PYTHON,
                    .arguments = {"-B", MIREL_JSON_AGREES, "--source", MIREL_SOURCE}};
    for (const std::string& line : linesOf(result.out))
      call.arguments.push_back(write("line" + std::to_string(call.arguments.size()), line + "\n"));
    const Result checked = run(call);
    if (checked.exitCode != 77) expectOutput(checked, "");
  }

  const std::string kNone = "10";
  const std::string kCard = "10022:3B";
  const std::string kCardAgain = "30022:3B";
};

TEST_F(Watching, TellsOfACardThatComesAndGoes) {
  tell({{"Card", kNone}});
  RunningChild child{watching("--json")};
  tell({{"Card", kCard}});
  const std::string insertion = events(1)[0];
  tell({{"Card", kNone}});
  EXPECT_THAT(events(2), Contains("removal " + insertion.substr(insertion.find(' ') + 1)));
  const Result result = ended(child);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, IsEmpty());
  const auto told = jsonOf(result);
  ASSERT_THAT(told, SizeIs(2));
  EXPECT_EQ(told[0]["event"], "insertion");
  EXPECT_EQ(told[0]["reader"], readerOf("Card"));
  EXPECT_EQ(told[0]["keys"], 1);
  EXPECT_EQ(told[0]["certificates"], 1);
  EXPECT_EQ(insertion, "insertion " + told[0]["serialNumber"].get<std::string>());
  EXPECT_EQ(told[1]["event"], "removal");
  expectSchema(result);
}

TEST_F(Watching, TellsPeopleInOneLine) {
  tell({{"Card", kCard}});
  RunningChild child{watching()};
  (void)events(1);
  EXPECT_THAT(ended(child, SIGTERM).out,
              ContainsRegex("^[0-9 :-]+  " + readerOf("Card") +
                            "  insertion  \"Card\" [0-9a-f]+: 1 key, 1 certificate; .*\n$"));
}

TEST_F(Watching, AsksNoMoreOfACardServiceThatHasAnswered) {
  tell({{"Card", kCard}});
  const Result result = run(watching({"--for", "4"}));  // more than its first answer may take
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(Watching, TakesASwapForARemovalAndAnInsertion) {
  tell({{"Card", kCard}});
  RunningChild child{watching("--json")};
  (void)events(1);
  tell({{"Card", kCardAgain}});
  (void)events(3);
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(3));
  EXPECT_EQ(told[1]["event"], "removal");
  EXPECT_EQ(told[2]["event"], "insertion");
}

TEST_F(Watching, GoesOnWhenTheCardServiceIsStartedAnew) {
  tell({{"Card", kCard}});
  // Without slots of its own, as a module behind a service that was stopped.
  RunningChild child{watching("--json", {{"NO_SLOTS", "1"}})};
  (void)events(1);
  std::filesystem::remove(path("readers"));
  (void)events(2);
  tell({{"Card", kCard}});
  (void)events(3);
  const Result result = ended(child);
  EXPECT_THAT(result.err, AllOf(HasSubstr("the card service does not answer: SCard"),
                                HasSubstr("the card service answers\n")));
  const auto told = jsonOf(result);
  ASSERT_THAT(told, SizeIs(3));
  EXPECT_EQ(told[0]["error"]["id"], "no-card");
  EXPECT_EQ(told[1]["event"], "removal");
  expectSchema(result);
}

TEST_F(Watching, AsksTheModuleWhereThereIsNoCardService) {
  RunningChild child{watching("--json")};
  (void)events(1);
  makeCards("token label=Other\n");
  (void)events(3);
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(3));
  EXPECT_EQ(told[0]["tokenLabel"], "Card");
  EXPECT_EQ(told[1]["event"], "removal");
  EXPECT_EQ(told[2]["tokenLabel"], "Other");
}

TEST_F(Watching, IsNotHeldUpByAModuleThatHangsOnOneReader) {
  makeCards("token label=Bad\ntoken label=Good\n");
  tell({{"Bad", kCard}, {"Good", kCard}});
  RunningChild child{watching("--json --timeout 2", {{"HANGS", "Bad"}})};
  (void)events(1);
  tell({{"Bad", kCard}, {"Good", kNone}});
  (void)events(3);
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(3));
  EXPECT_EQ(told[0]["tokenLabel"], "Good");
  for (const Json& event : told) {
    if (event.contains("error")) {
      EXPECT_EQ(event["reader"], readerOf("Bad"));
    }
  }
  EXPECT_THAT(told,
              Contains(::testing::ResultOf(
                  [](const Json& event) { return event.contains("error") ? event["error"]["what"] : Json{}; },
                  "the module has not returned from C_OpenSession for 2 s")));
}

TEST_F(Watching, EndsAModuleThatHangsWhenItsCardIsTakenOut) {
  tell({{"Card", kCard}});
  RunningChild child{watching("--json --timeout 0", {{"HANGS", "Card"}, {"HANGING", path("hanging")}})};
  for (int i = 0; i < 2000 && !exists("hanging"); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  tell({{"Card", kNone}});
  (void)events(2);
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(2));
  EXPECT_EQ(told[0]["error"]["id"], "card-gone");
}

TEST_F(Watching, IsLimitedToOneReader) {
  makeCards("token label=One\ntoken label=Two\n");
  tell({{"One", kCard}, {"Two", kCard}});
  RunningChild child{watching({"--json", "--reader", readerOf("Two")})};
  (void)events(1);
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(1));
  EXPECT_EQ(told[0]["tokenLabel"], "Two");
}

TEST_F(Watching, TellsOfNoOtherReaderWhenTheOneOfThatNameIsGone) {
  makeCards("token label=One\n");
  const std::string longName = readerOf("One");
  const std::string name = longName.substr(0, longName.size() - 1);
  tellReaders(name + "=" + kCard + ";" + longName + "=" + kCard + ";");
  RunningChild child{watching({"--json", "--reader", name})};
  (void)events(1);
  tellReaders(longName + "=" + kCard + ";");
  (void)events(2);
  tellReaders(name + "=" + kCard + ";");
  (void)events(3);
  for (const Json& event : jsonOf(ended(child))) EXPECT_EQ(event["reader"], name);
}

TEST_F(Watching, TakesTheCardOfNoReaderWhoseNameOnlyBeginsAlike) {
  makeCards("token label=One\n");
  const std::string longName = readerOf("One");
  const std::string name = longName.substr(0, longName.size() - 1);
  tellReaders(name + "=" + kCard + ";" + longName + "=" + kNone + ";");
  RunningChild child{watching({"--json"})};
  (void)events(1);
  const auto told = jsonOf(ended(child));
  ASSERT_TRUE(told.size() == 1 && told[0].contains("error"));
  EXPECT_EQ(told[0]["error"]["id"], "no-card");
}

TEST_F(Watching, GivesACommandTextsThatControlNoTerminal) {
  tell({{"Card", kCard}});
  std::string name = readerOf("Card");
  std::string readers = read("readers");
  readers.replace(readers.find(name), name.size(), "A\x1B[2J");
  (void)write("readers", readers);
  Invocation call = staged({"watch", "--exec", "echo \"$$ $READER\" >> " + path("events") + "; exit 7"});
  call.environment = watching().environment;
  RunningChild child{call};
  const auto noted = events(2);  // the other is the slot of the token
  EXPECT_THAT(noted, Contains(EndsWith(" A\\x1B[2J")));
  // Their exit codes are known when nothing is left of them.
  for (const std::string& line : noted)
    for (int i = 0; i < 2000 && kill(std::stoi(line), 0) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds{10});
  const Result result = ended(child);
  EXPECT_THAT(
      result.err,
      HasSubstr("the command of --exec failed for insertion, reader \"A\\x1B[2J\": its exit code is 7\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("\x1B")));
}

TEST_F(Watching, IsNotHeldUpByACommandThatHangsAndLeavesNoneBehind) {
  tell({{"Card", kCard}});
  Invocation call = watching("--json");
  call.arguments.insert(call.arguments.end(), {"--for", "30"});
  for (std::string& word : call.arguments) {
    if (word.starts_with("echo ")) word = "echo $$ >> " + path("events") + "; exec sleep 1000";
  }
  RunningChild child{call};
  (void)events(1);
  tell({{"Card", kNone}});
  const auto processes = events(2);
  EXPECT_EQ(ended(child).exitCode, 0);
  for (const std::string& process : processes) EXPECT_NE(kill(std::stoi(process), 0), 0);
}

TEST_F(Watching, DoesNotWaitForACommandThatItMayNotEnd) {
  const char* setpriv = "/usr/bin/setpriv";
  if (geteuid() != 0 || !std::filesystem::exists(setpriv)) GTEST_SKIP() << "only root can become another";
  tell({{"Card", kCard}});
  Invocation call = watching();
  for (std::string& word : call.arguments) {
    if (word.starts_with("echo "))
      word = "echo $$ >> " + path("events") +
             "; exec setpriv --reuid 65534 --clear-groups sleep 1000 > /dev/null 2>&1";
  }
  call.arguments.insert(call.arguments.begin(),
                        {"--bounding-set", "-kill", "--inh-caps", "-kill", call.program.string()});
  call.program = setpriv;
  RunningChild child{call};
  const std::string process = events(1)[0];
  struct stat status {};
  for (int i = 0; i < 2000 && stat(("/proc/" + process).c_str(), &status) == 0 && status.st_uid == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  const Result result = ended(child);
  EXPECT_EQ(kill(std::stoi(process), SIGKILL), 0);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err,
              HasSubstr("the command of --exec goes on for insertion, reader \"" + readerOf("Card") +
                        "\": Operation not permitted; end process " + process + " yourself\n"));
}

TEST_F(Watching, TellsACommandWhichCardIsNotPublished) {
  makeCards("token label=Card\ncertificate type=rsa2048 id=02 label=Big size=2001\n");
  const Json slot = slots().front();
  tell({{"Card", kCard}});
  RunningChild child{watching("--json")};
  EXPECT_THAT(events(1), ElementsAre("insertion " + textOf(slot["serialNumber"])));
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(1));
  EXPECT_EQ(told[0]["error"]["id"], "card-not-listed");
}

TEST_F(Watching, EndsWithTheCodeOfTheFirstCardWhereNoneWasPublishedInItsTime) {
  const std::string bad = "token label=Bad\ncertificate type=rsa2048 id=02 label=Big size=2001\n";
  const struct {
    std::string cards;
    std::vector<std::pair<std::string, std::string>> states;
    int exitCode;
    const char* message;
  } rows[] = {
      {bad, {{"Bad", kCard}}, 6, "no card was published until the end of the watch; the first: "},
      {bad + "token label=Good\n", {{"Bad", kCard}, {"Good", kCard}}, 0, ""},
      {bad + "token label=Good\n", {{"Bad", kNone}, {"Good", kNone}}, 0, ""},
  };
  for (const auto& [cards, states, exitCode, message] : rows) {
    makeCards(cards);
    tell(states);
    const Result result = run(watching({"--for", "3"}));
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_THAT(result.err, HasSubstr(message));
    EXPECT_EQ(result.err.empty(), exitCode == 0);
  }
}

TEST_F(Watching, EndsWithSuccessWhenItIsEndedByWhoeverSawThatNoCardWasPublished) {
  makeCards("token label=Card\ncertificate type=rsa2048 id=02 label=Big size=2001\n");
  tell({{"Card", kCard}});
  RunningChild child{watching()};
  (void)events(1);
  const Result result = ended(child, SIGTERM);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr("  not published: "));
}

TEST_F(Watching, EndsWithTheCodeOfAModuleThatHasNeverStarted) {
  const Result result = run(watching("--json --for 3", {{"INITIALIZE", "5"}}));  // without a card service
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(Json::parse(result.out)["error"]["id"], "module-refuses");
  EXPECT_THAT(result.err, HasSubstr(" does not start: C_Initialize answered CKR_GENERAL_ERROR"));
}

TEST_F(Watching, TellsAtItsEndThatTheModuleHasNeverAnswered) {
  const Result result = run(watching("--json --for 1", {{"PAUSE", "entry"}}));  // without a card service
  EXPECT_EQ(result.exitCode, 23);
  EXPECT_EQ(Json::parse(result.out)["error"]["id"], "module-hangs");
  EXPECT_THAT(result.err, HasSubstr("the module has not answered until the end of the watch"));
}

TEST_F(Watching, TellsAtItsEndOfACardThatIsStillBeingRead) {
  makeCards("token label=Bad\ntoken label=Good\n");
  for (const auto& [state, exitCode] : {std::pair{kNone, 23}, {kCard, 0}}) {
    SCOPED_TRACE(state);
    tell({{"Bad", kCard}, {"Good", state}});
    const Result result = run(watching("--json --for 3 --timeout 0", {{"HANGS", "Bad"}}));
    EXPECT_EQ(result.exitCode, exitCode);
    const auto told = jsonOf(result);
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].contains("error"), exitCode != 0);
    EXPECT_THAT(result.err, HasSubstr("the card in the reader \"" + readerOf("Bad") +
                                      "\" was not read: the module was still busy with it"));
  }
}

TEST_F(Watching, EndsWithAModuleThatCannotBeLoadedAndSaysNothingElse) {
  Invocation call = watching("--json");  // without a card service
  for (std::string& word : call.arguments) {
    if (word == MIREL_STAGED_MODULE_FILE) word = write("module.so", "no library");
  }
  const Result result = run(call);
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(Json::parse(result.out)["error"]["id"], "module-not-loadable");
  EXPECT_THAT(result.err, MatchesRegex("mireltoken: [^\n]+ is not loaded: [^\n]+\n"));
}

TEST_F(Watching, EndsAsOtherCommandsWhereNoProcessCanBeStarted) {
  for (const char* command : {"watch", "items"}) {
    Invocation call = preloaded(staged(command));
    call.environment["MIREL_TEST_NO_PROCESS"] = write("no process", "ever");
    expectFailure(run(call), 1,
                  {"no process can be started: too many processes are running (Resource temporarily unavail"
                   "able); close other programs, then run again"});
  }
}

TEST_F(Watching, GoesOnWhereNoProcessCanBeStartedForOneCard) {
  tell({{"Card", kNone}});
  Invocation call = preloaded(watching("--json", {{"NO_SLOTS", "1"}}));  // which is not asked for slots again
  call.environment["MIREL_TEST_NO_PROCESS"] = path("no process");
  RunningChild child{call};
  std::this_thread::sleep_for(std::chrono::seconds{2});
  (void)write("no process", "");
  tell({{"Card", kCard}});
  (void)events(1);
  tell({{"Card", kCardAgain}});
  (void)events(3);
  const auto told = jsonOf(ended(child));
  ASSERT_THAT(told, SizeIs(3));
  EXPECT_EQ(told[0]["error"]["what"], "no process can be started");
  EXPECT_EQ(told[2]["error"]["id"], "no-card");
}

TEST_F(Watching, GoesOnWhereNoProcessCanBeStartedToAskTheModule) {
  Invocation call = preloaded(watching("--json"));  // without a card service
  call.environment["MIREL_TEST_NO_PROCESS"] = path("no process");
  RunningChild child{call};
  (void)events(1);
  (void)write("no process", "");
  for (int i = 0; i < 2000 && exists("no process"); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  makeCards("token label=Other\n");
  (void)events(3);
  const Result result = ended(child);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, HasSubstr("mireltoken: no process can be started: too many processes"));
  EXPECT_THAT(jsonOf(result), SizeIs(3));
}

TEST_F(Watching, EndsWhenNobodyReadsItsOutputAnyMore) {
  tell({{"Card", kNone}});
  Invocation call = watching();
  call.output = Output::kUnread;
  const Result result = run(call);
  EXPECT_EQ(result.exitCode, 141);
  EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(Watching, LeavesNoProcessBehindWhenItIsKilled) {
  tell({{"Card", kCard}});
  RunningChild child{watching()};
  (void)events(1);
  const pid_t helper = child.worker();
  ASSERT_EQ(kill(child.pid(), SIGKILL), 0);
  for (int i = 0; i < 2000 && kill(helper, 0) == 0; ++i) (void)usleep(10000);
  EXPECT_NE(kill(helper, 0), 0);
}

TEST_F(Watching, EndsThePromptForThePinOfACardThatGoes) {
  const struct {
    const char* name;
    const char* before;
    const char* after;
    Stage stage;
    int exitCode;
    const char* what;
  } rows[] = {
      {"taken out", "10022:3B", "20010", {}, 16, "the card did not stay in the reader"},
      {"taken out and put back", "10022:3B", "30022:3B", {}, 16, "the card did not stay in the reader"},
      {"swapped",
       "10022:3B",
       "30022:3B",
       {{"SWAP_FILE", path("swapped")}},
       15,
       "another card is in the reader"},
      {"its reader goes", "10022:3B", nullptr, {}, 16, "the card did not stay in the reader"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(path("swapped"));
    tell({{"Card", row.before}});
    PseudoTerminal terminal;
    const std::string settings = terminal.settings();
    Invocation call = staged("login", row.stage);
    call.environment["LD_LIBRARY_PATH"] = MIREL_FAKE_PCSC_FOLDER;
    call.environment["MIREL_PCSC_FILE"] = path("readers");
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor("PIN for "));
    terminal.type("123");
    std::this_thread::sleep_for(std::chrono::milliseconds{100});
    (void)write("swapped", "");
    row.after ? tell({{"Card", row.after}}) : tell({});
    expectFailure(child.wait(), row.exitCode, {row.what});
    EXPECT_EQ(terminal.settings(), settings);
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
}

TEST_F(Watching, LeavesAPromptAloneWhereTwoReadersHaveOneNameOrTheServiceHangs) {
  const struct {
    const char* name;
    std::vector<std::pair<std::string, std::string>> readers;
    const char* hangs;
  } rows[] = {{"two readers", {{"Card", kNone}, {"Card", kCard}}, ""},
              {"service that hangs", {{"Card", kCard}}, "SCardCancel"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    tell(row.readers);
    PseudoTerminal terminal;
    Invocation call = staged("login");
    call.environment["LD_LIBRARY_PATH"] = MIREL_FAKE_PCSC_FOLDER;
    call.environment["MIREL_PCSC_FILE"] = path("readers");
    call.environment["MIREL_PCSC_HANGS"] = row.hangs;
    call.terminal = &terminal;
    RunningChild child{call};
    ASSERT_TRUE(terminal.waitFor("PIN for "));
    std::this_thread::sleep_for(std::chrono::milliseconds{100});  // nothing is to happen
    terminal.type(std::string{kPin} + "\r");
    expectSuccess(child.wait());
  }
}

}  // namespace
}  // namespace mirel::test
