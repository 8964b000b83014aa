/// Traces, recordings, and runs that a recording answers.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>

#include "EndToEndTest.h"
#include "ReferenceCryptography.h"
#include "ScopedFileSizeLimit.h"
#include "cardmaker/SoftHsm.h"
#include "support/ModuleHome.h"

namespace mirel::test {
namespace {

std::string base64Of(const std::string& bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i + 2 < bytes.size(); i += 3) {
    unsigned group = 0;
    for (std::size_t j = 0; j < 3; ++j) group = group << 8U | static_cast<unsigned char>(bytes[i + j]);
    for (unsigned shift : {18U, 12U, 6U, 0U}) text += kDigits[group >> shift & 63U];
  }
  return text;
}

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

/// Looks for the secret in each form in which it could be written; base64 has three, by where it begins.
void expectNoTraceOf(const std::string& secret, const std::string& text) {
  std::string reversed{secret.rbegin(), secret.rend()};
  for (const std::string& bytes : {secret, reversed}) {
    EXPECT_EQ(text.find(bytes), std::string::npos) << hexOfBytes(bytes);
    EXPECT_EQ(lowered(text).find(lowered(hexOfBytes(bytes))), std::string::npos) << hexOfBytes(bytes);
    for (std::size_t start = 0; start < 3; ++start)
      EXPECT_EQ(text.find(base64Of(bytes.substr(start))), std::string::npos) << hexOfBytes(bytes);
  }
}

class Recordings : public EndToEndTest {
 protected:
  Recordings() : EndToEndTest{severalKeys()} {}

  [[nodiscard]] std::string file() const { return path("recording"); }

  /// Runs the command with its recording made. `pin`: the file of the PIN.
  [[nodiscard]] Result recorded(const Arguments& arguments, const std::string& input = {}) const {
    Invocation call = invocation(Arguments{"--module", kSoftHsm, "record", "--out", file()} + arguments);
    call.input = input;
    return run(call);
  }

  /// Without the module, the card and the home of the user.
  [[nodiscard]] Result replayed(const Arguments& arguments, const std::string& input = {}) const {
    Invocation call = invocation(Arguments{"--replay", file()} + arguments);
    call.environment.erase("SOFTHSM2_CONF");
    for (const char* name : {"MIRELTOKEN_MODULE", "MIRELTOKEN_READER"}) call.environment[name] = "another";
    call.input = input;
    return run(call);
  }

  const std::string kSoftHsm = softHsmModule().string();
};

TEST_F(Recordings, AnswerAsTheCardDid) {
  const std::string pin = " --pin-file " + write("pin", kPin);
  const std::string wrong = " --pin-file " + write("wrong", kWrongPin);
  const struct {
    Arguments arguments;
    int exitCode = 0;
  } rows[] = {
      {"readers"},
      {"items"},
      {"items --json"},
      {"certificate --key 01"},
      {"sign --key 01" + pin},
      {"sign --json --key 01 --algorithm PS384" + pin},
      {"login" + wrong, 7},
      {"login --json" + wrong, 7},
      {"doctor", 19},
      {"doctor --login" + pin, 19},
      {"conformance --login" + pin, 20},
      {"sign --key 09" + pin, 12},
  };
  for (const auto& [arguments, exitCode] : rows) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const Result first = recorded(arguments, kMessage);
    const Result second = replayed(arguments, kMessage);
    EXPECT_EQ(first.exitCode, second.exitCode);
    if (exitCode != 20) {
      EXPECT_EQ(first.exitCode, exitCode) << first.err;
    }
    EXPECT_EQ(first.out, second.out);
    EXPECT_EQ(first.err, second.err);
  }
}

TEST_F(Recordings, AnswerADecryptionWithAsManyLetters) {
  const std::string pin = " --pin-file " + write("pin", kPin);
  const std::string cipher = encrypted("rsa2048", "pkcs1", kPlain);
  ASSERT_EQ(recorded("decrypt --key 02" + pin, cipher).out, kPlain);
  expectOutput(replayed("decrypt --key 02" + pin, cipher), std::string(std::string{kPlain}.size(), 'Z'));
}

TEST_F(Recordings, ReplayInTheHomeThatHadTheModule) {
  const ModuleHome home{kSoftHsm};
  expectSuccess(run(invocation("--home " + home.home() + " record --out " + file() + " items")));
  EXPECT_THAT(replayed("items -v").err, HasSubstr(" path = " + home.modulePath() + "\n"));
}

TEST_F(Recordings, CanBeTracedAndRecordedInAReplay) {
  expectSuccess(recorded("readers"));
  const std::string trace = path("trace");
  const std::string again = path("again");
  const Result replay = replayed("--trace " + trace + " -vv record --out " + again + " readers");
  EXPECT_EQ(replay.exitCode, 0);
  EXPECT_THAT(replay.err, HasSubstr("\nC_GetSlotList: CKR_OK, "));
  EXPECT_THAT(run(invocation("trace show " + trace)).out, HasSubstr("C_GetSlotList"));
  EXPECT_EQ(run(invocation("readers --replay " + again)).out, replay.out);
}

TEST_F(Recordings, NameWhatTheyDoNotHave) {
  expectSuccess(recorded("readers"));
  expectFailure(
      replayed("certificate --key 01"), 24,
      {"the recording does not go on like this", "was not recorded here", "it was made with: readers"});
  expectJsonFailure(replayed("certificate --key 01 --json"), 24, {"was not recorded here"});
}

TEST_F(Recordings, LeaveTheModuleOfThisSystemOutOfABundle) {
  (void)recorded("doctor");
  (void)replayed("doctor --bundle " + path("bundle"));
  EXPECT_THAT(read("bundle"), AllOf(HasSubstr("\nAs recorded, "), Not(HasSubstr("SHA-256"))));
}

TEST_F(Recordings, AreForTheirOwnerAlone) {
  write("recording", "", 0644);
  expectSuccess(recorded("readers"));
  EXPECT_EQ(modeOf("recording"), 0600U);
  write("trace", "", 0644);
  expectSuccess(mireltoken("readers --trace " + path("trace")));
  EXPECT_EQ(modeOf("trace"), 0600U);
}

TEST_F(Recordings, TellThatATraceIsNotWhole) {
  const Result good = mireltoken("readers --trace /dev/full");
  EXPECT_EQ(good.exitCode, 14);
  EXPECT_THAT(good.err, HasSubstr("/dev/full cannot be written"));
  const Result failed = mireltoken("login --trace /dev/full --pin-file " + write("wrong", kWrongPin));
  EXPECT_EQ(failed.exitCode, 14);
  EXPECT_THAT(failed.err, ContainsRegex("PIN is wrong[^\n]*\n[^\n]*/dev/full cannot be written"));
}

TEST_F(Recordings, AreNotStoredWhereTheyCouldNotBeWritten) {
  constexpr rlim_t kLess = 1024;  // than a recording takes, and more than the list of readers
  const ScopedFileSizeLimit limit{kLess};
  const Result result = recorded("readers");
  EXPECT_EQ(result.exitCode, 14);
  EXPECT_EQ(result.err.find("mireltoken: " + path("recording") + " cannot be written: File too large; "), 0U);
  EXPECT_FALSE(exists("recording"));
}

TEST_F(Recordings, KeepTheNamesOfFilesFromTheirHeader) {
  expectSuccess(recorded("certificate --key 01 --out " + path("secret-name")));
  const Json header = Json::parse(linesOf(read("recording")).front());
  EXPECT_EQ(header["schema"], "mireltoken/recording/1");
  EXPECT_EQ(header["command"].dump(), R"(["certificate","--key","01","--out","FILE","--module","PATH"])");
  EXPECT_EQ(header["module"], std::filesystem::path{kSoftHsm}.filename().string());
  EXPECT_THAT(read("recording"), Not(HasSubstr("secret-name")));
}

TEST_F(Recordings, HoldNoSecret) {
  const std::string pin = " --pin-file " + write("pin", kPin);
  const std::string text = "Nobody reads this text";
  const std::string cipher = encrypted("rsa2048", "pkcs1", text);
  const std::string message = "What is signed is not there either";
  const std::pair<Arguments, std::string> rows[] = {
      {"readers", ""},
      {"items", ""},
      {"certificate --key 01", ""},
      {"algorithms --key 01", ""},
      {"login" + pin, ""},
      {"login --pin-file " + write("wrong", kWrongPin), ""},
      {"sign --key 01" + pin, message},
      {"sign --key 01 --algorithm PS256" + pin, message},
      {"decrypt --key 02" + pin, cipher},
      {"exchange --key 03" + pin, message},
      {"doctor --login" + pin, ""},
      {"conformance --login" + pin, ""},
  };
  for (const auto& [arguments, input] : rows) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    (void)recorded(arguments, input);
    const std::string all = read("recording");
    EXPECT_THAT(all, HasSubstr(R"("function":"C_GetSlotList")"));
    for (const std::string& secret : {std::string{kPin}, std::string{kWrongPin}, text, message, cipher})
      expectNoTraceOf(secret, all);
  }
}

TEST_F(Recordings, AreNotMadeWhereThatMakesNoSense) {
  const std::pair<Arguments, const char*> rows[] = {
      {"record items", "record needs --out"},
      {"record --out - items", "needs a file"},
      {"record --out " + path("out"), "record needs a command that uses a card"},
      {"record --out " + path("out") + " -v", "record needs a command that uses a card"},
      {"record --out " + path("out") + " help", "record needs a command"},
      {"record --out " + path("out") + " explain", "record needs a command"},
      {"record --out " + path("out") + " trace show " + path("text"), "record needs a command"},
      {"record --out " + path("out") + " watch --for 1", "watch cannot be recorded, since each card"},
      {"record --out " + path("out") + " record --out x items", "there is no \"record\""},
      {"record --out " + path("out") + " items --colour", "there is no \"--colour\""},
      {"--module x --replay y items", "excludes"},
      {"--trace - items", "needs a file"},
      {"--trace x --replay x items", "would overwrite the file of --replay"},
      {"sign --key 01 --in " + path("text") + " --trace " + path("./text"),
       "would overwrite the file of --in"},
      {"sign --key 01 --in " + path("text") + " --trace " + path("link"), "would overwrite the file of --in"},
      {"trace show " + path("text") + " --trace " + path("text"), "would overwrite the file of FILE"},
      {"certificate --key 01 --out " + path("x") + " --trace " + path("./none/../x"),
       "--trace would overwrite the file of --out"},
      {"record --out x items --trace x", "--trace would overwrite the file of record --out"},
      {"record --out x certificate --key 01 --out x", "record --out would overwrite the file of --out"},
      {"record --out " + path("text") + " sign --key 01 --in " + path("text"),
       "record --out would overwrite the file of --in"},
      {"--module x record --out " + path("out") + " items --replay y", "excludes"},
  };
  write("text", kMessage);
  std::filesystem::create_hard_link(path("text"), path("link"));
  for (const auto& [arguments, why] : rows) expectFailure(run(invocation(arguments)), 2, {why});
  EXPECT_EQ(read("text"), kMessage);
  EXPECT_FALSE(exists("out"));
  expectFailure(run(invocation("items --replay " + write("none", "{}"))), 2, {"is no recording", "line 1"});
  expectFailure(run(invocation("items --replay /nowhere/file")), 14, {"cannot be read"});
  expectFailure(run(invocation("items --trace /nowhere/file")), 14, {"cannot be written"});
}

TEST_F(Recordings, DoNotTakeThePlaceOfTheModuleWhereverItIsNamed) {
  const std::string module = path("module.so");
  std::filesystem::copy_file(kSoftHsm, module);
  const ModuleHome home{module};
  std::filesystem::create_directories(path("settings/pkcs11/modules"));
  (void)write("settings/pkcs11/modules/card.module", "module: " + module + "\n");
  const std::tuple<Arguments, std::pair<std::string, std::string>, const char*> rows[] = {
      {"", {"MIRELTOKEN_MODULE", module}, "MIRELTOKEN_MODULE"},
      {"", {"MIRELTOKEN_MODULE", "card"}, "MIRELTOKEN_MODULE"},
      {"--module card", {}, "--module"},
      {"--home " + home.home(), {}, "the module in the home folder"}};
  for (const auto& [choice, variable, name] : rows) {
    for (const std::string option : {"--trace", "record --out"}) {
      Invocation call = invocation(choice + Arguments(option + " " + path("./module.so") + " items"));
      call.environment["XDG_CONFIG_HOME"] = path("settings");
      call.environment.insert(variable);
      expectFailure(run(call), 2, {option + " would overwrite the file of " + name});
      EXPECT_EQ(contentOf(module), contentOf(kSoftHsm));
    }
  }
}

TEST_F(Recordings, AreNotReadAsTheInput) {
  for (const char* file : {"/dev/fd/3", "/dev/fd/4", "/dev/fd/5"})
    expectFailure(mireltoken("sign --key 01 --trace " + path("trace") + " --in " + file), 14,
                  {std::string{file} + " cannot be read: Bad file descriptor"});
}

TEST_F(Recordings, GetNoResultByADescriptorThatWasNotOpenBeforeThem) {
  const std::string trace = "--trace " + path("trace") + " ";
  for (const std::string file : {"/dev/fd/3", "/dev/fd/4", "/dev/fd/5"}) {
    for (const std::string command : {"certificate --key 01 --out ", "doctor --html ", "record --out "}) {
      const std::string recorded = command.starts_with("record") ? " items" : "";
      expectFailure(mireltoken(trace + command + file + recorded), 14,
                    {file + " cannot be written: Bad file descriptor"});
      EXPECT_FALSE(exists("trace"));
    }
  }
}

TEST_F(Recordings, CanGoToAnOpenFileAndToADevice) {
  Invocation call = onSoftHsm("record --out /dev/fd/41 readers");
  const int descriptor = open(write("open", "").c_str(), O_WRONLY | O_CLOEXEC);
  call.descriptors[41] = descriptor;
  expectSuccess(run(call));
  (void)close(descriptor);
  EXPECT_THAT(run(invocation("trace show " + path("open"))).out, HasSubstr("C_GetSlotList"));
  expectSuccess(mireltoken("record --out /dev/null readers"));
}

TEST_F(Recordings, KeepARunThatCameToABadEnd) {
  const struct {
    Arguments command;
    Stage stage;
    int exitCode;
    const char* end;
  } rows[] = {
      {"login", {{"CRASH", "C_Login"}}, 21, "C_Login did not return: SIGSEGV."},
      {"sign --key 01", {{"CRASH", "C_Sign"}}, 21, "C_Sign did not return: SIGSEGV."},
      {"doctor --bundle " + path("bundle"), {{"CRASH", "C_GetSlotList"}}, 21, "C_GetSlotList did not return"},
      {"readers", {{"CRASH", "entry"}}, 21, "C_GetFunctionList did not return: SIGSEGV."},
      {"items --json", {{"EXIT", "C_GetTokenInfo"}}, 22, "did not return: the module called exit."},
      {"decrypt --key 02", {{"EXIT", "C_Login"}}, 22, "C_Login did not return: the module called exit."},
      {"sign --key 01 --timeout 1", {{"PAUSE", "C_Sign"}}, 23, "did not return: hung, ended after 1 s."},
  };
  const std::string trace = path("trace");
  for (const auto& [command, stage, exitCode, end] : rows) {
    SCOPED_TRACE(end);
    if (kHasAddressSanitizer && exitCode == 21) continue;  // it makes an end of its own of a crash
    const bool hasPin = command[0] == "login" || command[0] == "sign" || command[0] == "decrypt";
    const Arguments pin = hasPin ? Arguments{"--pin-file", write("pin", kPin)} : Arguments{};
    const std::string input = command[0] == "decrypt" ? std::string(256, '?') : kMessage;
    Invocation call = staged(Arguments{"--trace", trace, "record", "--out", file()} + command + pin, stage);
    call.input = input;
    const Result first = run(call);
    EXPECT_EQ(first.exitCode, exitCode) << first.err;
    Result second = replayed(command + pin, input);
    EXPECT_EQ(second.exitCode, exitCode);
    const std::string replay = ", as recorded:";
    ASSERT_THAT(second.err, HasSubstr(replay));
    EXPECT_EQ(second.err.replace(second.err.find(replay), replay.size() - 1, ""), first.err);
    for (const std::string& kept : {trace, file()}) {
      EXPECT_THAT(run(invocation("trace show " + kept)).out, HasSubstr(end));
      for (const char* secret : {kPin, kMessage}) expectNoTraceOf(secret, contentOf(kept));
    }
  }
}

TEST_F(Recordings, KeepWhatWasThereBeforeAnInterruption) {
  const Arguments words{"--trace", path("trace"), "record", "--out", file(), "login"};
  RunningChild child{stagedWithPin(words, {{"PAUSE", "C_Login"}})};
  ASSERT_TRUE(waitForStagedCallOf("C_Login"));
  ASSERT_EQ(kill(child.pid(), SIGINT), 0);
  const Result interrupted = child.wait();
  EXPECT_EQ(interrupted.exitCode, 128 + SIGINT);
  EXPECT_EQ(interrupted.err, "mireltoken: interrupted by SIGINT; what was recorded until then is in " +
                                 path("trace") + " and " + file() + "\n");
  expectFailure(replayed("login --pin-file " + write("pin", kPin)), 24,
                {"the recording ends here: C_Login did not return: interrupted by SIGINT"});
  const Json shown = Json::parse(run(invocation("trace show --json " + path("trace"))).out);
  EXPECT_EQ(shown["end"]["function"], "C_Login");
}

TEST_F(Recordings, AreShownAsATable) {
  const std::string wrong = " --pin-file " + write("wrong", kWrongPin);
  EXPECT_EQ(mireltoken("login --trace " + path("trace") + wrong).exitCode, 7);
  const Result all = run(invocation("trace show " + path("trace")));
  expectSuccess(all);
  EXPECT_THAT(all.out, ContainsRegex("CALL +FUNCTION +FOR +ABOUT +RESULT +MS\n"));
  EXPECT_THAT(all.out, ContainsRegex("C_GetAttributeValue +token +object [0-9]+: CKA_"));
  const std::vector<std::string> failed =
      linesOf(run(invocation("trace show --failed " + path("trace"))).out);
  ASSERT_EQ(failed.size(), 4U);
  EXPECT_THAT(failed[1], ContainsRegex("C_Login +token +CKR_PIN_INCORRECT"));
  EXPECT_THAT(failed[3], ContainsRegex("[0-9]+ calls that took [0-9.]+ ms; 1 failed\\."));
  const Result slow = run(invocation("trace show --slow --json " + path("trace")));
  const Json calls = Json::parse(slow.out)["calls"];
  EXPECT_GE(calls.front()["milliseconds"], calls.back()["milliseconds"]);
  double sum = 0;
  for (const Json& call : calls) sum += call["milliseconds"].get<double>();
  std::array<char, 64> took{};
  (void)std::snprintf(took.data(), took.size(), "\n%zu calls that took %.3f ms; 1 failed.\n", calls.size(),
                      sum);
  EXPECT_THAT(all.out, HasSubstr(took.data()));
  expectFailure(run(invocation("trace shows x")), 2, {"trace show FILE"});
}

TEST_F(Recordings, AreShownWhateverModuleIsChosen) {
  expectSuccess(recorded("readers"));
  Invocation call = invocation("trace show " + file());
  call.environment["MIRELTOKEN_MODULE"] = write("none", "no library");
  expectSuccess(run(call));
}

TEST_F(Recordings, OfOneCallAreALineOnStandardError) {
  const Result run = recorded("items -v --json -v");
  EXPECT_TRUE(Json::parse(run.out).is_object());
  EXPECT_THAT(run.err, ContainsRegex("\nC_GetSlotList: CKR_OK, [0-9.]+ ms\n"));
  EXPECT_THAT(run.err, ContainsRegex("\nC_GetAttributeValue \\(object [0-9]+: CKA_LABEL[^)]*\\): CKR_OK, "));
  EXPECT_THAT(mireltoken("items -v").err, Not(HasSubstr("C_GetSlotList: CKR_OK")));
}

/// Those in tests/recordings, each of the command that its header names. NAME.out has what was printed, and
/// the exit code.
TEST_F(Recordings, OfCardsAnswerAsTheyDid) {
  const std::string kCipherText(256, '?');  // only its size is recorded
  std::size_t numPlayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator{MIREL_SOURCE "/tests/recordings"}) {
    std::filesystem::path expected = entry.path();
    expected.replace_extension(".out");
    if (entry.path().extension() != ".jsonl" || !std::filesystem::exists(expected)) continue;
    SCOPED_TRACE(entry.path());
    ++numPlayed;
    Arguments arguments{"--replay", entry.path().string()};
    const Json header = Json::parse(linesOf(contentOf(entry.path())).front());
    EXPECT_FALSE(header["replaced"].empty()) << "it is not anonymous";
    const auto words = header["command"].get<std::vector<std::string>>();
    for (std::size_t i = 0; i < words.size(); ++i) {
      const bool isFile = words[i] == "FILE";
      if (words[i] == "--module") {
        ++i;  // the recording is in its place
      } else if (isFile && words[i - 1] == "--pin-file") {
        arguments.push_back(write("pin", kPin));
      } else {
        arguments.push_back(isFile ? write("input", words.front() == "decrypt" ? kCipherText : kMessage)
                                   : words[i]);
      }
    }
    Invocation call = invocation(arguments);
    call.input = kMessage;
    const Result result = run(call);
    EXPECT_EQ(result.out + "exit code " + std::to_string(result.exitCode) + "\n", contentOf(expected))
        << result.err;
  }
  EXPECT_GE(numPlayed, 3U);
}

}  // namespace
}  // namespace mirel::test
