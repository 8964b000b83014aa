#include <algorithm>
#include <regex>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

constexpr unsigned long kTokenInitialised = 0x400;  // CKF_TOKEN_INITIALIZED

class Readers : public EndToEndTest {
 protected:
  /// Three cards, each with one certificate that is labelled like its card.
  void makeThreeCards() const {
    std::string description;
    for (const std::string card : {"Red", "Green", "Blue"}) {
      description += "token label=" + card +
                     "\npublic type=p256 id=01 label=Key\ncertificate type=p256 id=01 label=" + card + "\n";
    }
    makeCards(description);
  }

  /// The reader that has no initialised token; SoftHSM2 always has one.
  [[nodiscard]] std::string freeReader() const { return readerOf(""); }

  void expectItemsOf(const std::string& card, const Arguments& arguments) const {
    const Result result = mireltoken(arguments + "items --json");
    expectSuccess(result);
    const Json json = Json::parse(result.out);
    EXPECT_EQ(json["reader"], readerOf(card));
    EXPECT_EQ(json["items"][0]["objectID"], "cert_" + card + "_01");
  }
};

/// The names of the standard for the flags of a token that SoftHSM2 uses.
std::vector<std::string> flagNames(const Json& flags) {
  const std::pair<unsigned long, const char*> rows[] = {{0x1, "RNG"},
                                                        {0x4, "LOGIN_REQUIRED"},
                                                        {0x8, "USER_PIN_INITIALIZED"},
                                                        {0x20, "RESTORE_KEY_NOT_NEEDED"},
                                                        {0x400, "TOKEN_INITIALIZED"},
                                                        {0x400000, "SO_PIN_LOCKED"},
                                                        {0x800000, "SO_PIN_TO_BE_CHANGED"}};
  std::vector<std::string> names;
  for (const auto& [flag, name] : rows)
    if ((flags.get<unsigned long>() & flag) != 0) names.emplace_back(name);
  return names;
}

TEST_F(Readers, AreListedAsJsonInTheModulesOrder) {
  makeThreeCards();
  Json expected = Json::array();
  for (const Json& slot : slots()) {
    expected.push_back({{"reader", textOf(slot["description"])},
                        {"slotID", slot["slotID"]},
                        {"slotFlags", {"TOKEN_PRESENT"}},
                        {"tokenLabel", textOf(slot["label"])},
                        {"serialNumber", textOf(slot["serialNumber"])},
                        {"manufacturer", "SoftHSM project"},
                        {"model", "SoftHSM v2"},
                        {"tokenFlags", flagNames(slot["flags"])},
                        {"initialised", (slot["flags"].get<unsigned long>() & kTokenInitialised) != 0}});
  }
  ASSERT_THAT(expected, SizeIs(4));
  expectOutput(mireltoken("readers --json"),
               Json({{"schema", "mireltoken/readers/1"}, {"readers", expected}}).dump(2) + "\n");
}

TEST_F(Readers, AreListedForPeopleWithTheirFlagsSpelledOut) {
  makeCards("token label=0x43617264204F6E65\n");
  const Json slot = slots().front();
  const std::string reader = textOf(slot["description"]);
  const Result result = mireltoken("readers");
  expectSuccess(result);
  const std::size_t width = std::max(reader.size(), freeReader().size());
  EXPECT_THAT(result.out, StartsWith("READER"));
  EXPECT_THAT(result.out, HasSubstr("TOKEN LABEL  SERIAL NUMBER     FLAGS\n"));
  EXPECT_THAT(
      result.out,
      HasSubstr("\n" + reader + std::string(width - reader.size(), ' ') + "  Card One     " +
                textOf(slot["serialNumber"]) +
                "  RNG LOGIN_REQUIRED USER_PIN_INITIALIZED RESTORE_KEY_NOT_NEEDED TOKEN_INITIALIZED\n"));
  EXPECT_THAT(result.out, HasSubstr(freeReader()));
  makeCards("token label=0x52651B5B326D64\n");
  EXPECT_THAT(mireltoken("readers").out, HasSubstr("  Re\\x1B[2md  "));
}

TEST_F(Readers, AreListedForPeopleWithWhyTheyCannotBeChosen) {
  makeCards("token label=Card\n");
  expectSuccess(mireltoken("record --out " + path("recording") + " readers"));
  const std::regex names{R"("slotDescription":"[^"]*")"};
  const std::string name = R"("slotDescription":"Reader)" + std::string(58, ' ') + '"';
  const std::string renamed = write("renamed", std::regex_replace(read("recording"), names, name));
  const std::string out = run(invocation("--replay " + renamed + " readers")).out;
  EXPECT_THAT(out, HasSubstr(" TOKEN_INITIALIZED\nReader "));
  EXPECT_THAT(out, EndsWith(" (cannot be chosen: an earlier reader or slot has the same name)\n"));
}

TEST_F(Readers, AreChosenByTheirNameOrTheModulesOrder) {
  makeThreeCards();
  const Json all = slots();
  const auto first = std::find_if(all.begin(), all.end(), [](const Json& slot) {
    return (slot["flags"].get<unsigned long>() & kTokenInitialised) != 0;
  });
  ASSERT_NE(first, all.end());
  expectItemsOf(textOf((*first)["label"]), "");
  expectItemsOf("Green", {"--reader", readerOf("Green")});
  const Result listed = mireltoken({"readers", "--json", "--reader", readerOf("Green")});
  expectSuccess(listed);
  const Json readers = Json::parse(listed.out)["readers"];
  ASSERT_THAT(readers, SizeIs(1));
  EXPECT_EQ(readers[0]["tokenLabel"], "Green");
}

/// A run on a module without slots, on a system with the tests' own PC/SC library.
class NoCard : public EndToEndTest {
 protected:
  NoCard() : EndToEndTest{{{}}} {}  // so that SoftHSM2 starts
  [[nodiscard]] Result runWith(const Arguments& arguments, const char* readers) const {
    Invocation call = staged(arguments, {{"NO_SLOTS", "1"}});
    call.environment["LD_LIBRARY_PATH"] = MIREL_FAKE_PCSC_FOLDER;
    if (readers) call.environment["MIREL_PCSC_READERS"] = readers;
    return run(call);
  }
};

TEST_F(NoCard, IsExplainedByTheCardServiceOfTheSystem) {
  const struct {
    const char* readers;
    int exitCode;  ///< of `readers`
    const char* why;
  } rows[] = {
      {nullptr, 5, "the card service does not answer (SCardEstablishContext answered SCARD_E_NO_SERVICE"},
      {"", 0, "no reader is connected; connect a reader"},
      {"Reader A=12", 0, "no reader holds a card; put a card into a reader"},
      {"Reader A=22:3B7A", 5, "does not know it (reader \"Reader A\", ATR 3B7A)"},
      {"Reader A=A2:3B", 5, "another program holds the card"},
      {"Reader A=222", 5, "the card does not answer"}};
  for (const auto& [readers, exitCode, why] : rows) {
    SCOPED_TRACE(why);
    const Result listed = runWith("readers --json", readers);
    EXPECT_EQ(listed.exitCode, exitCode);
    const Json json = Json::parse(listed.out);
    EXPECT_EQ(exitCode == 0 ? json["readers"] : json["error"]["id"],
              exitCode == 0 ? Json::array() : Json("no-card"));
    EXPECT_THAT(listed.err, HasSubstr(why));
    expectFailure(runWith("items", readers), 5, {why});
  }
}

TEST_F(Readers, AreNotChosenByAnotherName) {
  makeThreeCards();
  for (const std::string& name : {std::string{"SoftHSM slot ID 0x"}, std::string{}}) {
    for (const char* command : {"items", "readers"})
      expectFailures({{{command, "--reader", name}, 5, {'"' + name + '"', '"' + readerOf("Red") + '"'}}});
  }
}

TEST_F(Readers, WithoutAnInitialisedTokenHaveNoCardToInsertAndCannotBeListed) {
  makeCards("");
  expectFailures({{"items", 5, {"initialised", "run again, insert the card that is meant"}},
                  {{"items", "--reader", freeReader()}, 6, {freeReader(), "initialised"}}});
}

}  // namespace
}  // namespace mirel::test
