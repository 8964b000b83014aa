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

// ---- By ID ----

TEST_F(KeyChoice, FindsAnIDInHexadecimalDigits) {
  using namespace std::string_view_literals;
  add({Text{u"\0\x17"sv}, Text{u"one"}});
  add({Text{u"\u00FF"}, Text{u"two"}});
  for (const char* name : {"0017", "0x0017", "0X0017", "00:17", "0x00:17"})
    EXPECT_EQ(chooseKey(card, name)->certificate.objectID, certificateID({Text{u"\0\x17"sv}, Text{u"one"}}))
        << name;
  EXPECT_EQ(chosen("ff"), "\u00FF");
  EXPECT_EQ(chosen("FF"), "\u00FF");
}

TEST_F(KeyChoice, RefusesWhatIsNoWholeID) {
  using namespace std::string_view_literals;
  add({Text{u"\0\x17"sv}, Text{u"one"}});
  add({Text{u"\0\x17\x20"sv}, Text{u"two"}});
  for (const char* name : {"17", "017", "00", "001700", "0x", "00:1", "00:17:", ":0017", "0:017", "00 17",
                           "0017 ", "00-17", "0x0x0017", "00:1x", "00:17-20"})
    (void)refused(name);
}

TEST_F(KeyChoice, GivesTheCertificateOfTheKey) {
  add({Text{u"\x01"}, Text{u"one"}});
  add({Text{u"\x02"}, Text{u"two"}});
  const auto outcome = chooseKey(card, "02");
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->certificate.objectID, Text{u"cert_two_\x02"});
  EXPECT_EQ(outcome->certificate.data, Bytes{bytesOf("\x02")});
}

TEST_F(KeyChoice, TakesTheFirstOfTheKeysWithOneID) {
  add({Text{u"\x01"}, Text{u"old"}});
  add({Text{u"\x01"}, Text{u"new"}});
  EXPECT_EQ(chooseKey(card, "01")->certificate.objectID, Text{u"cert_old_\x01"});
  EXPECT_EQ(chooseKey(card, "new")->certificate.objectID, Text{u"cert_new_\x01"});
}

TEST_F(KeyChoice, FindsAnIDAsCharacters) {
  using namespace std::string_view_literals;
  add({Text{u"\0\u00FF\\A"sv}, Text{u"one"}});
  add({Text{u"01"}, Text{u"two"}});
  const auto outcome = chooseKey(card, "\\x00\u00FF\\x5CA");
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->key.objectID.units(), u"\0\u00FF\\A"sv);
  EXPECT_EQ(chosen("01"), "01");
  EXPECT_EQ(chosen("3031"), "01");
}

// ---- By number ----

TEST_F(KeyChoice, CountsFromOneAndKeysThatAreAlikeAsTheyAreListed) {
  add({Text{u"B"}, Text{u"one"}});
  add({Text{u"B"}, Text{u"one"}});
  add({Text{u"A"}, Text{u"two"}});
  EXPECT_EQ(chosen("#1"), "B");
  EXPECT_EQ(chosen("#2"), "A");
  EXPECT_EQ(chosen("one"), "B");
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

TEST_F(KeyChoice, FindsALabel) {
  const struct {
    const char* what;
    Names names;
    const char* label;
  } rows[] = {
      {"of the item", {Text{u"01"}, Text{u"one"}, Text{u"My item"}}, "My item"},
      {"of the certificate", {Text{u"01"}, Text{u"Decryption"}}, "Decryption"},
      {"of both", {Text{u"01"}, Text{u"Same"}, Text{u"Same"}}, "Same"},
      {"with underscores", {Text{u"0_1"}, Text{u"a_b_"}}, "a_b_"},
      {"as it is displayed", {Text{u"01"}, Text{u"Gr\u00C3\u00BCn\x07"}}, "Gr\u00FCn\\x07"},
      {"that is no UTF-8, by number", {Text{u"01"}, Text{u"Gr\u00FCn"}}, "Gr\\xFCn"},
      {"that is no UTF-8, by letter", {Text{u"01"}, Text{u"Gr\u00FCn"}}, "Gr\u00FCn"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    card.items.clear();
    add({Text{u"02"}, Text{u"two"}});
    add(row.names);
    EXPECT_EQ(chosen(row.label), row.names.objectID.toUtf8());
  }
}

TEST_F(KeyChoice, RefusesWhatIsNoWholeLabel) {
  add({Text{u"02"}, Text{u"Decryption"}});
  (void)refused("cert_Decryption_02");
  (void)refused("Decrypt");
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

// ---- By PKCS #11 URI ----

TEST_F(KeyChoice, IsByAUriThatFitsKeyAndCard) {
  card.reader.tokenLabel = Text{u"My card"};
  card.reader.serialNumber = Text{u"0815"};
  card.reader.manufacturer = Text{u"Maker"};
  card.reader.model = Text{u"M1"};
  card.reader.name = Text{u"Reader 0"};
  card.reader.slotID = 7;
  add({Text{u"\x01"}, Text{u"Gr\u00C3\u00BCn"}});
  add({Text{u"\x02"}, Text{u"two"}, Text{u"Own"}});
  for (const char* name :
       {"pkcs11:id=%02", "pkcs11:object=two", "pkcs11:object=Own", "PKCS11:id=%02;type=private",
        "pkcs11:object=two;type=cert", "pkcs11:object=two;type=public",
        "pkcs11:token=My%20card;serial=0815;manufacturer=Maker;model=M1;slot-id=7;"
        "slot-description=Reader%200;id=%02;object=two"})
    EXPECT_EQ(chosen(name), "\x02") << name;
  EXPECT_EQ(chosen("pkcs11:object=Gr%C3%BCn"), "\x01");
}

TEST_F(KeyChoice, RefusesAUriThatFitsNoKeyOrAnotherCard) {
  card.reader.tokenLabel = Text{u"My card"};
  card.reader.slotID = 7;
  add({Text{u"\x01"}, Text{u"one"}});
  const std::pair<const char*, const char*> rows[] = {
      {"pkcs11:id=%02", "the keys are #1 01 (one)"},
      {"pkcs11:id=01", "the keys are"},
      {"pkcs11:object=On", "the keys are"},
      {"pkcs11:id=%01;object=two", "the keys are"},
      {"pkcs11:id=%01;type=secret-key", "the keys are"},
      {"pkcs11:id=%01;type=data", "the keys are"},
      {"pkcs11:id=%01;token=Other%1B", R"(its token is "Other\x1B", the card's is "My card")"},
      {"pkcs11:id=%01;serial=1", R"(its serial is "1", the card's is "")"},
      {"pkcs11:id=%01;slot-id=8", "its slot-id is 8, the card's is 7"},
  };
  for (const auto& [name, why] : rows) EXPECT_THAT(refused(name).why, HasSubstr(why)) << name;
}

TEST_F(KeyChoice, RefusesAUriThatFitsSeveralKeys) {
  add({Text{u"\x01"}, Text{u"one"}});
  add({Text{u"\x02"}, Text{u"two"}});
  EXPECT_EQ(refused("pkcs11:type=private").why, "the URI fits several keys: #1 01 (one), #2 02 (two)");
}

TEST_F(KeyChoice, TakesTheFirstOfTheKeysWithTheIDOfAUri) {
  add({Text{u"\x01"}, Text{u"old"}});
  add({Text{u"\x01"}, Text{u"new"}});
  EXPECT_EQ(chooseKey(card, "pkcs11:id=%01")->certificate.objectID, Text{u"cert_old_\x01"});
  EXPECT_EQ(chooseKey(card, "pkcs11:id=%01;object=new")->certificate.objectID, Text{u"cert_new_\x01"});
}

TEST_F(KeyChoice, NeverShowsThePinOfAUri) {
  add({Text{u"\x01"}, Text{u"one"}});
  const Failure failure = failureOf(chooseKey(card, "pkcs11:id=%01?pin-value=4711"));
  EXPECT_EQ(failure.kind, FailureKind::kBadInput);
  EXPECT_THAT(failure.what + failure.why, Not(HasSubstr("4711")));
}

TEST_F(KeyChoice, ChecksAUriWithoutACard) {
  EXPECT_TRUE(checkKeyName("pkcs11:id=%01"));
  EXPECT_TRUE(checkKeyName("anything"));
  EXPECT_EQ(failureOf(checkKeyName("pkcs11:id=%0")).kind, FailureKind::kBadInput);
}

TEST_F(KeyChoice, TakesAnIDOnlyWhereAKeyMayBeMissing) {
  add({Text{u"\x01"}, Text{u"one"}});
  card.incomplete = Failure{FailureKind::kCardEnumerationFailed, "what", "why", "advice"};
  EXPECT_EQ(chosen("01"), "\x01");
  EXPECT_EQ(chosen("pkcs11:id=%01"), "\x01");
  EXPECT_EQ(chosen("\\x01"), "\x01");
  for (const char* name : {"one", "#1", "02", "pkcs11:object=one", "pkcs11:id=%02"})
    EXPECT_EQ(failureOf(chooseKey(card, name)).kind, FailureKind::kCardEnumerationFailed) << name;
}

// ---- What comes first ----

TEST_F(KeyChoice, RefusesAnIDThatIsTheLabelOfAnotherKeyAlone) {
  add({Text{u"\x01"}, Text{u"02"}});
  add({Text{u"\x02"}, Text{u"03"}});
  add({Text{u"\x04"}, Text{u"04"}});
  EXPECT_EQ(refused("02").why, "it is the ID of one key and the label of another: #2 02 (03), #1 01 (02)");
  EXPECT_EQ(chosen("03"), "\x02");
  EXPECT_EQ(chosen("04"), "\x04");
}

TEST_F(KeyChoice, PrefersALabelToWhatComesAfterItAndANumberToAnIDAsCharacters) {
  add({Text{u"\x01"}, Text{u"#2"}});
  add({Text{u"\x02"}, Text{u"pkcs11:id=%01"}});
  add({Text{u"Name"}, Text{u"x"}});
  add({Text{u"\x04"}, Text{u"Name"}});
  add({Text{u"#4"}, Text{u"y"}});
  EXPECT_EQ(chosen("#2"), "\x01");
  EXPECT_EQ(chosen("pkcs11:id=%01"), "\x02");
  EXPECT_EQ(chosen("Name"), "\x04");
  EXPECT_EQ(chosen("#4"), "\x04");
}

// ---- What the user is told ----

TEST_F(KeyChoice, TellsWhatKeysThereAre) {
  using namespace std::string_view_literals;
  add({Text{u"01"}, Text{u"Signing"}});
  add({Text{u"\0"sv}, Text{u""}});
  const Failure failure = refused("n\x01\u00F6");
  EXPECT_EQ(failure.what, "there is no key \"n\\x01\u00F6\"");
  EXPECT_EQ(failure.why, "the keys are #1 3031 (Signing), #2 00");
}

TEST_F(KeyChoice, ProposesTheNearestName) {
  add({Text{u"\x01"}, Text{u"Signing"}});
  add({Text{u"\x00AB\x00CD\x00EF"}, Text{u"Encryption"}});
  EXPECT_EQ(refused("signnig").what, "there is no key \"signnig\" (did you mean \"Signing\"?)");
  EXPECT_EQ(refused("abcdee").what, "there is no key \"abcdee\" (did you mean \"abcdef\"?)");
  EXPECT_EQ(refused("Nobody").what, "there is no key \"Nobody\"");
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
    EXPECT_EQ(failure.what, "the key 3031 has no certificate") << name;
    EXPECT_THAT(failure.why, Not(HasSubstr("3032")));
  }
}

}  // namespace
}  // namespace mirel::test
