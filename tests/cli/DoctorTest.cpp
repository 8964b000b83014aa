#include <gmock/gmock.h>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// What `mireltoken doctor` says of a card that signs and decrypts, without and with a login.
class Doctor : public EndToEndTest {
 protected:
  Doctor() : EndToEndTest{severalKeys()} {}

  /// With the tests' own PC/SC library, behind which no service runs.
  [[nodiscard]] Result examined(Invocation call) const {
    call.environment["LD_LIBRARY_PATH"] = MIREL_FAKE_PCSC_FOLDER;
    return run(call);
  }
  [[nodiscard]] static std::vector<std::string> codesIn(const Json& json) {
    std::vector<std::string> codes;
    for (const Json& finding : json["findings"]) codes.push_back(finding["id"]);
    return codes;
  }
  [[nodiscard]] static Json checkIn(const Json& json, std::string_view name) {
    for (const Json& check : json["checks"]) {
      if (check["name"] == name && check["severity"] != "skipped") return check;
    }
    return {};
  }
};

TEST_F(Doctor, SaysOfEachCheckWhatItSawAndThenWhatToDo) {
  const Result result = examined(staged("doctor", {{"INITIALIZE", "7"}}));
  EXPECT_EQ(result.exitCode, 20);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, StartsWith("ok    module file        "));
  EXPECT_THAT(result.out,
              HasSubstr("\nFAIL  module starts      C_Initialize answered CKR_ARGUMENTS_BAD (0x7)"));
  EXPECT_THAT(result.out, HasSubstr("\nskip  slots              the module wants parameters at its start\n"));
  EXPECT_THAT(result.out, HasSubstr("\n\nMT-M06  the module wants parameters at its start\n"
                                    "  Seen    C_Initialize answered CKR_ARGUMENTS_BAD (0x7)"));
  EXPECT_THAT(result.out, HasSubstr("\n  Do      put the module behind p11-kit-proxy"));
  EXPECT_THAT(result.out, HasSubstr("\n  Who     the administrator of this computer\n"));
  EXPECT_THAT(linesOf(result.out).back(), ::testing::MatchesRegex("17 checks: 1 failure, .*skipped\\."));
}

TEST_F(Doctor, ExaminesAModuleByANameThatIsNotKnown) {
  const Result result = examined(invocation(
      {"--module", "nofile.so", "doctor", "--html", path("page.html"), "--bundle", path("bundle.txt")}));
  EXPECT_EQ(result.exitCode, 20);
  EXPECT_THAT(result.out,
              HasSubstr("\n\nMT-M01  there is no module file\n  Seen    nofile.so: No such file"));
  EXPECT_TRUE(exists("page.html"));
  EXPECT_TRUE(exists("bundle.txt"));
}

TEST_F(Doctor, WritesItsFilesAlsoWhereNobodyReadsItsOutput) {
  Invocation call = staged(Arguments{"doctor", "--html", path("page.html"), "--bundle", path("bundle.txt")});
  call.output = Output::kUnread;
  EXPECT_EQ(examined(call).exitCode, 141);
  EXPECT_TRUE(exists("page.html"));
  EXPECT_TRUE(exists("bundle.txt"));
}

TEST_F(Doctor, SaysTheSameAsJson) {
  const Json json = Json::parse(examined(staged("doctor --json", {{"INITIALIZE", "7"}})).out);
  EXPECT_EQ(json["verdict"], "failure");
  EXPECT_EQ(checkIn(json, "module starts")["findings"], Json::array({"MT-M06"}));
  ASSERT_THAT(codesIn(json), ElementsAre("MT-M06"));
  const Json& finding = json["findings"][0];
  EXPECT_EQ(finding["severity"], "failure");
  EXPECT_EQ(finding["who"], "administrator");
  for (const char* key : {"subject", "evidence", "title", "why", "remedy"})
    EXPECT_TRUE(finding.contains(key));
}

TEST_F(Doctor, NeedsNoPinAndAsksForNone) {
  const Result result = examined(staged("doctor --json"));
  EXPECT_THAT(checkIn(Json::parse(result.out), "card")["evidence"], HasSubstr("\"Card\""));
  EXPECT_EQ(checkIn(Json::parse(result.out), "login"), Json{});
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

TEST_F(Doctor, TriesTheKeysAfterALogin) {
  const Result result = examined(stagedWithPin("doctor --login --json"));
  const Json json = Json::parse(result.out);
  EXPECT_THAT(checkIn(json, "signatures")["evidence"], HasSubstr("signs RSA-PSS, not PKCS #1 v1.5"));
  EXPECT_THAT(checkIn(json, "decryption")["evidence"], HasSubstr("decrypts PKCS #1 v1.5"));
  EXPECT_THAT(codesIn(json), ::testing::Contains("MT-K05"));
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
}

TEST_F(Doctor, TellsOnceMoreOfAnEarlierCheckThatIsKnownBetterLater) {
  EXPECT_EQ(run(onSoftHsm("login --pin-file " + write("wrong", kWrongPin))).exitCode, 7);
  const Result result = examined(withPin("doctor --login"));
  EXPECT_THAT(result.out, HasSubstr("\nwarn  PIN                the flags have USER_PIN_COUNT_LOW\n"));
  EXPECT_THAT(result.out, HasSubstr("\nKnown better by later checks:\n"
                                    "ok    PIN                the card accepts the PIN\n\nMT-"));
}

TEST_F(Doctor, SpendsOneTryOfAWrongPinAndSaysSo) {
  const Result result = examined(staged("doctor --login --json --pin-file " + write("wrong", kWrongPin)));
  EXPECT_EQ(result.exitCode, 20);
  EXPECT_THAT(codesIn(Json::parse(result.out)), ::testing::Contains("MT-P08"));
  EXPECT_EQ(stagedCallsOf("C_Login"), 1);
}

TEST_F(Doctor, WarnsByItsExitCode) {
  const Result result = examined(staged("doctor", {{"TOKEN_FLAGS", "10000"}}));
  EXPECT_THAT(result.out, HasSubstr("\nwarn  PIN"));
}

TEST_F(Doctor, TakesNoPinThatItDoesNotUse) {
  const std::string unused = "a PIN is of no use without --login";
  expectFailure(examined(stagedWithPin("doctor")), 2, {unused});
  for (const char* option : {"--pin-fd 0", "--last-try"})
    expectFailure(examined(staged(std::string{"doctor "} + option)), 2, {unused});
}

TEST_F(Doctor, DoesNotTakeAPinFileThatCannotBeReadForAFaultOfTheCard) {
  for (const std::string& file : {path("none"), write("blank", "12 34")}) {
    expectFailure(examined(staged("doctor --login --pin-file " + file)), 14, {"the PIN cannot be read from"});
    EXPECT_EQ(stagedCallsOf("C_Initialize"), 0);
  }
}

TEST_F(Doctor, WritesThePageBesidesTheText) {
  const ScopedMask mask{022};
  const Result result = examined(staged(Arguments{"doctor", "--html", path("page.html")}));
  EXPECT_THAT(result.out, StartsWith("ok    module file        "));
  EXPECT_EQ(modeOf("page.html"), 0644U);
  EXPECT_THAT(read("page.html"), StartsWith("<!DOCTYPE html>"));
  EXPECT_THAT(read("page.html"), HasSubstr("<td>&quot;Card&quot;, serial number "));
  EXPECT_THAT(read("page.html"), HasSubstr("keychain: 6 items"));
}

TEST_F(Doctor, FindsOutBeforeThatAFileCannotBeWritten) {
  const FailingRun rows[] = {{"--html -", 2, {"--html needs a file"}},
                             {{"--html", ""}, 2, {"--html is empty"}},
                             {"--html /nowhere/page.html", 14, {"/nowhere/page.html"}}};
  for (const FailingRun& row : rows) {
    expectFailure(examined(staged("doctor" + row.arguments)), row.exitCode, row.words);
    EXPECT_EQ(stagedCallsOf("C_Initialize"), 0);
  }
}

TEST_F(Doctor, WritesOverNoOtherFileOfTheCommandLine) {
  const std::string module = path("module.so");
  std::filesystem::copy_file(MIREL_STAGED_MODULE_FILE, module);
  const std::pair<Arguments, const char*> rows[] = {
      {"--html " + path("file") + " --bundle " + path("./file"), "--bundle"},
      {"--module " + module + " --bundle " + path("./module.so"), "--module"},
      {"--login --pin-file " + write("pin", kPin) + " --bundle " + path("./pin"), "--pin-file"},
      {"--replay " + write("replay", "{}") + " --html " + path("./replay"), "--replay"},
  };
  for (const auto& [arguments, other] : rows)
    expectFailure(examined(invocation("doctor" + arguments)), 2,
                  {std::string{" would overwrite the file of "} + other});
  EXPECT_FALSE(exists("file"));
  EXPECT_EQ(read("pin"), kPin);
  EXPECT_EQ(contentOf(module), contentOf(MIREL_STAGED_MODULE_FILE));
}

TEST_F(Doctor, WritesWhatItHasFoundWhereTheModuleEndsIt) {
  const struct {
    Stage stage;
    int exitCode;
    const char* code;
    const char* words;
  } rows[] = {{{{"CRASH", "C_Login"}}, 21, "MT-M10", "the module crashed in C_Login (SIGSEGV)"},
              {{{"EXIT", "C_Login"}}, 22, "MT-M10", "it called exit in C_Login"},
              {{{"PAUSE", "C_Login"}}, 23, "MT-M11", "the module has not returned from C_Login for 1 s"}};
  for (const auto& [stage, exitCode, code, words] : rows) {
    if (kHasAddressSanitizer && exitCode == 21) continue;  // the sanitizer makes an end of its own of a crash
    SCOPED_TRACE(words);
    const Arguments files{"--html", path("page.html"), "--bundle", path("bundle"), "--anonymous"};
    const Result result = examined(stagedWithPin("doctor --login --timeout 1" + files, stage));
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_THAT(result.err, HasSubstr(words));
    EXPECT_THAT(result.err, HasSubstr("what was found until then was written"));
    for (const char* file : {"page.html", "bundle"}) {
      EXPECT_THAT(read(file), HasSubstr(code));
      EXPECT_THAT(read(file), HasSubstr(words));
      EXPECT_THAT(read(file), HasSubstr("C_Initialize without parameters"));
    }
    EXPECT_THAT(read("page.html"), HasSubstr("&quot;Card&quot;, serial number"));
    EXPECT_THAT(read("bundle"), Not(HasSubstr("\"Card\"")));
    EXPECT_THAT(read("bundle"), HasSubstr("\"idHex\""));
  }
}

TEST_F(Doctor, WithoutFilesIsEndedByTheModuleAsEachCommand) {
  expectJsonFailure(examined(staged("doctor --json", {{"EXIT", "C_GetTokenInfo"}})), 22,
                    {"it called exit in C_GetTokenInfo"});
}

class Explain : public EndToEndTest {};

TEST_F(Explain, ShowsAFindingOrAll) {
  expectOutput(run(invocation("explain mt-r01")),
               "MT-R01  no reader is connected\n"
               "  Why     a card is reached through a reader\n"
               "  Do      connect a reader\n"
               "  Who     you\n");
  EXPECT_EQ(Json::parse(run(invocation("explain MT-R01 --json")).out)["id"], "MT-R01");
  const Result all = run(invocation("explain"));
  expectSuccess(all);
  EXPECT_THAT(all.out, HasSubstr("\nMT-P08  the card did not accept the PIN\n"));
  EXPECT_EQ(Json::parse(run(invocation("explain --json")).out)["findings"].size() + 1,
            linesOf(all.out).size());
}

TEST_F(Explain, NamesWhatIsNearToAnUnknownOne) {
  const std::pair<const char*, const char*> rows[] = {{"MT-R1", "\"MT-R1\" (did you mean \"MT-R01\"?)"},
                                                      {"r01", "mean \"MT-R01\""},
                                                      {"C3", "mean \"MT-C03\""}};
  for (const auto& [word, text] : rows)
    expectFailure(run(invocation({"explain", word})), 2, {text, "mireltoken explain"});
  expectFailure(run(invocation("explain something")), 2, {"there is no finding \"something\"; see all"});
}

}  // namespace
}  // namespace mirel::test
