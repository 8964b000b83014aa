/// What `items` and `sign` say of cards that do not work as their holders expect.

#include <gmock/gmock.h>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;

class CardReports : public EndToEndTest {
 protected:
  /// The ID, severity and subject of the findings of a card with these lines that are failures or warnings,
  /// each as one line.
  [[nodiscard]] std::string troubles(const std::string& lines) const {
    makeCards("token label=Card\n" + lines);
    const Result result = mireltoken("items --json");
    expectSuccess(result);
    std::string text;
    const Json json = Json::parse(result.out);
    for (const Json& finding : json["findings"]) {
      const std::string severity = finding["severity"];
      if (severity != "failure" && severity != "warning") continue;
      text += std::string{finding["id"]} + " " + severity + " " + std::string{finding["subject"]} + "\n";
    }
    return text;
  }
};

constexpr const char* kGoodKey =
    "private type=rsa2048 id=01 label=Good allow=sign\n"
    "public type=rsa2048 id=01 label=Good\n"
    "certificate type=rsa2048 id=01 label=Good usage=digitalSignature\n";

TEST_F(CardReports, NameTheCauseInJson) {
  const struct {
    const char* name;
    std::string lines;
    const char* expected;
  } rows[] = {
      {"good", kGoodKey, ""},
      {"no public key",
       "private type=rsa2048 id=01 label=Key\n"
       "certificate type=rsa2048 id=01 label=Key usage=digitalSignature\n",
       "MT-C06 failure certificate 3031 \"Key\"\n"},
      {"no certificate", "private type=rsa2048 id=01 label=Key\npublic type=rsa2048 id=01 label=Key\n",
       "MT-C08 failure public key 3031 \"Key\"\n"},
      {"another key",
       "public type=p256 id=01 label=Key\ncertificate type=rsa2048 id=01 label=Key usage=digitalSignature\n",
       "MT-C11 failure certificate 3031 \"Key\"\n"},
      {"one ID",
       std::string{kGoodKey} + "certificate type=rsa2048 id=01 label=Second usage=digitalSignature\n",
       "MT-C12 warning ID 3031\n"},
      {"expired",
       "public type=rsa2048 id=01 label=Key\n"
       "certificate type=rsa2048 id=01 label=Key usage=digitalSignature notafter=20210101000000Z\n",
       "MT-C13 warning certificate 3031 \"Key\"\n"},
      {"RSA of 3072 bits beside a good key",
       std::string{kGoodKey} + "public type=rsa3072 id=02 label=Long\n"
                               "certificate type=rsa3072 id=02 label=Long usage=digitalSignature\n",
       "MT-K01 warning key 3032 \"Long\"\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(troubles(row.lines), row.expected);
  }
}

TEST_F(CardReports, StandBelowTheTableWithWhatToDo) {
  makeCards(std::string{"token label=Card\n"} + kGoodKey +
            "public type=p256 id=02 label=Curve\n"
            "certificate type=p256 id=02 label=Curve usage=digitalSignature\n");
  const Result result = mireltoken("items");
  expectSuccess(result);
  EXPECT_THAT(result.out,
              AllOf(ContainsRegex("\nkey +3032 +Curve +EC 256,.* nothing: EC keys never sign here\n"),
                    ContainsRegex("\nMT-K02 +warning +key 3032 \"Curve\" +an EC key never signs or decrypts "
                                  "\\(EC, 256 bits\\); use an RSA key of 2048 bits\n")));
}

TEST_F(CardReports, ExplainASignatureThatDoesNotVerify) {
  // The private key is another one than that of the certificate, and the public key shows it.
  makeCards(std::string{"token label=Card pin="} + kPin +
            "\n"
            "private type=rsa2048 id=01 label=Key allow=sign\n"
            "public type=rsa2048 id=01 label=Key\n"
            "certificate type=rsa1024 id=01 label=Other usage=digitalSignature\n");
  expectFailures({{"sign --key 3031 --out " + path("out"),
                   11,
                   {"a certificate belongs to another key", "certificate and public key differ"}}});
}

}  // namespace
}  // namespace mirel::test
