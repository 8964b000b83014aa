#include <gmock/gmock.h>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

// To the byte: the library that parses the command line prints other texts in each of its versions.

constexpr const char* kProgramHelp =
    R"(Shows what a smart card would publish in the keychain, and why not; uses its keys.
Usage: mireltoken [OPTIONS] SUBCOMMAND

Options:
  --version                   Print the version and exit
  -h,--help                   Print this help and exit
  --module PATH Excludes: --home
                              Use this PKCS #11 module, for this run only
  --home DIR Excludes: --module
                              Look for the module in this home folder
  --trust-module              Load the module although somebody else may change its file
  --reader NAME               The reader: its name, or a beginning that fits no other (default: the first with an initialised card)
  --json                      Print JSON for programs
  -v,--verbose                Print the log lines on standard error

Subcommands:
  readers                     List the readers that hold a card
  items                       Insert a card and list the keychain items it would publish
  certificate                 Write the certificate of a key, in PEM
  algorithms                  Show which algorithms the keys accept
  login                       Check the PIN
  sign                        Sign with a key of the card, and verify the signature
  decrypt                     Decrypt with a key of the card
  exchange                    Ask for a key exchange, and show what the token answers
)";

constexpr const char* kReadersHelp = R"(List the readers that hold a card
Usage: mireltoken readers [OPTIONS]

Options:
  -h,--help                   Print this help and exit

)";

constexpr const char* kSignHelp = R"(Sign with a key of the card, and verify the signature
Usage: mireltoken sign [OPTIONS]

Options:
  -h,--help                   Print this help and exit
  --key ID                    The key
  --algorithm NAME            The platform's algorithm (default: kSecKeyAlgorithmRSASignatureMessagePSSSHA256)
  --in FILE                   What to sign (default: standard input)
  --out FILE                  Where to write the signature (default: standard output)
  --no-verify                 Do not verify the signature
  --pin-file FILE Excludes: --pin-fd
                              Read the PIN from this file, which nobody else may read
  --pin-fd N Excludes: --pin-file
                              Read the PIN from this open file descriptor
  --last-try                  Send a PIN from a file or descriptor also when that may lock the card

)";

class Usage : public EndToEndTest {
 protected:
  [[nodiscard]] Result runAlone(std::vector<std::string> arguments) const {
    return run(invocation(std::move(arguments)));
  }
};

TEST_F(Usage, HelpOfTheProgramIsWrittenLikeThis) {
  const Result result = runAlone({"--help"});
  expectSuccess(result);
  const std::size_t examples = result.out.find("\nExamples:\n");
  ASSERT_NE(examples, std::string::npos);
  EXPECT_EQ(result.out.substr(0, examples), kProgramHelp);
  EXPECT_EQ(result.out.find("\n\n\n"), std::string::npos);
  EXPECT_THAT(result.out, ::testing::Not(::testing::EndsWith("\n\n")));
}

TEST_F(Usage, HelpOfACommandIsWrittenLikeThis) {
  const Result readers = runAlone({"readers", "--help"});
  expectSuccess(readers);
  EXPECT_EQ(readers.out, kReadersHelp);
  const Result sign = runAlone({"--json", "sign", "-h"});
  expectSuccess(sign);
  EXPECT_EQ(sign.out, kSignHelp);
}

TEST_F(Usage, RefusalsAreWordedLikeThis) {
  const struct {
    std::vector<std::string> arguments;
    const char* why;
  } rows[] = {
      {{}, "a subcommand is required"},
      {{"--json"}, "a subcommand is required"},
      {{"cards"}, "there is no \"cards\""},
      {{"items", "--colour"}, "there is no \"--colour\""},
      {{"items", "--module"}, "--module needs a value (PATH)"},
      {{"login", "--pin-fd"}, "--pin-fd needs a value (N)"},
      {{"login", "--pin-file"}, "--pin-file needs a value (FILE)"},
      {{"login", "--pin-fd", "x"}, "the value of --pin-fd is no N"},
      {{"items", "--json=perhaps"}, "--json takes no such value"},
      {{"sign", "--no-verify=perhaps"}, "--no-verify takes no such value"},
      {{"items", "--reader", "a", "--reader", "b"}, "--reader is given more than once"},
      {{"items", "--home", "/", "--module", "/m"}, "--module excludes --home"},
      {{"login", "--pin-fd", "3", "--pin-file", "f"}, "--pin-file excludes --pin-fd"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.arguments));
    const Result result = runAlone(row.arguments);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string{"mireltoken: wrong usage: "} + row.why + "; see mireltoken --help\n");
  }
}

}  // namespace
}  // namespace mirel::test
