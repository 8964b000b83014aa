#include "EndToEndTest.h"

namespace mirel::test {
namespace {

/// What `mireltoken conformance` says of a card with RSA keys that sign and decrypt.
class ConformanceCommand : public EndToEndTest {
 protected:
  ConformanceCommand()
      : EndToEndTest{{KeyLine{}, KeyLine{"rsa2048", "02", "Encryption", "keyEncipherment", "decrypt"}}} {}

  [[nodiscard]] static std::map<std::string, std::string> verdictsIn(const Json& json) {
    std::map<std::string, std::string> verdicts;
    for (const Json& rule : json["rules"]) verdicts[rule["number"]] = rule["verdict"];
    return verdicts;
  }
};

TEST_F(ConformanceCommand, TestsEachRuleAndSaysWhatUsersCanDo) {
  const Result result =
      runWithPin("conformance --login --junit " + path("rules.xml") + " --html " + path("page.html"));
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, StartsWith("skip  CR-01  the module is in its place and can be loaded: "));
  EXPECT_THAT(result.out, HasSubstr("\npass  CR-33  C_Login accepts the PIN of the user: "));
  EXPECT_THAT(
      result.out,
      HasSubstr("\npass  CR-39  C_Sign with CKM_RSA_X_509 signs a whole block: 4 signatures tried\n"));
  EXPECT_THAT(result.out, HasSubstr("\npass  CR-43  RSA-PSS with SHA-256 verifies: 1 key tried\n"));
  EXPECT_THAT(result.out, HasSubstr("\nwarn  CR-46  "));
  EXPECT_THAT(result.out,
              ContainsRegex("\n\n53 rules: [0-9]+ pass, 0 fail, 1 warn, 0 not known, [0-9]+ skip"));
  EXPECT_THAT(result.out, HasSubstr("\nTested: the card \"Card\", serial number "));
  EXPECT_THAT(result.out,
              EndsWith("\nGrade B: TLS 1.3 login and S/MIME decryption; no PKCS #1 v1.5 signatures.\n"));
  EXPECT_EQ(result.exitCode, 19);
  const std::string xml = read("rules.xml");
  EXPECT_THAT(
      xml, StartsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"53\" failures=\"0\""));
  EXPECT_THAT(xml, HasSubstr("<property name=\"grade\" value=\"B\"/>"));
  EXPECT_THAT(xml,
              HasSubstr("<testcase classname=\"mireltoken.signing\" name=\"CR-40 &quot;PSS&quot; is not"));
  EXPECT_THAT(xml, HasSubstr("<skipped message=\"warning: "));
  EXPECT_THAT(xml, EndsWith("</testsuites>\n"));
  EXPECT_THAT(read("page.html"), StartsWith("<!DOCTYPE html>"));
  EXPECT_THAT(read("page.html"), HasSubstr("<h2>Grade B</h2>"));
}

TEST_F(ConformanceCommand, GivesACardThatCouldNotBeReadNoName) {
  const Result result = run(staged("conformance", {{"TOKEN_INFOS", "0"}}));
  EXPECT_THAT(result.out,
              ContainsRegex("\nTested: the card, which could not be read, in the reader \"SoftHSM"));
  EXPECT_THAT(result.out, HasSubstr("\nGrade -: not known: no card was read.\n"));
  EXPECT_EQ(result.exitCode, 19);
}

TEST_F(ConformanceCommand, NeedsNoPinAndAsksForNone) {
  const Result result = run(staged("conformance --json"));
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["grade"], "-");
  EXPECT_EQ(json["card"]["label"], "Card");
  EXPECT_EQ(json["card"]["reader"], readerOf("Card"));
  EXPECT_EQ(verdictsIn(json).at("CR-33"), "skipped");
  EXPECT_EQ(verdictsIn(json).at("CR-14"), "pass");
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(ConformanceCommand, EndsWithAnErrorWhereARuleIsBroken) {
  const Result result = run(staged("conformance --junit " + path("rules.xml"), {{"TOKEN_FLAGS", "100"}}));
  EXPECT_EQ(result.exitCode, 20);
  EXPECT_THAT(result.out, HasSubstr("\nFAIL  CR-32  the PIN is entered at the computer: the flags have "));
  EXPECT_THAT(read("rules.xml"),
              HasSubstr("<failure message=\"the flags have PROTECTED_AUTHENTICATION_PATH\"/>"));
}

TEST_F(ConformanceCommand, WritesItsFilesAlsoWhereTheModuleEndsTheTest) {
  const struct {
    Stage stage;
    int exitCode;
    const char* what;
    const char* initialise;  ///< the verdict on it
  } rows[] = {
      {{{"PAUSE", "entry"}}, 23, "has not returned from C_GetFunctionList for 1 s", "<skipped"},
      {{{"EXIT", "C_Login"}}, 22, "the module ended the program, it called exit in C_Login", "<system-out>"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string files = " --junit " + path("rules.xml") + " --html " + path("page.html");
    const Result result = run(stagedWithPin("conformance --login --timeout 1" + files, row.stage));
    expectFailure(result, row.exitCode, {row.what, "; what was tested until then was written; "});
    const std::string xml = read("rules.xml");
    EXPECT_THAT(xml, HasSubstr("<testsuites tests=\"54\" failures=\"0\" errors=\"1\""));
    EXPECT_THAT(xml,
                ContainsRegex("name=\"the module lasts until the end of the test\"><error message=\"[^\"]*" +
                              std::string{row.what}));
    EXPECT_THAT(xml, ContainsRegex("\"CR-03 [^>]*>" + std::string{row.initialise}));
    EXPECT_THAT(read("page.html"), HasSubstr(row.what));
  }
}

TEST_F(ConformanceCommand, WritesAlsoOneFileAloneWhereTheModuleEndsTheTest) {
  for (const std::string option : {"--junit", "--html"}) {
    const Arguments arguments{"conformance", option, path("alone" + option)};
    expectFailure(run(staged(arguments, {{"EXIT", "C_GetTokenInfo"}})), 22,
                  {"; what was tested until then was written; "});
    EXPECT_THAT(read("alone" + option), HasSubstr("called exit in C_GetTokenInfo"));
  }
}

TEST_F(ConformanceCommand, TellsWhatItTestedAlsoWhereItsFileCannotBeWritten) {
  const Result result = mireltoken("conformance --junit /dev/full");
  EXPECT_EQ(result.exitCode, 14);
  EXPECT_THAT(result.out, HasSubstr("CR-53"));
  EXPECT_THAT(result.err, HasSubstr("/dev/full"));
  EXPECT_TRUE(Json::accept(mireltoken("conformance --json --junit /dev/full").out));  // one object alone
}

TEST_F(ConformanceCommand, EndsAsOtherCommandsWhereTheReaderIsNotThere) {
  const Result result = run(staged("conformance --reader MISTYPED --junit " + path("rules.xml")));
  expectFailure(result, 5, {"there is no reader \"MISTYPED\": the readers with a card are "});
  EXPECT_EQ(result.err, run(staged("items --reader MISTYPED")).err);
  EXPECT_EQ(Json::parse(run(staged("conformance --json --reader MISTYPED")).out)["error"]["id"], "no-card");
  EXPECT_THAT(read("rules.xml"), HasSubstr("<error message=\"there is no reader"));
}

TEST_F(ConformanceCommand, RefusesWhatItCouldNotUse) {
  const std::string unused = "a PIN is of no use without --login";
  expectFailure(runWithPin("conformance"), 2, {unused});
  for (const char* option : {"--pin-fd 0", "--last-try"})
    expectFailure(mireltoken(std::string{"conformance "} + option), 2, {unused});
  expectFailure(mireltoken("conformance --login --pin-file " + path("none")), 14,
                {"the PIN cannot be read from"});
  expectFailure(mireltoken("conformance --junit -"), 2, {"--junit needs the name of a file"});
  expectFailure(mireltoken("conformance --junit /nowhere/file"), 14, {"/nowhere/file"});
  expectFailure(mireltoken("conformance --html /nowhere/file"), 14, {"/nowhere/file"});
  expectFailure(mireltoken("conformance --html " + path("a") + " --junit " + path("./a")), 2,
                {"--junit would overwrite the file of --html"});
  EXPECT_FALSE(exists("a"));
}

}  // namespace
}  // namespace mirel::test
