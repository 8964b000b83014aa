/// Recordings with pseudonyms, as users make them.

#include "EndToEndTest.h"
#include "PseudoTerminal.h"
#include "cardmaker/SoftHsm.h"

namespace mirel::test {
namespace {

/// What stands in the file in hexadecimal digits.
std::string bytesInHexOf(const std::string& recorded) {
  constexpr std::string_view kHex = R"({"hex":")";
  std::string all;
  for (std::size_t at = recorded.find(kHex); at != std::string::npos; at = recorded.find(kHex, at + 1)) {
    const std::size_t start = at + kHex.size();
    all += bytesOfHex(std::string_view{recorded}.substr(start, recorded.find('"', start) - start));
  }
  return all;
}

class AnonymousRun : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    if (IsSkipped()) return;
    makeCards("token label=Grace pin=" + std::string{kPin} +
              "\n"
              "public type=rsa2048 id=0x416461 label=Lovelace\n"
              "private type=rsa2048 id=0x416461 label=Lovelace allow=sign\n"
              "certificate type=rsa2048 id=0x416461 label=Lovelace subject=Hopper usage=digitalSignature\n");
  }

  [[nodiscard]] Invocation recording(const Arguments& arguments) const {
    Invocation call =
        invocation(Arguments{"--module", softHsmModule().string(), "record", "--anonymous", "--out", file()} +
                   arguments);
    call.input = kMessage;
    return call;
  }

  [[nodiscard]] Result replayed(const Arguments& arguments) const {
    Invocation call = invocation(Arguments{"--replay", file()} + arguments);
    call.input = kMessage;
    return run(call);
  }

  [[nodiscard]] std::string file() const { return path("recording"); }
};

TEST_F(AnonymousRun, IsRecordedWithoutNames) {
  const std::string commands[] = {"items --json", "sign --key Lovelace --pin-file " + write("pin", kPin),
                                  "doctor"};
  for (const std::string& command : commands) {
    SCOPED_TRACE(command);
    const Result result = run(recording(command));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_THAT(result.err, ContainsRegex("replaced in [^\n]*recording: names of readers: [0-9]+, labels: "
                                          "[0-9]+[^\n]*: [0-9]+\n"));
    const std::string recorded = read("recording");
    for (const std::string name : {"Grace", "Lovelace", "Hopper"}) {
      EXPECT_THAT(recorded, Not(HasSubstr(name)));
      EXPECT_THAT(bytesInHexOf(recorded), Not(HasSubstr(name)));
      EXPECT_THAT(result.err, Not(HasSubstr(name)));
    }
    EXPECT_THAT(recorded, Not(HasSubstr(R"({"hex":"416461"})")));
  }
}

TEST_F(AnonymousRun, ReplaysUnderThePseudonyms) {
  const std::string pin = " --pin-file " + write("pin", kPin);
  const Result first = run(recording("sign --key Lovelace" + pin));
  ASSERT_EQ(first.exitCode, 0) << first.err;
  const Json header = Json::parse(linesOf(read("recording")).front());
  const Result second = replayed("sign --key " + header["command"][2].get<std::string>() + pin);
  expectSigned(second);
  EXPECT_EQ(second.out, first.out);
}

TEST_F(AnonymousRun, ShowsTheSameItemsUnderPseudonyms) {
  ASSERT_EQ(run(recording("items --json")).exitCode, 0);
  const Result result = replayed("items --json");
  expectSuccess(result);
  const Json replayedItems = Json::parse(result.out)["items"];
  const Json original = items();
  ASSERT_EQ(replayedItems.size(), original.size());
  for (std::size_t i = 0; i < original.size(); ++i) {
    for (const char* member : {"class", "publicKeyHash", "keySizeInBits", "canSign", "notAfter"})
      EXPECT_EQ(replayedItems[i].value(member, Json{}), original[i].value(member, Json{})) << member;
  }
  EXPECT_THAT(replayedItems.dump(), Not(ContainsRegex("Lovelace|Hopper")));
}

TEST_F(AnonymousRun, TellsItsPseudonymsOnATerminalAlone) {
  PseudoTerminal terminal;
  Invocation call = recording("items");
  std::string line = call.program.string();
  for (const std::string& argument : call.arguments) line += " '" + argument + "'";
  call.program = "/bin/sh";
  call.arguments = {"-c", line + " 2>/dev/tty"};
  call.terminal = &terminal;
  EXPECT_EQ(run(call).exitCode, 0);
  EXPECT_TRUE(terminal.waitFor("Lovelace -> Labelaab")) << terminal.shown();
  EXPECT_THAT(read("recording"), Not(HasSubstr("Lovelace")));
}

}  // namespace
}  // namespace mirel::test
