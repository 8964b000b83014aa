#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <memory>
#include <span>

#include "EndToEndTest.h"
#include "platform/Hex.h"

namespace mirel::test {
namespace {

class Items : public EndToEndTest {};

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
  EXPECT_EQ(key["findings"][0]["id"], "MT-K10");
  EXPECT_EQ(printed["findings"].size(), 2U);  // that, and what is not known of the PIN
  key.erase("works");
  key.erase("findings");
  printed.erase("findings");
  EXPECT_EQ(printed, expected) << printed.dump(2);
}

TEST_F(Items, KeepEveryByteOfAnIdentifierInJsonAndShowPeopleHexadecimalDigits) {
  makeCards(
      "token label=Card\npublic type=p256 id=0x410042 label=K\ncertificate type=p256 id=0x410042 label=One\n"
      "public type=p256 id=0x7F809B225C label=K\ncertificate type=p256 id=0x7F809B225C label=Two\n");
  const std::string shown = mireltoken("items").out;
  for (const char* id : {"410042 +One ", "7f809b225c +Two "}) {
    EXPECT_THAT(shown, ContainsRegex(std::string{"\nkey          "} + id));
    EXPECT_THAT(shown, ContainsRegex(std::string{"\ncertificate  "} + id));
  }
  std::vector<std::string> identifiers;
  for (const Json& item : items()) identifiers.push_back(item["objectID"]);
  std::vector<std::string> expected;
  for (const std::string& id : {std::string{"A\0B", 3}, std::string{"\x7F\xC2\x80\xC2\x9B\"\\"}})
    expected.insert(expected.end(), {id, (expected.empty() ? "cert_One_" : "cert_Two_") + id});
  EXPECT_THAT(identifiers, ::testing::UnorderedElementsAreArray(expected));
  EXPECT_THAT(mireltoken("items --json").out, HasSubstr(R"("objectID": "cert_One_A\u0000B",)"));
}

TEST_F(Items, HaveTheAbilitiesAndTheTypeOfTheirKeys) {
  makeCard(severalKeys());
  for (const Json& item : items()) {
    if (item["class"] != "key") continue;
    const std::string id = item["objectID"];
    SCOPED_TRACE(id);
    EXPECT_EQ(item["canSign"], id == "01");
    EXPECT_EQ(item["canDecrypt"], id == "02");
    EXPECT_EQ(item["canPerformKeyExchange"], id == "03");
    EXPECT_EQ(item["keyType"], id == "03" ? "EC" : "RSA");
    const std::string operation = id == "01" ? "2" : id == "02" ? "3" : "4";
    EXPECT_EQ(item["constraints"], (Json{{operation, "PINAlways"}}));
  }
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

TEST_F(Items, OfSeveralKeysThatAreAlikeAreListedOnceWithTheirNumber) {
  makeCards(
      "token label=Card\npublic type=p256 id=01 label=Key\npublic type=p256 id=01 label=Key\n"
      "certificate type=p256 id=01 label=Key usage=keyAgreement\n"
      "public type=p256 id=02 label=Other\ncertificate type=p256 id=02 label=Other usage=keyAgreement\n");
  const Json all = items();
  EXPECT_THAT(all, SizeIs(4));
  for (const Json& item : all) {
    const std::string id = item["idHex"];
    EXPECT_EQ(item.value("count", 1), id == "3031" ? 2 : 1) << item;
  }
  const std::string shown = mireltoken("items").out;
  for (const char* line : {"\ncertificate  3031 [^\n]*, 2 times\n", "\nkey          3031 [^\n]*, 2 times\n"})
    EXPECT_THAT(shown, ContainsRegex(line));
  EXPECT_THAT(shown, Not(ContainsRegex("3032[^\n]* times")));
}

TEST_F(Items, AreNotMadeForTestsOfAWrongKeyUsageOrDate) {
  for (const auto& [word, why] :
       {std::pair{"usage=digitalSignature,noUsage", "no such keyUsage: critical,digitalSignature,noUsage\n"},
        {"notafter=20311303040506Z", "no such date: 20311303040506Z\n"},
        {"notafter=310203040506Z", "no such date: 310203040506Z\n"}}) {
    const std::string card = std::string{"token label=Card\ncertificate type=p256 id=01 "} + word + "\n";
    EXPECT_THAT([&] { makeCards(card); }, ::testing::ThrowsMessage<std::runtime_error>(EndsWith(why)));
  }
}

TEST_F(Items, FailAsAWholeForOneObjectThatCannotBeListed) {
  makeCards(
      "token label=Card\npublic type=p256 id=01 label=Key\ncertificate type=p256 id=01 label=Key\n"
      "certificate type=rsa2048 id=02 label=Big size=2001\n");
  const std::vector<std::string> words{"certificate 3032 \"Big\"", "2001", "2000",
                                       "lost by it: 3031 \"Key\""};
  expectFailures({{"items --json", 6, words}, {"items", 6, words}});
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
          "private; the one with the ID 3033 is of its key\n"));
  EXPECT_THAT(
      rest,
      ContainsRegex(
          "\npublic key +Orphan +3033 +no certificate with its ID is visible before login: it is missing, "
          "or private; the one with the ID 3032 is of its key\n"));
  EXPECT_THAT(rest,
              ContainsRegex("\ncertificate +Torn +3034 +its value is not an X.509 certificate in DER\n"));
  EXPECT_THAT(rest, Not(HasSubstr("3041")));
}

}  // namespace
}  // namespace mirel::test
