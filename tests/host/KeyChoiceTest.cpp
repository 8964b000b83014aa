#include "host/KeyChoice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// A card with the keys of these rows; certificates are named as the token names them.
class KeyChoice : public ::testing::Test {
 protected:
  struct Names {
    Text objectID;
    Text certificateLabel;
    Text itemLabel = Text{};
  };

  [[nodiscard]] static Text certificateID(const Names& names) {
    return joined({Text{u"cert_"}, names.certificateLabel, Text{u"_"}, names.objectID});
  }

  void add(const Names& names, bool withCertificate = true) {
    if (withCertificate) {
      PublishedCertificate certificate;
      certificate.objectID = certificateID(names);
      certificate.data = Bytes{bytesOf(names.objectID.toUtf8())};
      card.items.emplace_back(certificate);
    }
    PublishedKey key;
    key.objectID = names.objectID;
    key.label = names.itemLabel;
    key.certificateID = certificateID(names);
    card.items.emplace_back(key);
  }

  /// The object identifier of the key that is chosen; a failure fails the test.
  [[nodiscard]] std::string chosen(std::string_view name) {
    const auto outcome = chooseKey(card, name);
    if (outcome) return outcome->key.objectID.toUtf8();
    ADD_FAILURE() << name << ": " << outcome.failure().why;
    return {};
  }

  /// Why there is no such key; a key fails the test.
  [[nodiscard]] Failure refused(std::string_view name) {
    const Failure failure = failureOf(chooseKey(card, name));
    EXPECT_EQ(failure.kind, FailureKind::kKeyNotFound) << name;
    return failure;
  }

  InsertedCard card;
};

TEST_F(KeyChoice, ListsTheKeysInTheirOrder) {
  EXPECT_THAT(keysOf(card), IsEmpty());
  add({Text{u"B"}, Text{u"one"}});
  add({Text{u"A"}, Text{u"two"}});
  const auto keys = keysOf(card);
  ASSERT_EQ(keys.size(), 2U);
  EXPECT_EQ(keys[0].objectID, Text{u"B"});
  EXPECT_EQ(keys[1].objectID, Text{u"A"});
}

// ---- By object identifier ----

TEST_F(KeyChoice, FindsAnObjectIdentifier) {
  add({Text{u"01"}, Text{u"one"}});
  add({Text{u"02"}, Text{u"two"}});
  EXPECT_EQ(chosen("02"), "02");
  (void)refused("0");
  (void)refused("021");
}

TEST_F(KeyChoice, FindsAnObjectIdentifierAsItIsDisplayed) {
  using namespace std::string_view_literals;
  add({Text{u"\0\u00FF\\A"sv}, Text{u"one"}});
  const auto outcome = chooseKey(card, "\\x00\u00FF\\x5CA");
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->key.objectID.units(), u"\0\u00FF\\A"sv);
}

TEST_F(KeyChoice, GivesTheCertificateOfTheKey) {
  add({Text{u"01"}, Text{u"one"}});
  add({Text{u"02"}, Text{u"two"}});
  const auto outcome = chooseKey(card, "02");
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->certificate.objectID, Text{u"cert_two_02"});
  EXPECT_EQ(outcome->certificate.data, Bytes{bytesOf("02")});
}

// ---- By number ----

TEST_F(KeyChoice, CountsFromOne) {
  add({Text{u"B"}, Text{u"one"}});
  add({Text{u"A"}, Text{u"two"}});
  EXPECT_EQ(chosen("#1"), "B");
  EXPECT_EQ(chosen("#2"), "A");
}

TEST_F(KeyChoice, CountsKeysThatAreAlikeAsTheyAreListed) {
  add({Text{u"A"}, Text{u"one"}});
  add({Text{u"A"}, Text{u"one"}});
  add({Text{u"B"}, Text{u"two"}});
  EXPECT_EQ(chosen("#2"), "B");
  EXPECT_EQ(chosen("one"), "A");
}

TEST_F(KeyChoice, RefusesWhatIsNoNumberOfAKey) {
  add({Text{u"B"}, Text{u"one"}});
  add({Text{u"A"}, Text{u"two"}});
  for (const char* name : {"#0", "#3", "#", "#-1", "#+1", "# 1", "#1 ", "#1x", "##1", "1", "#0x1",
                           "#18446744073709551617", "#99999999999999999999999999"}) {
    (void)refused(name);
  }
}

// ---- By label ----

TEST_F(KeyChoice, FindsTheLabelOfTheItem) {
  add({Text{u"01"}, Text{u"one"}, Text{u"My item"}});
  add({Text{u"02"}, Text{u"two"}});
  EXPECT_EQ(chosen("My item"), "01");
}

TEST_F(KeyChoice, FindsTheLabelOfTheCertificate) {
  add({Text{u"01"}, Text{u"Signing"}});
  add({Text{u"02"}, Text{u"Decryption"}});
  EXPECT_EQ(chosen("Decryption"), "02");
  (void)refused("cert_Decryption_02");
  (void)refused("Decrypt");
}

TEST_F(KeyChoice, FindsALabelWithUnderscores) {
  add({Text{u"0_1"}, Text{u"a_b_"}});
  EXPECT_EQ(chosen("a_b_"), "0_1");
}

TEST_F(KeyChoice, FindsALabelAsItIsDisplayed) {
  add({Text{u"01"}, Text{u"Gr\u00FCn\x07"}});
  EXPECT_EQ(chosen("Gr\u00FCn\\x07"), "01");
}

TEST_F(KeyChoice, FindsALabelOfItemAndCertificateOnce) {
  add({Text{u"01"}, Text{u"Same"}, Text{u"Same"}});
  EXPECT_EQ(chosen("Same"), "01");
}

TEST_F(KeyChoice, RefusesALabelThatSeveralKeysHave) {
  add({Text{u"01"}, Text{u"Same"}});
  add({Text{u"02"}, Text{u"other"}, Text{u"Same"}});
  EXPECT_THAT(refused("Same").why, HasSubstr("several keys have that label"));
  EXPECT_EQ(chosen("other"), "02");
}

TEST_F(KeyChoice, HasNoLabelOfACertificateWithAnotherKindOfName) {
  PublishedKey key;
  key.objectID = Text{u"01"};
  key.certificateID = Text{u"cert_"};
  card.items.emplace_back(key);
  (void)refused("x");
}

// ---- What comes first ----

TEST_F(KeyChoice, PrefersAnObjectIdentifierToANumber) {
  add({Text{u"#2"}, Text{u"one"}});
  add({Text{u"02"}, Text{u"two"}});
  EXPECT_EQ(chosen("#2"), "#2");
}

TEST_F(KeyChoice, PrefersAnObjectIdentifierToALabel) {
  add({Text{u"01"}, Text{u"02"}});
  add({Text{u"02"}, Text{u"01"}});
  EXPECT_EQ(chosen("02"), "02");
}

TEST_F(KeyChoice, PrefersANumberToALabel) {
  add({Text{u"01"}, Text{u"#2"}});
  add({Text{u"02"}, Text{u"two"}});
  EXPECT_EQ(chosen("#2"), "02");
}

// ---- What the user is told ----

TEST_F(KeyChoice, TellsWhatKeysThereAre) {
  using namespace std::string_view_literals;
  add({Text{u"01"}, Text{u"Signing"}});
  add({Text{u"\0"sv}, Text{u""}});
  const Failure failure = refused("n\x01\u00F6");
  EXPECT_EQ(failure.what, "there is no key \"n\\x01\u00F6\"");
  EXPECT_EQ(failure.why, "the keys are #1 \"01\" (Signing), #2 \"\\x00\"");
}

TEST_F(KeyChoice, TellsThatACardHasNoKeys) {
  PublishedCertificate certificate;
  certificate.objectID = Text{u"cert_x_01"};
  card.items.emplace_back(certificate);
  EXPECT_EQ(refused("01").why, "the card publishes no key");
  EXPECT_EQ(refused("#1").why, "the card publishes no key");
}

TEST_F(KeyChoice, TellsThatAKeyHasNoCertificateItem) {
  add({Text{u"01"}, Text{u"one"}}, false);
  add({Text{u"02"}, Text{u"two"}});
  for (const char* name : {"01", "#1", "one"}) {
    const Failure failure = refused(name);
    EXPECT_EQ(failure.what, "the key \"01\" has no certificate") << name;
    EXPECT_THAT(failure.why, Not(HasSubstr("02")));
  }
}

}  // namespace
}  // namespace mirel::test
