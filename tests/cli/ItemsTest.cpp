#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <span>

#include "EndToEndTest.h"
#include "platform/Hex.h"

namespace mirel::test {
namespace {

class Items : public EndToEndTest {
 protected:
  /// The values of "objectID" of the items of a card with these lines.
  [[nodiscard]] std::vector<std::string> identifiersOf(const std::string& lines) const {
    makeCards("token label=Card\n" + lines);
    std::vector<std::string> identifiers;
    for (const Json& item : items()) identifiers.push_back(item["objectID"]);
    return identifiers;
  }
};

/// A public key and a certificate with one ID. `usage`: empty for none.
std::string pairLines(const std::string& type, const std::string& id, const std::string& usage) {
  const std::string common = " type=" + type + " id=" + id;
  return "public label=Key" + common + "\ncertificate label=Certificate" + common +
         (usage.empty() ? "" : " usage=" + usage) + "\n";
}

/// The items of that class by their labels.
std::map<std::string, Json> byLabel(const Json& items, const std::string& itemClass) {
  std::map<std::string, Json> found;
  for (const Json& item : items) {
    if (item["class"] != itemClass) continue;
    EXPECT_TRUE(found.emplace(item["label"], item).second) << item;
  }
  return found;
}

/// The reference: SHA-256 of a certificate (PEM) and SHA-1 of its public key, as OpenSSL reads it.
std::pair<std::string, std::string> hashesOf(const std::string& pem) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> input{
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free};
  const std::unique_ptr<X509, decltype(&X509_free)> certificate{
      PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr), &X509_free};
  const auto hashBy = [&](auto digest, const EVP_MD* algorithm) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned int size = 0;
    EXPECT_EQ(digest(certificate.get(), algorithm, bytes.data(), &size), 1);
    return mirel::hexOfBytes(std::span{bytes}.first(size), HexDigits::kLower);
  };
  return {hashBy(&X509_digest, EVP_sha256()), hashBy(&X509_pubkey_digest, EVP_sha1())};
}

TEST_F(Items, PrintsTheDocumentedJson) {
  makeCards(
      "token label=0x43617264204F6E65\n"
      "public type=rsa2048 id=0x3041 label=Signature\n"
      "certificate type=rsa2048 id=0x3041 label=Signing subject=Alice usage=digitalSignature,nonRepudiation "
      "notafter=20310203040506Z size=1000\n");
  const Json slot = slots().front();
  const std::string serial = textOf(slot["serialNumber"]);
  const std::string serialHex = slot["serialNumber"];
  ASSERT_EQ(slot["flags"], 0x42D);
  const auto [sha256, publicKeyHash] = hashesOf(mireltoken("certificate --key 3041").out);
  const Json expected{
      {"schema", "mireltoken/items/1"},
      {"reader", textOf(slot["description"])},
      {"instanceID", "Card One                        SoftHSM project                 SoftHSM v2      " +
                         serial + "-\x04" + serial + "-\x04"},
      {"instanceIDHex",
       "43617264204F6E65202020202020202020202020202020202020202020202020"
       "536F667448534D2070726F6A6563742020202020202020202020202020202020"
       "536F667448534D207632202020202020" +
           serialHex + "2D04" + serialHex + "2D04"},
      {"items",
       {{{"class", "certificate"},
         {"objectID", "cert_Signing_0A"},
         {"label", "0A"},
         {"subject", "CN=Alice"},
         {"notAfter", "2031-02-03T04:05:06Z"},
         {"keyUsage", {"digitalSignature", "nonRepudiation"}},
         {"size", 1000},
         {"idHex", "3041"},
         {"labelOnCard", "Signing"},
         {"sha256", sha256},
         {"publicKeyHash", publicKeyHash},
         {"issuer", "CN=Test issuer"},
         {"serialNumber", "1267"},
         {"notBefore", "2020-01-01T00:00:00Z"},
         {"extendedKeyUsage", Json::array()},
         {"subjectAltNames", Json::array()}},
        {{"class", "key"},
         {"objectID", "0A"},
         {"label", "0A"},
         {"certificateID", "cert_Signing_0A"},
         {"keyType", "RSA"},
         {"keySizeInBits", 2048},
         {"canSign", true},
         {"canDecrypt", false},
         {"canPerformKeyExchange", false},
         {"suitableForLogin", true},
         {"alwaysAuthenticate", true},
         {"constraints", {{"2", "PINAlways"}}},
         {"idHex", "3041"},
         {"labelOnCard", "Signature"},
         {"publicKeyHash", publicKeyHash}}}},
      {"notPublished", Json::array()}};
  const Result result = mireltoken("items --json");
  expectSuccess(result);
  Json printed = Json::parse(result.out);
  Json& key = printed["items"][1];
  EXPECT_THAT(std::string{key["works"]}, HasSubstr("signs RSA-PSS; PKCS #1 v1.5 "));
  EXPECT_EQ(key["findings"][0]["id"], "MT-K05");
  EXPECT_EQ(printed["findings"].size(), 2U);  // that, and what is not known of the PIN
  key.erase("works");
  key.erase("findings");
  printed.erase("findings");
  EXPECT_EQ(printed, expected) << printed.dump(2);
}

TEST_F(Items, ComeInTheModulesCertificateOrderEachDirectlyFollowedByItsKey) {
  std::string card = "token label=Card\n";
  for (int i = 10; i < 22; ++i) card += pairLines("p256", std::to_string(i), "keyAgreement");
  makeCards(card);
  const Result result = run(staged("items --json"));
  expectSuccess(result);
  std::vector<std::string> expected;
  for (const std::string& line : linesOf(read("calls"))) {
    if (!line.starts_with("certificate ")) continue;
    const std::string id = bytesOfHex(line.substr(line.find(' ') + 1));
    if (!expected.empty() && id == expected[1]) break;  // the second look at the card
    expected.insert(expected.end(), {"cert_Certificate_" + id, id});
  }
  std::vector<std::string> published;
  const Json json = Json::parse(result.out);
  for (const Json& item : json["items"]) published.push_back(item["objectID"]);
  ASSERT_THAT(expected, SizeIs(24));
  EXPECT_EQ(published, expected);
}

TEST_F(Items, AreNoneOfAnEmptyCard) { EXPECT_THAT(identifiersOf(""), ElementsAre()); }

TEST_F(Items, AreMadeOfCertificatesAndPublicKeysWithOneID) {
  const std::string bound = pairLines("p256", "Both", "keyAgreement");
  const std::pair<const char*, std::string> rows[] = {
      {"certificate alone", "certificate type=rsa2048 id=0x01 label=Alone usage=digitalSignature\n"},
      {"key alone", "public type=rsa2048 id=0x01 label=Alone\n"},
      {"certificate that is none",
       "public type=rsa2048 id=0x01 label=Key\ncertificate id=0x01 label=Broken value=0x30820100\n"},
      {"private key",
       "private type=rsa2048 id=0x01 label=Key allow=sign\n"
       "certificate type=rsa2048 id=0x01 label=Certificate usage=digitalSignature\n"},
      {"private key too", "private type=p256 id=Both label=Key allow=sign,derive\n"},
  };
  for (const auto& [name, lines] : rows) {
    SCOPED_TRACE(name);
    EXPECT_THAT(identifiersOf(lines + bound), ElementsAre("cert_Certificate_Both", "Both"));
  }
}

TEST_F(Items, HaveNoKeyForATypeThatTheKeychainCannotName) {
  EXPECT_THAT(identifiersOf(pairLines("ed25519", "Edwards", "digitalSignature")),
              ElementsAre("cert_Certificate_Edwards"));
}

TEST_F(Items, CountACertificateForEachKeyWithItsID) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=01 label=One\n"
      "public type=rsa2048 id=01 label=Two\n"
      "certificate type=rsa2048 id=01 label=Shared usage=digitalSignature\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  for (const Json& item : items) EXPECT_EQ(item["count"], 2);
  EXPECT_EQ(items[0]["objectID"], "cert_Shared_01");
  EXPECT_EQ(items[1]["objectID"], "01");
}

TEST_F(Items, ListEveryCertificateOfOneKey) {
  makeCards(
      "token label=Card\n"
      "public type=rsa2048 id=01 label=Key\n"
      "certificate type=rsa2048 id=01 label=Old usage=digitalSignature\n"
      "certificate type=rsa2048 id=01 label=New usage=keyEncipherment\n");
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(4));
  EXPECT_NE(items[0]["objectID"], items[2]["objectID"]);
  for (const std::size_t i : {0U, 2U}) {
    const bool isNew = items[i]["objectID"] == "cert_New_01";
    EXPECT_EQ(items[i]["objectID"], isNew ? "cert_New_01" : "cert_Old_01");
    EXPECT_EQ(items[i + 1]["certificateID"], items[i]["objectID"]);
    EXPECT_EQ(items[i + 1]["canDecrypt"], isNew);
    EXPECT_EQ(items[i + 1]["canSign"], !isNew);
  }
}

TEST_F(Items, AreAllThereOnCardsWithManyKeys) {
  for (const int count : {20, 21, 40, 160}) {
    SCOPED_TRACE(count);
    std::string card;
    std::vector<std::string> expected;
    for (int i = 1; i <= count; ++i) {
      const std::string id = std::to_string(i);
      card += pairLines("p256", id, "keyAgreement");
      expected.insert(expected.end(), {id, "cert_Certificate_" + id});
    }
    EXPECT_THAT(identifiersOf(card), ::testing::UnorderedElementsAreArray(expected));
  }
}

TEST_F(Items, GiveAKeyTheFirstAbilityThatItsCertificateAllows) {
  const struct {
    std::string usage;     ///< as the certificate has it; empty: no key usage
    std::string may = "";  ///< the one ability that it gives; empty: none, as no key of the keychain has it
    const char* operation = "";
    bool forLogin = false;
  } rows[] = {
      {"digitalSignature,nonRepudiation", "canSign", "2", true},
      {"keyEncipherment,keyAgreement", "canDecrypt", "3", true},
      {"keyAgreement,decipherOnly", "canPerformKeyExchange", "4"},
      {"keyCertSign,cRLSign"},
      {""},
  };
  std::string card = "token label=Card\n";
  for (const auto& row : rows) card += pairLines("rsa2048", std::to_string(&row - rows), row.usage);
  makeCards(card);
  const Json items = this->items();
  auto certificates = byLabel(items, "certificate");
  auto keys = byLabel(items, "key");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.usage);
    const std::string label = std::to_string(&row - rows);
    ASSERT_TRUE(certificates.contains(label) && keys.contains(label));
    std::string usage;
    for (const std::string name : certificates[label]["keyUsage"]) usage += (usage.empty() ? "" : ",") + name;
    EXPECT_EQ(usage, row.usage);
    const Json& key = keys[label];
    for (const std::string ability : {"canSign", "canDecrypt", "canPerformKeyExchange"})
      EXPECT_EQ(key[ability], ability == row.may) << ability;
    EXPECT_EQ(key["suitableForLogin"], row.forLogin);
    EXPECT_EQ(key["alwaysAuthenticate"], true);
    Json constraints = Json::object();
    if (*row.operation != '\0') constraints[row.operation] = "PINAlways";
    EXPECT_EQ(key["constraints"], constraints);
  }
}

TEST_F(Items, HaveTheTypeAndSizeOfTheirKeys) {
  std::string card = "token label=Card\n";
  for (const char* type : {"rsa1024", "rsa2048", "rsa3072", "p256", "p384", "p521"})
    card += pairLines(type, type, "");
  makeCards(card);
  const auto keys = byLabel(items(), "key");
  EXPECT_THAT(keys, SizeIs(6));
  for (const auto& [type, key] : keys) {
    const bool isRsa = type.starts_with("rsa");
    EXPECT_EQ(key["keyType"], isRsa ? "RSA" : "EC") << type;
    EXPECT_EQ(key["keySizeInBits"], std::stoi(type.substr(isRsa ? 3 : 1))) << type;
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

TEST_F(Items, KeepEveryByteOfAnIdentifierInJsonAndShowPeopleHexadecimalDigits) {
  const struct {
    const char* name;
    std::string id;  ///< hexadecimal digits
  } rows[] = {
      {"one byte", "01"},
      {"two bytes, NUL first", "0001"},
      {"NUL alone", "00"},
      {"NUL last", "4100"},
      {"NUL between letters", "410042"},
      {"SHA-1 of no bytes", "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709"},
      {"all-ones", "FFFFFFFF"},
      {"delete and what follows it", "7F809BA0AD"},
      {"quote and backslash", "225C"},
  };
  std::string card = "token label=Card\n";
  for (const auto& row : rows) card += pairLines("p256", "0x" + row.id, "keyAgreement");
  makeCards(card);
  const Result forPeople = mireltoken("items");
  const Result json = mireltoken("items --json");
  expectSuccess(forPeople);
  EXPECT_TRUE(isHarmlessToATerminal(forPeople.out));
  EXPECT_TRUE(isHarmlessToATerminal(json.out));
  auto certificates = byLabel(items(), "certificate");
  auto keys = byLabel(items(), "key");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string id = characters(bytesOfHex(row.id));
    ASSERT_TRUE(certificates.contains(id) && keys.contains(id));
    EXPECT_EQ(certificates[id]["objectID"], "cert_Certificate_" + id);
    EXPECT_EQ(keys[id]["objectID"], id);
    EXPECT_EQ(keys[id]["certificateID"], "cert_Certificate_" + id);
    std::string shown = row.id;
    for (char& digit : shown) digit = static_cast<char>(std::tolower(static_cast<unsigned char>(digit)));
    EXPECT_THAT(forPeople.out, ContainsRegex("\nkey          " + shown + " +Certificate "));
    EXPECT_THAT(forPeople.out, ContainsRegex("\ncertificate  " + shown + " +Certificate "));
  }
  for (const char* id : {R"(\u0001)", R"(\u0000\u0001)", R"(\u0000)", R"(A\u0000)", R"(A\u0000B)"})
    EXPECT_THAT(json.out, HasSubstr(std::string{"\"objectID\": \"cert_Certificate_"} + id + "\","));
}

TEST_F(Items, ShowALabelInUtf8) {
  makeCards(
      "token label=Gr\xC3\xBCn\npublic type=p256 id=0x01 label=K\n"
      "certificate type=p256 id=0x01 label=Unterschrift-\xE7\x8D\xB7\xC3\xBC\n");
  const std::string shown = mireltoken("items").out;
  EXPECT_THAT(shown, HasSubstr("Card         Gr\xC3\xBCn, serial number "));
  EXPECT_THAT(shown, HasSubstr("\nkey          01  Unterschrift-\xE7\x8D\xB7\xC3\xBC  "));
}

TEST_F(Items, AreToldByTheirIdentifiersInTheKeychainByRequest) {
  makeCards(
      "token label=Card\npublic type=p256 id=0x01FF label=K\n"
      "certificate type=p256 id=0x01FF label=Gr\xC3\xBCn\n");
  const std::string shown = mireltoken("items -v").out;
  EXPECT_THAT(shown, HasSubstr("\nKEYCHAIN     IDENTIFIER\ntoken        \"Card    "));
  EXPECT_THAT(
      shown,
      HasSubstr("\ncertificate  cert_Gr\xC3\x83\xC2\xBCn_\\x01\xC3\xBF\nkey          \\x01\xC3\xBF\n"));
}

TEST_F(Items, TellWhatTheirCertificateHolds) {
  makeCards(
      "token label=Card\npublic type=rsa2048 id=01 label=Key\n"
      "certificate type=rsa2048 id=01 label=Certificate subject=Zo\xC3\xAB\xE2\x82\xAC "
      "notafter=20510607080910Z size=2000\n");  // which is as large as may be
  const Json items = this->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0]["subject"], "CN=Zo\xC3\xAB\xE2\x82\xAC");
  EXPECT_EQ(items[0]["notAfter"], "2051-06-07T08:09:10Z");
  EXPECT_EQ(items[0]["size"], 2000);
}

TEST_F(Items, FailAsAWholeForOneObjectThatCannotBeListed) {
  const std::string longText(257, 'L');
  const std::pair<std::string, std::vector<std::string>> rows[] = {
      {"certificate type=rsa2048 id=0x0102 label=Big size=2001",
       {"certificate 0102 \"Big\"", "2001", "2000"}},
      {"certificate type=p256 id=0x0102 label=0x",
       {"certificate 0102: its label is empty", "lost by it: 01 \"Key\""}},
      {"certificate id=0x0102 label=Nothing value=0x", {"certificate 0102 \"Nothing\"", "value is empty"}},
      {"certificate type=p256 label=Long id=" + longText, {"certificate ", "\"Long\"", "257", "256"}},
      {"public type=rsa2048 id=0x0102 label=0x", {"public key 0102: its label is empty"}},
      {"public type=rsa2048 id=0x label=Nameless", {"public key \"Nameless\"", "ID is empty"}},
  };
  for (const auto& [object, words] : rows) {
    SCOPED_TRACE(object.substr(0, 60));
    makeCards("token label=Card\n" + pairLines("p256", "0x01", "keyAgreement") + object + "\n");
    expectFailures({{"items --json", 6, words}, {"items", 6, words}});
  }
}

TEST_F(Items, StandInATableForPeopleWithWhatIsNotPublishedAndWhy) {
  makeCards(
      "token label=0x43617264204F6E65\n"
      "public type=rsa2048 id=0A label=Key\n"
      "certificate type=rsa2048 id=0A label=Signing subject=Alice usage=digitalSignature,nonRepudiation "
      "notafter=20310203040506Z size=1000\n"
      "certificate type=p256 id=02 label=Lonely usage=keyAgreement\n"
      "public type=p256 id=03 label=Orphan\n"
      "public type=p256 id=04 label=Torn\n"
      "certificate id=04 label=Torn value=0x30820100\n");
  const Json slot = slots().front();
  const Result result = mireltoken("items");
  expectSuccess(result);
  const std::size_t heading = result.out.find("NOT PUBLISHED");
  ASSERT_NE(heading, std::string::npos);
  const std::string published = result.out.substr(0, heading);
  const std::string rest = result.out.substr(heading);
  for (const std::string& text :
       {textOf(slot["description"]), std::string{"Card One"}, textOf(slot["serialNumber"])})
    EXPECT_THAT(published, HasSubstr(text));
  EXPECT_THAT(published, HasSubstr("\nITEM         ID    LABEL    WHAT IT IS\n"
                                   "certificate  3041  Signing  CN=Alice, until 2031-02-03T04:05:06Z, "
                                   "digitalSignature nonRepudiation, 1000 bytes\n"
                                   "key          3041  Signing  RSA 2048, for login, PINAlways to sign, "
                                   "signs RSA-PSS; PKCS #1 v1.5 "));
  EXPECT_THAT(
      rest,
      ContainsRegex(
          "\ncertificate +Lonely +3032 +no public key with its ID is visible before login: it is missing, or "
          "private\n"));
  EXPECT_THAT(
      rest,
      ContainsRegex(
          "\npublic key +Orphan +3033 +no certificate with its ID is visible before login: it is missing, "
          "or private\n"));
  EXPECT_THAT(rest,
              ContainsRegex("\ncertificate +Torn +3034 +its value is not an X.509 certificate in DER\n"));
  EXPECT_THAT(rest, Not(HasSubstr("3041")));
}

}  // namespace
}  // namespace mirel::test
