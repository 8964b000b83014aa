#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "KeyTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::array kCommands{"sign", "decrypt", "exchange"};

class KeyUsage : public KeyTest {};

TEST_F(KeyUsage, NeedsAKey) {
  makeCard(severalKeys());
  for (const char* command : {"sign", "decrypt", "exchange", "certificate"}) {
    SCOPED_TRACE(command);
    expectFailure(mireltoken({command}), 2, {"wrong usage: --key is missing; see mireltoken --help"});
  }
}

TEST_F(KeyUsage, RefusesEmptyValuesWithoutACard) {
  expectFailure(mireltoken({"sign", "--key", ""}), 2, {"--key is empty"});
  for (const char* option : {"--algorithm", "--in", "--out", "--pin-file"}) {
    SCOPED_TRACE(option);
    expectFailure(mireltoken({"sign", "--key", "01", option, ""}), 2, {std::string{option} + " is empty"});
  }
}

TEST_F(KeyUsage, NeedsAnAlgorithmThatThereIs) {
  makeCard(severalKeys());
  for (const char* command : kCommands) {
    for (const char* name : {"RSA", "kSecKeyAlgorithm", "rsasignatureraw", "RSASignatureRaw ",
                             "kSecKeyAlgorithmkSecKeyAlgorithmRSASignatureRaw", "\x1B[2J"}) {
      SCOPED_TRACE(std::string{command} + " " + name);
      const Result result = mireltoken({command, "--key", "01", "--algorithm", name});
      expectFailure(result, 2, {"there is no algorithm \"", "mireltoken algorithms"});
      EXPECT_THAT(result.err, Not(HasSubstr("\x1B")));
    }
  }
}

TEST_F(KeyUsage, RefusesWhatACommandDoesNotKnow) {
  const std::vector<std::vector<std::string>> rows{
      {"login", "--key", "01"},
      {"login", "--in", "x"},
      {"certificate", "--algorithm", "x"},
      {"certificate", "--in", "x"},
      {"decrypt", "--no-verify"},
      {"exchange", "--no-verify"},
      {"algorithms", "--out", "x"},
      {"sign", "--key"},
      {"sign", "--pin", "1234"},
      {"login", "1234"},
      {"login", "--pin-file"},
      {"algorithms", "--pin-file", "x"},
      {"items", "--key", "01"},
      {"sign", "decrypt"},
      {"sign", "--key", "1", "--key", "2"},
      {"sign", "--no-verify=maybe"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row));
    const Result result = run(invocation(row));
    expectFailure(result, 2, {"wrong usage"});
  }
}

class KeyChoice : public KeyTest {
 protected:
  [[nodiscard]] Result certificateOf(const std::string& name) const {
    return mireltoken({"certificate", "--key", name});
  }
  /// The subject of the certificate that is chosen by that name; empty when there is none.
  [[nodiscard]] std::string chosenBy(const std::string& name) const {
    const Result result = certificateOf(name);
    return result.exitCode == 0 ? commonNameOf(result.out) : std::string{};
  }
  void makePair(std::ostream& out, std::string_view id, std::string_view label, std::string_view subject) {
    out << "public type=rsa2048 id=" << id << " label=" << label << "\ncertificate type=rsa2048 id=" << id
        << " label=" << label << " usage=digitalSignature subject=" << subject << '\n';
  }
};

TEST_F(KeyChoice, IsByTheIDAsItIsDisplayed) {
  std::ostringstream card;
  card << "token label=Card\n";
  makePair(card, "0x0A1B", "One", "First");
  makePair(card, "0x5C", "Two", "Second");
  makePair(card, "0x41E4", "Three", "Third");
  makePair(card, "77", "Four", "Fourth");
  makeCards(card.str());
  struct Row {
    const char* name;
    const char* subject;
  };
  for (const Row& row :
       {Row{"\\x0A\\x1B", "First"}, Row{"\\x5C", "Second"}, Row{"A\u00E4", "Third"}, Row{"77", "Fourth"}}) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(chosenBy(row.name), row.subject);
  }
}

TEST_F(KeyChoice, TakesWhatItemsShows) {
  std::ostringstream card;
  card << "token label=Card\n";
  makePair(card, "0x00FF0D0A", "One", "First");
  makeCards(card.str());
  const std::vector<std::string> lines = linesOf(mireltoken({"items"}).out);
  const auto line = std::find_if(lines.begin(), lines.end(),
                                 [](const std::string& text) { return text.starts_with("key "); });
  ASSERT_NE(line, lines.end());
  EXPECT_EQ(chosenBy(cellsOf(*line).at(1)), "First");
}

TEST_F(KeyChoice, IsByTheLabelWhenOnlyOneKeyHasIt) {
  std::ostringstream card;
  card << "token label=Card\n";
  makePair(card, "01", "One", "First");
  makePair(card, "02", "Same", "Second");
  makePair(card, "03", "Same", "Third");
  makeCards(card.str());
  EXPECT_EQ(chosenBy("One"), "First");
  expectFailure(certificateOf("Same"), 12,
                {"several keys have that label", "\"01\" (One)", "\"02\" (Same)", "\"03\" (Same)"});
}

TEST_F(KeyChoice, IsByTheNumber) {
  std::ostringstream card;
  card << "token label=Card\n";
  makePair(card, "01", "One", "First");
  makeCards(card.str());
  EXPECT_EQ(chosenBy("#1"), "First");
}

TEST_F(KeyChoice, PrefersTheIDToANumberOrALabel) {
  std::ostringstream card;
  card << "token label=Card\n";
  makePair(card, "#1", "One", "First");
  makePair(card, "02", "#2", "Second");
  makePair(card, "One", "Three", "Third");
  makeCards(card.str());
  EXPECT_EQ(chosenBy("#1"), "First");
  EXPECT_EQ(chosenBy("One"), "Third");
}

TEST_F(KeyChoice, ListsTheKeysWhenThereIsNoSuchOne) {
  makeCard({{"rsa2048", "01", "Signature"}, {"p256", "0x5C", "Agreement", "keyAgreement", "derive"}});
  for (const char* name : {"Nobody", "1", "0", "#0", "#3", "#-1", "#1x", "#", "# 1", "signature", "Sign"}) {
    SCOPED_TRACE(name);
    for (const char* command : {"sign", "decrypt", "exchange", "certificate", "algorithms"}) {
      expectFailure(mireltoken({command, "--key", name}), 12,
                    {std::string{"there is no key \""} + name + "\"", "\"01\" (Signature)",
                     "\"\\x5C\" (Agreement)", "or #N for the N-th"});
    }
  }
}

TEST_F(KeyChoice, ShowsANameThatCannotControlTheTerminal) {
  makeCard({{"rsa2048", "01", "Signature"}});
  const Result result = certificateOf("\x1B[2J\n");
  expectFailure(result, 12, {"there is no key \"\\x1B[2J\\x0A\""});
}

TEST_F(KeyChoice, FailsOnACardWithoutKeys) {
  makeCards("token label=Card\n");
  expectFailure(certificateOf("#1"), 12, {"the card publishes no key"});
  expectFailure(mireltoken({"algorithms"}), 12, {"the card publishes no key", "mireltoken items"});
}

TEST_F(KeyChoice, IsOfTheReaderThatIsNamed) {
  makeCards(
      "token label=Red\npublic type=rsa2048 id=01 label=R\n"
      "certificate type=rsa2048 id=01 label=R usage=digitalSignature subject=InRed\n"
      "token label=Blue\npublic type=rsa2048 id=01 label=B\n"
      "certificate type=rsa2048 id=01 label=B usage=digitalSignature subject=InBlue\n");
  for (const char* card : {"Red", "Blue"}) {
    const Result result = mireltoken({"certificate", "--key", "01", "--reader", readerOf(card)});
    expectSuccess(result);
    EXPECT_EQ(commonNameOf(result.out), std::string{"In"} + card);
  }
  for (const char* command : {"sign", "decrypt", "exchange", "certificate", "algorithms", "login"}) {
    SCOPED_TRACE(command);
    const bool takesKey = std::string_view{command} != "login";
    const Result result = takesKey ? mireltoken({command, "--key", "01", "--reader", "Nobody's"})
                                   : mireltoken({command, "--reader", "Nobody's"});
    expectFailure(result, 5, {"there is no reader"});
  }
}

}  // namespace
}  // namespace mirel::test
