#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "EndToEndTest.h"
#include "ReferenceCryptography.h"
#include "cardmaker/SoftHsm.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::SizeIs;

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
}

/// The command in a line of a page: without a prompt and the words behind it, with all options that may be
/// left out and nothing else of that kind.
std::string commandIn(std::string line) {
  line.erase(0, std::min(line.find_first_not_of(" $"), line.size()));
  if (!line.starts_with("mireltoken ")) return {};
  line.resize(std::min(line.find("  "), line.size()));
  for (std::size_t at = 0; (at = line.find(" [")) != std::string::npos;) {
    const std::size_t end = std::min(line.find(']', at), line.size() - 1);
    const std::string inside = line.substr(at + 2, end - at - 2);
    line.replace(at, end + 1 - at, inside.starts_with("--") ? " " + inside : "");
  }
  return line;
}

/// The commands of the lines that begin with `start`, after the line `from` and before the line `to`.
std::vector<std::string> commandsIn(const std::string& text, const std::string& start,
                                    const std::string& from = {}, const std::string& to = {}) {
  std::vector<std::string> commands;
  bool isInside = from.empty();
  for (const std::string& line : linesOf(text)) {
    if (!from.empty() && line == from) isInside = true;
    if (!to.empty() && line == to) isInside = false;
    if (!isInside || !line.starts_with(start)) continue;
    if (const std::string command = commandIn(line); !command.empty()) commands.push_back(command);
  }
  return commands;
}

std::string manualText() {
  std::string text = contentOf(MIREL_SOURCE_FOLDER "/packaging/man/mireltoken.1");
  replaceAll(text, "\\-", "-");
  replaceAll(text, "\\e", "\\");
  return text;
}

/// The card that ./demo makes, and all that the examples find in their working folder and home.
class Examples : public EndToEndTest {
 protected:
  Examples() : EndToEndTest{demoKeys()} {}

  static std::vector<KeyLine> demoKeys() {
    std::vector<KeyLine> keys = severalKeys();
    for (KeyLine& key : keys) key.id = "0x" + key.id;
    return keys;
  }

  void SetUp() override {
    EndToEndTest::SetUp();
    if (IsSkipped()) return;
    for (const char* name : {"letter", "letter.txt"}) (void)write(name, kMessage);
    for (const char* name : {"pin", ".card-pin"}) (void)write(name, kPin);
    (void)write("secret.bin", encrypted("rsa2048", "pkcs1", kPlain));
    (void)write("their-point.bin", newPoint("p256"));
    // What its user has besides: a module in the home, and a terminal at which to enter the PIN.
    std::filesystem::create_directory(path("bin"));
    (void)write("bin/mireltoken",
                "#!/bin/sh\n"
                "case \" $* \" in\n"
                "  *' --module '*|*' --home '*|*' --replay '*) ;;\n"
                "  *) set -- --module \"$MODULE\" \"$@\" ;;\n"
                "esac\n"
                "case \" $* \" in\n"
                "  *' --pin-file '*|*' --pin-fd '*|*' --help '*) ;;\n"
                "  *' sign '*|*' decrypt '*|*' exchange '*|*' login '*|*' doctor --login '*|*' conformance "
                "--login '*) set -- \"$@\" "
                "--pin-file \"$HOME/pin\" ;;\n"
                "esac\n"
                "exec \"$MIRELTOKEN\" \"$@\"\n",
                0700);
  }

  void expectToWork(const std::vector<std::string>& commands) const {
    for (std::string command : commands) {
      SCOPED_TRACE(command);
      // These differ from one computer to the next.
      replaceAll(command, "\"Virtual PCD 00 00\"", '"' + readerOf("Card") + '"');
      replaceAll(command, "/usr/lib/softhsm/libsofthsm2.so", softHsmModule().string());
      Invocation call = invocation({});
      call.program = "/bin/sh";
      call.arguments = {"-c", "cd '" + folder().string() + "' && " + command};
      call.environment["HOME"] = folder().string();
      call.environment["PATH"] = path("bin") + ":/usr/bin:/bin";
      call.environment["MODULE"] = softHsmModule().string();
      call.environment["MIRELTOKEN"] = MIREL_MIRELTOKEN;
      const Result result = run(call);
      const auto has = [&](const char* word) { return command.find(word) != std::string::npos; };
      // The token answers nothing to a key exchange: the examination warns of that, and it is a broken rule.
      const int expected = has(" exchange ") ? 10 : has(" doctor") ? 19 : has(" conformance") ? 20 : 0;
      EXPECT_EQ(result.exitCode, expected) << result.err;
      EXPECT_TRUE(!result.out.empty() || !result.err.empty() || command.find(" --out ") != std::string::npos);
    }
  }
};

TEST_F(Examples, OfTheHelpWork) {
  const std::string help = run(invocation("--help")).out;
  const auto commands = commandsIn(help, "  mireltoken ", "Examples:");
  ASSERT_THAT(commands, SizeIs(::testing::Ge(8U)));
  EXPECT_THAT(commands, Contains(::testing::HasSubstr("--key 01")));
  expectToWork(commands);
}

TEST_F(Examples, OfTheManualPageWork) {
  const auto commands = commandsIn(manualText(), "mireltoken ", ".SH EXAMPLES", ".SH STANDARDS");
  ASSERT_THAT(commands, SizeIs(::testing::Ge(6U)));
  expectToWork(commands);
}

TEST_F(Examples, OfTheReadmeAndThePageWork) {
  for (const std::string page : {"README.md", "docs/command-line.md"}) {
    SCOPED_TRACE(page);
    const auto commands = commandsIn(contentOf(MIREL_SOURCE_FOLDER "/" + page), " ");
    ASSERT_THAT(commands, SizeIs(::testing::Ge(8U)));
    expectToWork(commands);
  }
}

}  // namespace
}  // namespace mirel::test
