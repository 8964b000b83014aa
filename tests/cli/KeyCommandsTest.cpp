#include "EndToEndTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

class KeyUsage : public EndToEndTest {
 protected:
  KeyUsage() : EndToEndTest{severalKeys()} {}
};

TEST_F(KeyUsage, RefusesWhatIsMissingOrEmpty) {
  std::vector<FailingRun> rows{{{"sign", "--key", ""}, 2, {"--key is empty"}}};
  for (const std::string command : {"sign", "decrypt", "exchange", "certificate"})
    rows.push_back({command, 2, {"wrong usage: --key is missing; see mireltoken " + command + " --help"}});
  for (const std::string option : {"--algorithm", "--in", "--out", "--pin-file"})
    rows.push_back({{"sign", "--key", "01", option, ""}, 2, {option + " is empty"}});
  expectFailures(rows);
}

TEST_F(KeyUsage, NeedsAnAlgorithmThatThereIs) {
  for (const char* command : {"sign", "decrypt", "exchange"}) {
    expectFailure(mireltoken({command, "--key", "01", "--algorithm", "\x1B[2J"}), 2,
                  {"there is no algorithm \"\\x1B[2J\"", "mireltoken algorithms"});
  }
}

TEST_F(KeyUsage, RefusesWhatACommandDoesNotKnow) {
  for (const char* line :
       {"login --key 01", "login --in x", "certificate --algorithm x", "certificate --in x",
        "decrypt --no-verify", "exchange --no-verify", "algorithms --out x", "sign --key", "sign --pin 1234",
        "login 1234", "algorithms --pin-file x", "items --key 01", "sign decrypt", "sign --key 1 --key 2"}) {
    SCOPED_TRACE(line);
    expectFailure(run(invocation(line)), 2, {"wrong usage"});
  }
}

class KeyChoice : public EndToEndTest {
 protected:
  KeyChoice() : EndToEndTest{severalKeys()} {}
};

TEST_F(KeyChoice, IsByAnIDALabelOrAUri) {
  makeCard({{.id = "0x00FF0D0A", .label = "One", .subject = "First"},
            {.id = "0x5C", .label = "Two", .subject = "Second"}});
  for (const std::string name :
       {"00ff0d0a", "\\x00\xC3\xBF\\x0D\\x0A", "One", "pkcs11:object=One;token=Card"}) {
    const Result result = mireltoken({"certificate", "--key", name});
    expectSuccess(result);
    EXPECT_EQ(commonNameOf(result.out), "First") << name;
  }
  expectFailures({{"certificate --key pkcs11:id=%5C;token=Other", 12, {"its token is \"Other\""}}});
}

TEST_F(KeyChoice, RefusesAUriWithAPinWithoutLookingForACard) {
  const Result result = run(invocation({"certificate", "--key", "pkcs11:id=%01?pin-value=4711"}));
  expectFailure(result, 2, {"it has a PIN in it", "--pin-file"});
  EXPECT_THAT(result.err, Not(HasSubstr("4711")));
  expectFailure(run(invocation("certificate --key pkcs11:id=%0")), 2, {"percent-encoded", "RFC 7512"});
}

TEST_F(KeyChoice, ListsTheKeysWhenThereIsNoSuchOne) {
  for (const char* command : {"sign", "decrypt", "exchange", "certificate", "algorithms"}) {
    expectFailures({{{command, "--key", "\x1B[2J\n"},
                     12,
                     {"there is no key \"\\x1B[2J\\x0A\"", "3031 (Signature)", "3033 (Agreement)",
                      "or #N for the N-th"}}});
  }
}

TEST_F(KeyChoice, FailsOnACardWithoutKeys) {
  makeCards("token label=Card\n");
  expectFailures({{"certificate --key #1", 12, {"the card publishes no key"}},
                  {"algorithms", 12, {"the card publishes no key", "mireltoken items"}}});
}

TEST_F(KeyChoice, IsOfTheReaderThatIsNamed) {
  makeCards(
      "token label=Red\npublic type=rsa2048 id=01 label=R\n"
      "certificate type=rsa2048 id=01 label=R usage=digitalSignature subject=InRed\n"
      "token label=Blue\npublic type=rsa2048 id=01 label=B\n"
      "certificate type=rsa2048 id=01 label=B usage=digitalSignature subject=InBlue\n");
  for (const std::string card : {"Red", "Blue"}) {
    const Result result = mireltoken({"certificate", "--key", "01", "--reader", readerOf(card)});
    expectSuccess(result);
    EXPECT_EQ(commonNameOf(result.out), "In" + card);
  }
  for (const std::string command : {"sign --key 01", "decrypt --key 01", "exchange --key 01",
                                    "certificate --key 01", "algorithms --key 01", "login"})
    expectFailures({{command + " --reader Nobody's", 5, {"there is no reader"}}});
}

}  // namespace
}  // namespace mirel::test
