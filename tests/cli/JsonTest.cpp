#include <gmock/gmock.h>

#include "EndToEndTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

/// What --json prints: one object, as its schema in docs/json says.
class JsonOutput : public EndToEndTest {
 protected:
  JsonOutput() : EndToEndTest{severalKeys()} {}

  /// Notes the output of a run, to be checked by `expectSchemas`. Returns it.
  Json output(const std::string& kind, const Result& result) {
    const Json json = Json::parse(result.out, nullptr, false);
    EXPECT_TRUE(json.is_object()) << result.out << result.err;
    EXPECT_EQ(json.value("schema", ""), "mireltoken/" + kind + "/1");
    files_.push_back(write("output" + std::to_string(files_.size()), result.out));
    return json;
  }
  void expectOutputOf(const std::string& kind, const Result& result) {
    expectSuccess(result);
    (void)output(kind, result);
  }
  void expectSchemas() const {
    Invocation call{.program = MIREL_JSON_PYTHON, .arguments = {"-B", MIREL_JSON_AGREES}};
    call.arguments.insert(call.arguments.end(), {"--source", MIREL_SOURCE});
    call.arguments.insert(call.arguments.end(), files_.begin(), files_.end());
    const Result checked = run(call);
    if (checked.exitCode == 77) GTEST_SKIP() << checked.out;
    expectOutput(checked, "");
  }

 protected:
  std::vector<std::string> files_;
};

TEST_F(JsonOutput, OfEachCommandFollowsItsSchema) {
  const std::string cipher = encrypted("rsa2048", "pkcs1", kPlain);
  const std::string out = " --json --out " + path("out");
  for (const std::string more : {"", " --verbose"}) {
    for (const std::string kind : {"readers", "items", "algorithms"})
      (void)output(kind, mireltoken(kind + " --json" + more));
  }
  expectOutputOf("explain", mireltoken("explain --json"));
  expectOutputOf("explain", mireltoken("explain --json MT-C02"));
  (void)output("doctor", mireltoken("doctor --json"));
  (void)output("conformance", mireltoken("conformance --json"));
  const std::string trace = path("trace");
  (void)runWithPin("doctor --login --trace " + trace);
  expectOutputOf("trace", mireltoken("trace show --json " + trace));
  files_.push_back(trace);
  const std::string cutShort = path("cut-short");
  (void)run(stagedWithPin("login --trace " + cutShort, {{"EXIT", "C_Login"}}));
  expectOutputOf("trace", mireltoken("trace show --json " + cutShort));
  files_.push_back(cutShort);
  expectOutputOf("login", runWithPin("login --json"));
  for (const std::string& more : {std::string{" --json"}, out}) {
    expectOutputOf("certificate", mireltoken("certificate --key 01" + more));
    expectOutputOf("sign", runWithPin("sign --key 01" + more, kMessage));
    expectOutputOf("decrypt", runWithPin("decrypt --key 02" + more, cipher));
  }
  // What is there only now and then: nothing at all, items that are alike, a card that cannot be read.
  makeCards("token label=Card\ncertificate type=p256 id=07 label=Alone usage=keyAgreement\n");
  expectOutputOf("items", mireltoken("items --json"));
  const std::string twice = "public type=p256 id=01 label=Key\n";
  makeCards("token label=Card\n" + twice + twice + "certificate type=p256 id=01 label=Certificate\n");
  expectOutputOf("items", mireltoken("items --json"));
  (void)output("readers", run(staged("readers --json", {{"ANSWERS", "C_GetTokenInfo=30"}})));
  expectSchemas();
}

TEST_F(JsonOutput, OfACertificateHoldsWhatIsWrittenWithout) {
  const Result pem = mireltoken("certificate --key 02");
  const Json json = output("certificate", mireltoken("certificate --json --key 02"));
  EXPECT_EQ(json["pem"], pem.out);
  EXPECT_EQ(json["key"], "02");
  EXPECT_EQ(json["objectID"], "cert_Encryption_02");
  EXPECT_EQ(output("certificate", mireltoken("certificate --json --key 02 --out " + path("pem"))), json);
  EXPECT_EQ(read("pem"), pem.out);
}

TEST_F(JsonOutput, OfAFailureTellsItsKindAndWhatStandardErrorTells) {
  const struct {
    Arguments arguments;
    int exitCode;
    const char* id;
    Stage stage{};
  } rows[] = {
      {"", 2, "wrong-usage"},
      {"items --colour", 2, "wrong-usage"},
      {"sign", 2, "wrong-usage"},
      {"sign --key 01 --algorithm None", 2, "wrong-usage"},
      {"doctor --last-try", 2, "wrong-usage"},
      {"conformance --last-try", 2, "wrong-usage"},
      {"trace FILE", 2, "wrong-usage"},
      {"explain MT-Z99", 2, "wrong-usage"},
      {"sign --key 01 --algorithm RSASignatureDigestPKCS1v15SHA256", 2, "bad-input"},
      {"items --module /nowhere/module.so", 3, "module-not-loadable"},
      {"readers --reader Nobody's", 5, "no-card"},
      {"login --pin-file " + write("wrong", kWrongPin), 7, "pin-wrong"},
      {"login --pin-file " + write("long", "123456789"), 18, "pin-cannot-be-entered"},
      {"exchange --key 01", 10, "not-supported"},
      {"certificate --key \xFF", 12, "key-not-found"},
      {"certificate --key 01 --out /nowhere/file", 14, "file-failure"},
      {"login", 13, "card-refuses", {{"ANSWERS", "C_Login=30"}}},
      {"login", 22, "module-ended-program", {{"EXIT", "C_Login"}}},
      {"login", 16, "card-gone", {{"ANSWERS", "C_Login=32"}}},
  };
  for (const auto& [arguments, exitCode, id, stage] : rows) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const bool choosesModule = arguments.size() > 1 && arguments[1] == "--module";
    const bool takesPin = !arguments.empty() && (arguments[0] == "sign" || arguments == Arguments{"login"});
    const Arguments all = arguments + "--json";
    Invocation call = choosesModule ? invocation(all)
                      : takesPin    ? stagedWithPin(all, stage)
                                    : staged(all, stage);
    const Result result = run(call);
    const Json error = output("error", result)["error"];
    EXPECT_EQ(error.value("id", ""), id);
    EXPECT_EQ(error.value("exitCode", 0), exitCode);
    expectJsonFailure(result, exitCode, {});
  }
  expectSchemas();
}

TEST_F(JsonOutput, IsNotAskedForByAnythingButTheOption) {
  expectFailure(mireltoken("items --jsons"), 2, {"there is no \"--jsons\""});
  expectFailure(mireltoken("certificate --key json"), 12, {});
}

TEST_F(JsonOutput, HasNoErrorBehindAResultThatWasCut) {
  Invocation call = onSoftHsm("items --json");
  call.output = Output::kFull;
  const Result result = run(call);
  EXPECT_EQ(result.exitCode, 14);
  EXPECT_THAT(result.err, ::testing::HasSubstr("standard output cannot be written"));
}

}  // namespace
}  // namespace mirel::test
