#include <gmock/gmock.h>

#include <algorithm>
#include <array>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr unsigned long kTokenInitialised = 0x400;  // CKF_TOKEN_INITIALIZED

class Readers : public EndToEndTest {
 protected:
  /// Three cards, each with one certificate that is labelled like its card.
  void makeThreeCards() const {
    std::string description;
    for (const char* card : {"Red", "Green", "Blue"}) {
      description.append("token label=").append(card);
      description.append("\npublic type=p256 id=01 label=Key\ncertificate type=p256 id=01 label=")
          .append(card);
      description.append("\n");
    }
    makeCards(description);
  }

  /// The reader that has no initialised token; SoftHSM2 always has one.
  [[nodiscard]] std::string freeReader() const { return readerOf(""); }

  /// The names of all readers, in the module's order.
  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const Json& slot : slots()) found.push_back(trimmedText(slot["description"].get<std::string>()));
    return found;
  }

  /// The shortest beginning of a reader's name that no other name has; empty when there is none.
  [[nodiscard]] std::string distinctBeginning(const std::string& name) const {
    const std::vector<std::string> all = names();
    for (std::size_t length = 1; length < name.size(); ++length) {
      std::string beginning = name.substr(0, length);
      const auto fits = [&](const std::string& other) { return other.starts_with(beginning); };
      if (std::count_if(all.begin(), all.end(), fits) == 1) return beginning;
    }
    return {};
  }

  void expectItemsOf(const std::string& card, const std::vector<std::string>& arguments) const {
    std::vector<std::string> words{"items", "--json"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Result result = mireltoken(words);
    expectSuccess(result);
    const Json json = Json::parse(result.out);
    EXPECT_EQ(json["reader"], readerOf(card));
    EXPECT_EQ(json["items"][0]["objectID"], "cert_" + card + "_01");
  }
};

/// The names of the standard for the flags of a token that SoftHSM2 uses.
std::vector<std::string> flagNames(unsigned long flags) {
  struct Row {
    unsigned long flag;
    const char* name;
  };
  constexpr std::array kRows{Row{0x1, "RNG"},
                             Row{0x4, "LOGIN_REQUIRED"},
                             Row{0x8, "USER_PIN_INITIALIZED"},
                             Row{0x20, "RESTORE_KEY_NOT_NEEDED"},
                             Row{0x400, "TOKEN_INITIALIZED"},
                             Row{0x400000, "SO_PIN_LOCKED"},
                             Row{0x800000, "SO_PIN_TO_BE_CHANGED"}};
  std::vector<std::string> names;
  for (const Row& row : kRows) {
    if ((flags & row.flag) != 0) names.emplace_back(row.name);
  }
  return names;
}

TEST_F(Readers, AreListedAsJsonInTheModulesOrder) {
  makeThreeCards();
  Json expected = Json::array();
  for (const Json& slot : slots()) {
    expected.push_back({{"reader", trimmedText(slot["description"].get<std::string>())},
                        {"slotID", slot["slotID"]},
                        {"slotFlags", {"TOKEN_PRESENT"}},
                        {"tokenLabel", trimmedText(slot["label"].get<std::string>())},
                        {"serialNumber", trimmedText(slot["serialNumber"].get<std::string>())},
                        {"manufacturer", "SoftHSM project"},
                        {"model", "SoftHSM v2"},
                        {"tokenFlags", flagNames(slot["flags"].get<unsigned long>())},
                        {"initialised", (slot["flags"].get<unsigned long>() & kTokenInitialised) != 0}});
  }

  const Result result = mireltoken({"readers", "--json"});

  expectSuccess(result);
  ASSERT_THAT(expected, SizeIs(4));
  EXPECT_EQ(result.out, Json({{"readers", expected}}).dump(2) + "\n");
}

TEST_F(Readers, AreListedForPeopleWithTheirFlagsSpelledOut) {
  makeCards("token label=0x43617264204F6E65\n");
  const Json slot = slots().front();
  const std::string reader = trimmedText(slot["description"].get<std::string>());
  const std::string serial = trimmedText(slot["serialNumber"].get<std::string>());

  const Result result = mireltoken({"readers"});

  expectSuccess(result);
  EXPECT_THAT(result.out, ::testing::StartsWith("READER"));
  EXPECT_THAT(result.out, HasSubstr("TOKEN LABEL  SERIAL NUMBER     FLAGS\n"));
  EXPECT_THAT(
      result.out,
      HasSubstr("\n" + reader +
                std::string(std::max<std::size_t>(reader.size(), freeReader().size()) - reader.size(), ' ') +
                "  Card One     " + serial +
                "  RNG LOGIN_REQUIRED USER_PIN_INITIALIZED RESTORE_KEY_NOT_NEEDED TOKEN_INITIALIZED\n"));
  EXPECT_THAT(result.out, HasSubstr(freeReader()));
}

TEST_F(Readers, ShowPeopleUnprintableBytesOfATokenLabelByNumber) {
  makeCards("token label=0x411B5B316D9BFF\n");
  const Result result = mireltoken({"readers"});
  expectSuccess(result);
  EXPECT_THAT(result.out, HasSubstr("  A\\x1B[1m\\x9B\xC3\xBF  "));
}

TEST_F(Readers, AreNarrowedDownToTheOneNamed) {
  makeThreeCards();
  const Result result = mireltoken({"readers", "--json", "--reader", readerOf("Green")});
  expectSuccess(result);
  const Json readers = Json::parse(result.out)["readers"];
  ASSERT_THAT(readers, SizeIs(1));
  EXPECT_EQ(readers[0]["tokenLabel"], "Green");
}

TEST_F(Readers, AreTakenInTheModulesOrderWhenNoneIsNamed) {
  makeThreeCards();
  const Json all = slots();
  const auto first = std::find_if(all.begin(), all.end(), [](const Json& slot) {
    return (slot["flags"].get<unsigned long>() & kTokenInitialised) != 0;
  });
  ASSERT_NE(first, all.end());
  expectItemsOf(trimmedText((*first)["label"].get<std::string>()), {});
}

TEST_F(Readers, AreChosenByTheirWholeName) {
  makeThreeCards();
  for (const char* card : {"Red", "Green", "Blue"}) {
    SCOPED_TRACE(card);
    expectItemsOf(card, {"--reader", readerOf(card)});
  }
}

TEST_F(Readers, AreChosenByABeginningThatFitsNoOther) {
  makeThreeCards();
  for (const char* card : {"Red", "Green", "Blue"}) {
    SCOPED_TRACE(card);
    const std::string beginning = distinctBeginning(readerOf(card));
    ASSERT_THAT(beginning, Not(IsEmpty()));
    expectItemsOf(card, {"--reader", beginning});
  }
}

TEST_F(Readers, AreTakenAsNamedBeforeTheCommandToo) {
  makeThreeCards();
  const Result result = mireltoken({"--reader", readerOf("Blue"), "--json", "items"});
  expectSuccess(result);
  EXPECT_EQ(Json::parse(result.out)["reader"], readerOf("Blue"));
}

TEST_F(Readers, AreNotChosenByABeginningThatFitsSeveral) {
  makeThreeCards();
  std::vector<std::string> parts = names();
  parts.emplace_back("\"SoftHSM slot ID 0x\"");
  expectFailure(mireltoken({"items", "--reader", "SoftHSM slot ID 0x"}), 5, parts);
  expectFailure(mireltoken({"readers", "--reader", "SoftHSM slot ID 0x"}), 5, parts);
}

TEST_F(Readers, AreNotChosenByANameThatNoneHas) {
  makeThreeCards();
  std::vector<std::string> parts = names();
  parts.emplace_back("\"Nowhere 00 00\"");
  expectFailure(mireltoken({"items", "--reader", "Nowhere 00 00"}), 5, parts);
  expectFailure(mireltoken({"readers", "--reader", "Nowhere 00 00"}), 5, parts);
}

TEST_F(Readers, AreNotChosenByANameThatGoesOnBeyondTheirs) {
  makeThreeCards();
  expectFailure(mireltoken({"items", "--reader", readerOf("Red") + "x"}), 5, {readerOf("Red") + "x"});
}

TEST_F(Readers, AreNotChosenByAnEmptyName) {
  makeThreeCards();
  expectFailure(mireltoken({"items", "--reader", ""}), 5, {"\"\""});
}

TEST_F(Readers, WithoutAnInitialisedTokenHaveNoCardToInsert) {
  makeCards("");
  expectFailure(mireltoken({"items"}), 5, {"initialised"});
}

TEST_F(Readers, WithoutAnInitialisedTokenCannotBeListed) {
  makeCards("token label=Card\n");
  expectFailure(mireltoken({"items", "--reader", freeReader()}), 6, {freeReader(), "initialised"});
}

TEST_F(Readers, AreToldApartWhenOneNameBeginsWithAnother) {
  // The free slot is "SoftHSM slot ID 0x1"; so has to begin the one of the card, which has a random name.
  constexpr int kTries = 300;
  std::string name;
  for (int i = 0; i < kTries && !name.starts_with("SoftHSM slot ID 0x1"); ++i) {
    std::filesystem::remove_all(folder() / "tokens");
    makeCards("token label=Card\n");
    name = readerOf("Card");
  }
  makeCards("");
  ASSERT_EQ(freeReader(), "SoftHSM slot ID 0x1");
  ASSERT_TRUE(name.starts_with(freeReader()));

  const Result result = mireltoken({"items", "--json", "--reader", name});
  EXPECT_EQ(Json::parse(result.out)["reader"], name);
  const std::string shortName = freeReader();
  expectFailure(mireltoken({"items", "--reader", shortName}), 6, {'"' + shortName + '"'});
}

TEST_F(Readers, AreUsableUpToTenWithATokenAndAllListedBeyond) {
  std::string description;
  for (int i = 1; i <= 9; ++i) description += "token label=Card" + std::to_string(i) + "\n";
  makeCards(description);  // and the free one
  EXPECT_EQ(mireltoken({"items"}).exitCode, 0);

  makeCards("token label=Card10\n");

  const Result readers = mireltoken({"readers", "--json"});
  expectSuccess(readers);
  EXPECT_THAT(Json::parse(readers.out)["readers"], SizeIs(11));
  expectFailure(mireltoken({"items"}), 6, {"C_GetSlotList", "CKR_BUFFER_TOO_SMALL (0x150)"});
}

}  // namespace
}  // namespace mirel::test
