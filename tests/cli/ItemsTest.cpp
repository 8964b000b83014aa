#include <gmock/gmock.h>

#include <algorithm>
#include <array>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

class Items : public EndToEndTest {};

/// A public key and a certificate with one ID. `usage`: empty for none.
std::string pairLines(std::string_view type, std::string_view id, std::string_view usage) {
  std::string lines;
  lines.append("public label=Key type=").append(type).append(" id=").append(id);
  lines.append("\ncertificate label=Certificate type=").append(type).append(" id=").append(id);
  if (!usage.empty()) lines.append(" usage=").append(usage);
  return lines.append("\n");
}

/// The two bytes of a number.
std::string numberedID(unsigned number) {
  return {static_cast<char>(number >> 8U), static_cast<char>(number & 0xFFU)};
}

/// A card with that many keys and a certificate for each.
std::string numberedPairs(unsigned count) {
  std::string description = "token label=Card\n";
  for (unsigned i = 1; i <= count; ++i)
    description += pairLines("p256", std::string{"0x"}.append(hexOfBytes(numberedID(i))), "keyAgreement");
  return description;
}

std::vector<std::string> labelsOf(const std::vector<Json>& items) {
  std::vector<std::string> labels;
  labels.reserve(items.size());
  for (const Json& item : items) labels.push_back(item["label"]);
  return labels;
}

TEST_F(Items, PrintsTheDocumentedJson) {
  makeCards(
      "token label=0x43617264204F6E65\n"
      "public type=rsa2048 id=0x3041 label=Signature\n"
      "certificate type=rsa2048 id=0x3041 label=Signing subject=Alice usage=digitalSignature,nonRepudiation "
      "notafter=20310203040506Z size=1000\n");
  const Json slot = slots().front();
  const std::string reader = trimmedText(slot["description"].get<std::string>());
  const std::string serial = trimmedText(slot["serialNumber"].get<std::string>());
  const std::string serialHex = slot["serialNumber"].get<std::string>();
  // SoftHSM2's flags are 0x42D.
  const std::string expected =
      "{\n"
      "  \"reader\": \"" +
      reader +
      "\",\n"
      "  \"instanceID\": \"Card One                        SoftHSM project                 SoftHSM v2      " +
      serial + "-\\u0004" + serial +
      "-\\u0004\",\n"
      "  \"instanceIDHex\": \"43617264204F6E65202020202020202020202020202020202020202020202020"
      "536F667448534D2070726F6A6563742020202020202020202020202020202020536F667448534D207632202020202020" +
      serialHex + "2D04" + serialHex +
      "2D04\",\n"
      "  \"items\": [\n"
      "    {\n"
      "      \"class\": \"certificate\",\n"
      "      \"objectID\": \"cert_Signing_0A\",\n"
      "      \"label\": \"0A\",\n"
      "      \"subject\": \"CN=Alice\",\n"
      "      \"notAfter\": \"2031-02-03T04:05:06Z\",\n"
      "      \"keyUsage\": [\n"
      "        \"digitalSignature\",\n"
      "        \"nonRepudiation\"\n"
      "      ],\n"
      "      \"size\": 1000\n"
      "    },\n"
      "    {\n"
      "      \"class\": \"key\",\n"
      "      \"objectID\": \"0A\",\n"
      "      \"label\": \"0A\",\n"
      "      \"certificateID\": \"cert_Signing_0A\",\n"
      "      \"keyType\": \"RSA\",\n"
      "      \"keySizeInBits\": 2048,\n"
      "      \"canSign\": true,\n"
      "      \"canDecrypt\": false,\n"
      "      \"canPerformKeyExchange\": false,\n"
      "      \"suitableForLogin\": true,\n"
      "      \"alwaysAuthenticate\": true,\n"
      "      \"constraints\": {\n"
      "        \"2\": \"PINAlways\"\n"
      "      }\n"
      "    }\n"
      "  ]\n"
      "}\n";

  const Result result = mireltoken({"items", "--json"});

  expectSuccess(result);
  EXPECT_EQ(result.out, expected);
}

TEST_F(Items, ComeInTheModulesCertificateOrderEachDirectlyFollowedByItsKey) {
  makeCards(numberedPairs(12));
  std::vector<FoundObject> found;

  const Json items = this->items(found);

  std::vector<std::string> expected;
  for (const FoundObject& object : found) {
    if (object.objectClass != 1) continue;
    expected.push_back("cert_Certificate_" + characters(object.id));
    expected.push_back(characters(object.id));
  }
  std::vector<std::string> published;
  for (const Json& item : items) published.push_back(item["objectID"]);
  ASSERT_THAT(expected, SizeIs(24));
  EXPECT_EQ(published, expected);
}

TEST_F(Items, HaveTheInstanceIdentifierThatTheTokenInformationSpells) {
  makeCards("token label=Card\n");
  const Json slot = slots().front();
  std::string flags;
  for (auto rest = slot["flags"].get<unsigned long>(); (rest & 0xFFU) != 0; rest >>= 8U)
    flags.push_back(static_cast<char>(rest & 0xFFU));
  std::string expected;
  for (const char* field : {"label", "manufacturerID", "model", "serialNumber"})
    expected += bytesOfHex(slot[field].get<std::string>());
  expected += flags + bytesOfHex(slot["serialNumber"].get<std::string>()) + flags;

  const Json card = Json::parse(mireltoken({"items", "--json"}).out);

  ASSERT_FALSE(flags.empty());
  EXPECT_EQ(card["instanceID"], characters(expected));
  EXPECT_EQ(card["instanceIDHex"], hexOfBytes(expected));
}

TEST_F(Items, OfAnEmptyCardAreNone) {
  makeCards("token label=Empty\n");
  const Result result = mireltoken({"items", "--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(Json::parse(result.out)["items"], Json::array());
}

TEST_F(Items, LeaveOutACertificateWithoutAKey) {
  makeCards(
      "token label=Card\n"
      "certificate type=rsa2048 id=0x01 label=Alone usage=digitalSignature\n"
      "public type=rsa2048 id=0x02 label=Key\n"
      "certificate type=rsa2048 id=0x02 label=Bound usage=digitalSignature\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["objectID"], "cert_Bound_\x02");
  EXPECT_EQ(items[1]["objectID"], "\x02");
}

TEST_F(Items, LeaveOutAKeyWithoutACertificate) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=0x01 label=Alone\n"
      "public type=rsa2048 id=0x02 label=Key\n"
      "certificate type=rsa2048 id=0x02 label=Bound usage=digitalSignature\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[1]["objectID"], "\x02");
}

TEST_F(Items, LeaveOutACertificateThatIsNone) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=0x01 label=Key\n"
      "certificate id=0x01 label=Broken value=0x30820100\n"
      "public type=rsa2048 id=0x02 label=Key\n"
      "certificate type=rsa2048 id=0x02 label=Whole usage=digitalSignature\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["objectID"], "cert_Whole_\x02");
}

TEST_F(Items, AreNotMadeOfPrivateKeys) {
  makeCards(
      "token label=Card\n"
      "private type=rsa2048 id=0x01 label=Key allow=sign\n"
      "certificate type=rsa2048 id=0x01 label=Certificate usage=digitalSignature\n"
      "public type=p256 id=0x02 label=Key\n"
      "private type=p256 id=0x02 label=Key allow=sign,derive\n"
      "certificate type=p256 id=0x02 label=Certificate usage=digitalSignature\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[1]["objectID"], "\x02");
}

TEST_F(Items, HaveNoKeyForATypeThatTheKeychainCannotName) {
  makeCards(
      "token label=Card\n"
      "public type=ed25519 id=0x01 label=Key\n"
      "certificate type=ed25519 id=0x01 label=Edwards usage=digitalSignature\n"
      "public type=p256 id=0x02 label=Key\n"
      "certificate type=p256 id=0x02 label=Prime usage=digitalSignature\n");
  const Json items = this->items();
  EXPECT_THAT(itemsOfClass(items, "certificate"), SizeIs(2));
  EXPECT_EQ(itemLabelled(items, "certificate", "\x01")["objectID"], "cert_Edwards_\x01");
  ASSERT_THAT(itemsOfClass(items, "key"), SizeIs(1));
  EXPECT_EQ(itemsOfClass(items, "key")[0]["objectID"], "\x02");
}

TEST_F(Items, CountACertificateForEachKeyWithItsID) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=0x01 label=One\n"
      "public type=p256 id=0x01 label=Two\n"
      "certificate type=rsa2048 id=0x01 label=Shared usage=digitalSignature\n");
  const Json items = this->items();
  std::vector<std::string> published;
  for (const Json& item : items) {
    published.push_back(item["objectID"]);
    EXPECT_EQ(item["count"], 2);
  }
  EXPECT_THAT(published, ElementsAre("cert_Shared_\x01", "\x01"));
}

TEST_F(Items, ListEveryCertificateOfOneKey) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=0x01 label=Key\n"
      "certificate type=rsa2048 id=0x01 label=Old usage=digitalSignature\n"
      "certificate type=rsa2048 id=0x01 label=New usage=keyEncipherment\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(4));
  for (const std::size_t i : {0U, 2U}) {
    SCOPED_TRACE(i);
    const bool isNew = items[i]["objectID"] == "cert_New_\x01";
    EXPECT_EQ(items[i]["objectID"], isNew ? "cert_New_\x01" : "cert_Old_\x01");
    EXPECT_EQ(items[i + 1]["certificateID"], items[i]["objectID"]);
    EXPECT_EQ(items[i + 1]["canDecrypt"], isNew);
    EXPECT_EQ(items[i + 1]["canSign"], !isNew);
  }
  EXPECT_NE(items[0]["objectID"], items[2]["objectID"]);
}

TEST_F(Items, AreAllThereOnCardsWithManyKeys) {
  for (const unsigned count : {20U, 21U, 40U, 160U}) {
    SCOPED_TRACE(count);
    std::filesystem::remove_all(folder() / "tokens");
    makeCards(numberedPairs(count));

    const Json items = this->items();

    const std::vector<std::string> certificates = labelsOf(itemsOfClass(items, "certificate"));
    const std::vector<std::string> keys = labelsOf(itemsOfClass(items, "key"));
    EXPECT_EQ(certificates, keys);
    std::vector<std::string> expected;
    expected.reserve(count);
    for (unsigned i = 1; i <= count; ++i) expected.push_back(characters(numberedID(i)));
    EXPECT_THAT(keys, ::testing::UnorderedElementsAreArray(expected));
  }
}

struct UsageRow {
  const char* usage;  ///< as the certificate has it; empty: no key usage
  const char* may;    ///< the one ability that it gives; empty: none
  const char* operation;
  bool forLogin;
};

TEST_F(Items, GiveAKeyTheFirstAbilityThatItsCertificateAllows) {
  constexpr std::array kRows{
      UsageRow{"digitalSignature", "canSign", "2", true},
      UsageRow{"digitalSignature,nonRepudiation", "canSign", "2", true},
      UsageRow{"digitalSignature,keyEncipherment", "canSign", "2", true},
      UsageRow{"digitalSignature,keyAgreement", "canSign", "2", true},
      UsageRow{"keyEncipherment", "canDecrypt", "3", true},
      UsageRow{"keyEncipherment,dataEncipherment", "canDecrypt", "3", true},
      UsageRow{"keyEncipherment,keyAgreement", "canDecrypt", "3", true},
      UsageRow{"keyAgreement", "canPerformKeyExchange", "4", false},
      UsageRow{"keyAgreement,encipherOnly", "canPerformKeyExchange", "4", false},
      UsageRow{"keyAgreement,decipherOnly", "canPerformKeyExchange", "4", false},
      // None that a key of the keychain can have.
      UsageRow{"nonRepudiation", "", "", false},
      UsageRow{"dataEncipherment", "", "", false},
      UsageRow{"keyCertSign,cRLSign", "", "", false},
      UsageRow{"", "", "", false},
  };
  std::string description = "token label=Card\n";
  for (std::size_t i = 0; i < kRows.size(); ++i)
    description += pairLines("rsa2048", std::to_string(i), kRows[i].usage);
  makeCards(description);

  const Json items = this->items();

  for (std::size_t i = 0; i < kRows.size(); ++i) {
    const UsageRow& row = kRows[i];
    SCOPED_TRACE(row.usage);
    const Json certificate = itemLabelled(items, "certificate", std::to_string(i));
    const Json key = itemLabelled(items, "key", std::to_string(i));
    ASSERT_FALSE(certificate.is_null() || key.is_null());
    std::string usage;
    for (const Json& name : certificate["keyUsage"])
      usage.append(usage.empty() ? "" : ",").append(name.get<std::string>());
    EXPECT_EQ(usage, row.usage);
    for (const char* ability : {"canSign", "canDecrypt", "canPerformKeyExchange"}) {
      EXPECT_EQ(key[ability], std::string_view{ability} == row.may) << ability;
    }
    EXPECT_EQ(key["suitableForLogin"], row.forLogin);
    EXPECT_EQ(key["alwaysAuthenticate"], true);
    Json constraints = Json::object();
    if (*row.operation != '\0') constraints[row.operation] = "PINAlways";
    EXPECT_EQ(key["constraints"], constraints);
  }
}

TEST_F(Items, HaveTheTypeAndSizeOfTheirKeys) {
  struct Row {
    const char* type;
    const char* keyType;
    int bits;
  };
  constexpr std::array kRows{Row{"rsa1024", "RSA", 1024}, Row{"rsa2048", "RSA", 2048},
                             Row{"rsa3072", "RSA", 3072}, Row{"p256", "EC", 256},
                             Row{"p384", "EC", 384},      Row{"p521", "EC", 521}};
  std::string description = "token label=Card\n";
  for (const Row& row : kRows) description += pairLines(row.type, row.type, "");
  makeCards(description);

  const Json items = this->items();

  for (const Row& row : kRows) {
    SCOPED_TRACE(row.type);
    const Json key = itemLabelled(items, "key", row.type);
    ASSERT_FALSE(key.is_null());
    EXPECT_EQ(key["keyType"], row.keyType);
    EXPECT_EQ(key["keySizeInBits"], row.bits);
  }
}

struct IdentifierRow {
  const char* name;
  const char* id;     ///< hexadecimal digits
  const char* shown;  ///< to people
};

constexpr std::array kIdentifiers{
    IdentifierRow{"one byte", "01", R"(\x01)"},
    IdentifierRow{"two bytes, NUL first", "0001", R"(\x00\x01)"},
    IdentifierRow{"NUL alone", "00", R"(\x00)"},
    IdentifierRow{"NUL last", "4100", R"(A\x00)"},
    IdentifierRow{"NUL between letters", "410042", R"(A\x00B)"},
    // The SHA-1 of no bytes (FIPS 180-4).
    IdentifierRow{"SHA-1", "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709",
                  "\xC3\x9A"
                  "9\xC2\xA3\xC3\xAE^kK\\x0D2U\xC2\xBF\xC3\xAF\\x95`\\x18\\x90\xC2\xAF\xC3\x98\\x07\\x09"},
    IdentifierRow{"all-ones", "FFFFFFFF", "\xC3\xBF\xC3\xBF\xC3\xBF\xC3\xBF"},
    IdentifierRow{"delete and what follows it", "7F809BA0AD", R"(\x7F\x80\x9B\xA0\xAD)"},
    IdentifierRow{"quote and backslash", "225C", R"("\x5C)"},
};

std::string cardWithIdentifiers() {
  std::string description = "token label=Card\n";
  for (const IdentifierRow& row : kIdentifiers)
    description += pairLines("p256", std::string{"0x"}.append(row.id), "keyAgreement");
  return description;
}

TEST_F(Items, KeepEveryByteOfAnIdentifierInJson) {
  makeCards(cardWithIdentifiers());

  const Json items = this->items();

  for (const IdentifierRow& row : kIdentifiers) {
    SCOPED_TRACE(row.name);
    const std::string id = characters(bytesOfHex(row.id));
    const Json key = itemLabelled(items, "key", bytesOfHex(row.id));
    ASSERT_FALSE(key.is_null());
    EXPECT_EQ(key["objectID"], id);
    EXPECT_EQ(key["certificateID"], "cert_Certificate_" + id);
    EXPECT_EQ(itemLabelled(items, "certificate", bytesOfHex(row.id))["objectID"], "cert_Certificate_" + id);
  }
}

TEST_F(Items, HaveTheirControlCharactersAsFourDigitsInJson) {
  makeCards(cardWithIdentifiers());
  const Result result = mireltoken({"items", "--json"});
  expectSuccess(result);
  for (const char* id : {R"(\u0001)", R"(\u0000\u0001)", R"(\u0000)", R"(A\u0000)", R"(A\u0000B)"}) {
    EXPECT_THAT(result.out, HasSubstr(std::string{"\"objectID\": \""} + id + "\","));
    EXPECT_THAT(result.out, HasSubstr(std::string{"\"objectID\": \"cert_Certificate_"} + id + "\","));
  }
}

/// True for text whose only control characters (U+0000 to U+001F, U+007F to U+009F) are line ends.
bool isHarmlessToATerminal(std::string_view utf8) {
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    if ((byte < 0x20 && byte != '\n') || byte == 0x7F) return false;
    if (byte == 0xC2 && i + 1 < utf8.size() && static_cast<unsigned char>(utf8[i + 1]) < 0xA0) return false;
  }
  return true;
}

TEST_F(Items, NeverControlTheTerminal) {
  makeCards(cardWithIdentifiers());
  EXPECT_TRUE(isHarmlessToATerminal(mireltoken({"items"}).out));
  EXPECT_TRUE(isHarmlessToATerminal(mireltoken({"items", "--json"}).out));
}

TEST_F(Items, ShowPeopleUnprintableBytesByNumber) {
  makeCards(cardWithIdentifiers());

  const Result result = mireltoken({"items"});

  expectSuccess(result);
  for (const IdentifierRow& row : kIdentifiers) {
    SCOPED_TRACE(row.name);
    EXPECT_THAT(result.out, HasSubstr(std::string{"\nkey          "} + row.shown + " "));
    EXPECT_THAT(result.out, HasSubstr(std::string{"\ncertificate  cert_Certificate_"} + row.shown + " "));
  }
}

TEST_F(Items, KeepANulInALabel) {
  makeCards(
      "token label=Card\n"
      "public type=p256 id=0x01 label=0x00\n"
      "certificate type=p256 id=0x01 label=0x410042\n");
  const Result result = mireltoken({"items", "--json"});
  expectSuccess(result);
  EXPECT_THAT(result.out, HasSubstr(R"("objectID": "cert_A\u0000B_\u0001")"));
}

TEST_F(Items, KeepALabelThatIsNotUtf8) {
  makeCards(
      "token label=Card\n"
      "public type=p256 id=0x01 label=Key\n"
      "certificate type=p256 id=0x01 label=0xC328FF\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["objectID"], characters("cert_\xC3\x28\xFF_\x01"));
}

TEST_F(Items, TellNamesBeyondAsciiInTheSubject) {
  makeCards(
      "token label=Card\n"
      "public type=p256 id=0x01 label=Key\n"
      "certificate type=p256 id=0x01 label=Certificate subject=Zo\xC3\xAB\xE2\x82\xAC\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["subject"], "CN=Zo\xC3\xAB\xE2\x82\xAC");
}

TEST_F(Items, TellADateBeyond2050) {
  makeCards(
      "token label=Card\n"
      "public type=p256 id=0x01 label=Key\n"
      "certificate type=p256 id=0x01 label=Certificate notafter=20510607080910Z\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["notAfter"], "2051-06-07T08:09:10Z");
}

TEST_F(Items, TakeACertificateOfExactly2000Bytes) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=0x01 label=Key\n"
      "certificate type=rsa2048 id=0x01 label=Certificate size=2000\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["size"], 2000);
}

TEST_F(Items, TakeALabelAndAnIDOfExactly256BytesFromACertificate) {
  const std::string id = " id=0x" + hexOfBytes(std::string(256, '\x01'));
  makeCards("token label=Card\npublic type=p256 label=Key" + id +
            "\ncertificate type=p256 label=" + std::string(256, 'L') + id + "\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["objectID"], "cert_" + std::string(256, 'L') + "_" + std::string(256, '\x01'));
}

TEST_F(Items, FailAsAWholeForOneObjectThatCannotBeListed) {
  struct Row {
    const char* name;
    std::string object;
    std::vector<std::string> reason;
  };
  const std::string longText(257, 'L');
  const std::array rows{
      Row{"certificate of 2001 bytes",
          "certificate type=rsa2048 id=0x0102 label=Big size=2001",
          {"certificate \"Big\"", "2001", "2000"}},
      Row{"certificate of 70000 bytes",
          "certificate type=rsa2048 id=0x0102 label=Big size=70000",
          {"certificate \"Big\"", "70000", "2000"}},
      Row{"certificate with an empty label",
          "certificate type=p256 id=0x0102 label=0x",
          {R"(certificate with ID "\x01\x02")", "label is empty"}},
      Row{"certificate with an empty ID",
          "certificate type=p256 id=0x label=Nameless",
          {"certificate \"Nameless\"", "ID is empty"}},
      Row{"certificate without bytes",
          "certificate id=0x0102 label=Nothing value=0x",
          {"certificate \"Nothing\"", "value is empty"}},
      Row{"certificate with a label of 257 bytes",
          "certificate type=p256 id=0x0102 label=" + longText,
          {"certificate", "257", "256"}},
      Row{"certificate with an ID of 257 bytes",
          "certificate type=p256 label=Long id=" + longText,
          {"certificate \"Long\"", "257", "256"}},
      Row{"public key with an empty label",
          "public type=rsa2048 id=0x0102 label=0x",
          {R"(public key with ID "\x01\x02")", "label is empty"}},
      Row{"public key with an empty ID",
          "public type=rsa2048 id=0x label=Nameless",
          {"public key \"Nameless\"", "ID is empty"}},
      Row{"public key with a label of 2001 bytes",
          "public type=p256 id=0x0102 label=" + std::string(2001, 'L'),
          {"public key", "2001", "2000"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all(folder() / "tokens");
    makeCards(
        "token label=Card\n"
        "public type=p256 id=0x01 label=Good\n"
        "certificate type=p256 id=0x01 label=Good usage=keyAgreement\n" +
        row.object + "\n");

    expectFailure(mireltoken({"items", "--json"}), 6, row.reason);
    expectFailure(mireltoken({"items"}), 6, row.reason);
  }
}

TEST_F(Items, StandInATableForPeople) {
  makeCards(
      "token label=0x43617264204F6E65\n"
      "public type=rsa2048 id=0A label=Key\n"
      "certificate type=rsa2048 id=0A label=Signing subject=Alice usage=digitalSignature,nonRepudiation "
      "notafter=20310203040506Z size=1000\n");
  const Json slot = slots().front();

  const Result result = mireltoken({"items"});

  expectSuccess(result);
  EXPECT_THAT(result.out, HasSubstr(trimmedText(slot["description"].get<std::string>())));
  EXPECT_THAT(result.out, HasSubstr("Card One"));
  EXPECT_THAT(result.out, HasSubstr(trimmedText(slot["serialNumber"].get<std::string>())));
  EXPECT_THAT(result.out, HasSubstr("\nITEM         OBJECT ID        LABEL  WHAT IT IS\n"));
  EXPECT_THAT(result.out,
              HasSubstr("\ncertificate  cert_Signing_0A  0A     CN=Alice, until 2031-02-03T04:05:06Z, "
                        "digitalSignature nonRepudiation, 1000 bytes\n"));
  EXPECT_THAT(
      result.out,
      HasSubstr("\nkey          0A               0A     RSA 2048, signs, for login, PINAlways to sign\n"));
}

TEST_F(Items, AreFollowedForPeopleByWhatIsNotPublishedAndWhy) {
  makeCards(
      "token label=Card\n"
      "public type=p256 id=01 label=Bound\n"
      "certificate type=p256 id=01 label=Bound usage=keyAgreement\n"
      "certificate type=p256 id=02 label=Lonely usage=keyAgreement\n"
      "public type=p256 id=03 label=Orphan\n"
      "public type=p256 id=04 label=Torn\n"
      "certificate id=04 label=Torn value=0x30820100\n");

  const Result result = mireltoken({"items"});

  expectSuccess(result);
  const std::size_t heading = result.out.find("NOT PUBLISHED");
  ASSERT_NE(heading, std::string::npos);
  const std::string rest = result.out.substr(heading);
  EXPECT_THAT(rest,
              ::testing::ContainsRegex("\ncertificate +Lonely +02 +no public key on the card has its ID\n"));
  EXPECT_THAT(rest,
              ::testing::ContainsRegex("\npublic key +Orphan +03 +no certificate on the card has its ID\n"));
  EXPECT_THAT(rest, ::testing::ContainsRegex(
                        "\ncertificate +Torn +04 +its value is not an X.509 certificate in DER\n"));
  EXPECT_THAT(rest, ::testing::Not(HasSubstr("Bound")));
}

}  // namespace
}  // namespace mirel::test
